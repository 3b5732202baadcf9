#include "net/login.h"

#include <cerrno>
#include <cstring>
#include <memory>

#include "common/log.h"
#include "common/zq_proto.h"
#include "control/control.h"
#include "main/socketclientcmd.h"
#include "net/edci_protocol.h"
#include "net/net_comm.h"
#include "net/netuser.h"

namespace {

// The device-capability answer is taken when it holds at least the two I/O
// counts (bytes 2 and 3); the device information when it holds DeviceId.
constexpr int kCapMinLen = 4;
constexpr int kInfoMinLen = static_cast<int>(offsetof(DeviceInfoRsp, DeviceId) + sizeof(DeviceInfoRsp::DeviceId));

}  // namespace

void login_fill_device_info(TK_DEVICE_INFO *info)
{
    std::memset(info, 0, sizeof *info);
    info->video_chns = 1;
    info->audio_chns = 1;
    info->netport_num = 1;

    DeviceCapabilityReq cap_req{};
    DeviceCapabilityRsp cap{};
    int cap_len = 0;
    int cap_ret = socket_client_cmd_Read(ZQ_GETDEVICECAP, &cap_req, sizeof cap_req, &cap, &cap_len, sizeof cap);

    DeviceInfoReq info_req{};
    auto dev = std::make_unique<DeviceInfoRsp>();
    std::memset(dev.get(), 0, sizeof *dev);
    int dev_len = 0;
    int dev_ret =
        socket_client_cmd_Read(ZQ_GETDEVICEINFO, &info_req, sizeof info_req, dev.get(), &dev_len, sizeof *dev);

    if (cap_ret == 0 && cap_len >= kCapMinLen && dev_ret == 0 && dev_len >= kInfoMinLen) {
        wire_get_str(info->serial_no, sizeof info->serial_no, dev->DeviceId, sizeof dev->DeviceId);
        info->alarmin_chns = cap.IoInputCount;
        info->alarmout_chns = cap.IoOutputCount;
    } else {
        ERR("login: device information unavailable, cap ret = %d len = %d, info ret = %d len = %d", cap_ret, cap_len,
            dev_ret, dev_len);
    }
}

int login_routine(int fd)
{
    NEW_PP_LOGIN_REQ req{};
    errno = 0;
    int n = readn(fd, &req, sizeof req);
    if (n != static_cast<int>(sizeof req)) {
        ERR("read login payload failed.len=[%d],errno=[%d]", n, errno);
        return TK_ERR_IO;
    }
    if (get_remote_port_addr(fd, nullptr, nullptr) != 0) return TK_ERR_SOCKET;

    USER_PRIVILEGE priv;
    std::memset(&priv, 1, sizeof priv);

    // The name field may fill all 16 bytes without a terminator.
    char uid[sizeof req.uid + 1];
    wire_get_str(uid, sizeof uid, req.uid, sizeof req.uid);

    NEW_PACKET_HEADER head{};
    const int session_id = netuser_add_login_ctrl_session(fd, uid, &priv, NETUSER_LOGIN_TIMEOUT);
    if (session_id == -1) {
        new_tknvi_noload_ack(&head, TK_ERR_REFUSED);
        writen(fd, &head, sizeof head);
        return TK_ERR_REFUSED;
    }

    auto rsp = std::make_unique<NEW_PP_LOGIN_RSP>();
    std::memset(rsp.get(), 0, sizeof *rsp);
    rsp->session_id = session_id;
    rsp->priv = priv;
    login_fill_device_info(&rsp->dev_info);

    int result;
    new_tknvi_noload_ack(&head, TK_OK);
    head.len = sizeof *rsp;
    n = writen(fd, &head, sizeof head);
    if (n != static_cast<int>(sizeof head)) {
        ERR("write login return head failed,len=[%d],errno=[%d]", n, errno);
        result = TK_ERR_IO;
    } else if ((n = writen(fd, rsp.get(), sizeof *rsp)) != static_cast<int>(sizeof *rsp)) {
        ERR("write login return payload failed,len=[%d],errno=[%d]", n, errno);
        result = TK_ERR_IO;
    } else {
        auto buf = std::make_unique<char[]>(CONTROL_BUF_SIZE);
        result = control_routine(fd, buf.get(), session_id, &priv, session_id);
    }
    netuser_remove_ctrl_session(session_id);
    return result;
}

// The platform-protocol state: start-up reading of the network-protocol
// settings and the push callback that applies the server's changes.
#include "main/tcl_hook.h"

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "common/log.h"
#include "common/zq_proto.h"
#include "main/socketclientcmd.h"

tcl_info g_tcl_info;

namespace {

// The hook reads NetworkProtocol up to and including TclPort.
constexpr int kProtocolBytesUsed = static_cast<int>(offsetof(NetworkProtocol, TclPort) + sizeof(uint16_t));

void on_protocol_changed(tcl_info *info, const char *pData, int nOutLen)
{
    if (pData == nullptr || nOutLen < kProtocolBytesUsed) {
        ERR("network protocol push of %d bytes is too short, ignored", nOutLen);
        return;
    }
    NetworkProtocol proto{};
    std::memcpy(&proto, pData, nOutLen < static_cast<int>(sizeof proto) ? static_cast<size_t>(nOutLen) : sizeof proto);
    const int enable = proto.ThirdPartyProtocolEnable;
    const unsigned int port = proto.TclPort;

    if (enable != info->tcl_enable) {
        if (enable == 0) {
            info->tcl_st = con_fail;
            info->udp_st = con_fail;
        } else if (enable == 1 && proto.ThirdPartyProtocolType == 1) {
            info->tcl_st = con_suc;
            info->udp_st = con_suc;
        }
    }
    if (port != info->tcl_port) {
        info->tcl_st = con_change_port;
        info->udp_st = con_change_port;
    }
    // Here the type is not consulted and a port of 0 is kept as it came.
    info->tcl_enable = enable;
    info->tcl_port = port;
    ERR("tcl_enable = %d, tcl_port = %u, tcl_st = %d, udp_st = %d", info->tcl_enable.load(), info->tcl_port.load(),
        info->tcl_st.load(), info->udp_st.load());
}

void on_alarm(tcl_info *info, const char *pData, int nOutLen)
{
    if (pData == nullptr) {
        ERR("pData is null");
        return;
    }
    if (nOutLen < static_cast<int>(offsetof(AlarmInfo, AlarmType) + 1)) {
        ERR("alarm push of %d bytes is too short, ignored", nOutLen);
        return;
    }
    const uint8_t type = static_cast<uint8_t>(pData[offsetof(AlarmInfo, AlarmType)]);
    DBG("alarmInfo->AlarmType = 0x%x", type);
    std::lock_guard<std::mutex> lock(info->event_mutex);
    info->event_time = time(nullptr);
    EVENT_STATE &ev = info->event_state;
    switch (type) {
        case 0:
        case 1:
        case 2:
        case 3:
            ev.alarmin_mask[type] = 1;
            break;
        case 4:
            ev.motion_mask[0] = 1;
            break;
        case 9:
            ev.blind_mask[0] = 1;
            break;
        case 11:
            ev.loss_mask[0] = 1;
            break;
        default:
            break;
    }
}

}  // namespace

tcl_info *get_g_tcl_info()
{
    return &g_tcl_info;
}

void tcl_info_reset(tcl_info *info)
{
    info->tcl_addr = 0;
    info->tcl_port = 0;
    info->tcp_fd = 0;
    info->udp_fd = 0;
    info->ls_discov_fd = 0;
    info->tcl_enable = 0;
    info->audio_enable = 0;
    info->tcl_st = con_suc;
    info->udp_st = con_suc;
    std::lock_guard<std::mutex> lock(info->event_mutex);
    info->event_state = EVENT_STATE{};
    info->event_time = 0;
}

int check_tcl_enable(tcl_info *info)
{
    NetworkProtocolReq req{};
    req.sel[NP_SEL_THIRD_PARTY_PROTOCOL_ENABLE] = 1;
    req.sel[NP_SEL_THIRD_PARTY_PROTOCOL_TYPE] = 1;
    NetworkProtocol proto{};
    int outlen = 0;
    int ret = socket_client_cmd_Read(ZQ_GETNETWORKPROTOCOL, &req, sizeof req, &proto, &outlen, sizeof proto);
    if (ret != 0 || outlen != static_cast<int>(sizeof proto)) {
        ERR("ZQ_GETNETWORKPROTOCOL may be error, ret = %d, outlen = %d, errno = %d", ret, outlen, errno);
        proto = NetworkProtocol{};
    }
    if (proto.ThirdPartyProtocolEnable == 0) {
        info->tcl_enable = 0;
    } else if (proto.ThirdPartyProtocolEnable == 1 && proto.ThirdPartyProtocolType == 1) {
        info->tcl_enable = 1;
    }
    info->tcl_port = proto.TclPort != 0 ? proto.TclPort : TCL_DEFAULT_PORT;
    DBG("ThirdPartyProtocolEnable = %d, ThirdPartyProtocolType = %d,net_proto.TclPort = %d",
        proto.ThirdPartyProtocolEnable, proto.ThirdPartyProtocolType, proto.TclPort);
    return 0;
}

void TclCB(unsigned short shCmd, const char *pData, int nOutLen)
{
    DBG("shCmd = 0x%X, nOutLen = %d", shCmd, nOutLen);
    tcl_info *info = get_g_tcl_info();
    switch (shCmd) {
        case ZQ_PUSH_NETWORKPROTOCOL:
            on_protocol_changed(info, pData, nOutLen);
            break;
        case ZQ_PUSH_ALARM:
            on_alarm(info, pData, nOutLen);
            break;
        case ZQ_PUSH_SERVICE_STOP:
            info->tcl_st = con_fail;
            info->udp_st = con_fail;
            info->audio_enable = 0;
            ERR("service stop: tcl_st = %d, udp_st = %d, audio_enable = 0", con_fail, con_fail);
            break;
        default:
            break;
    }
}

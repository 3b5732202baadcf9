#include "net/active_register.h"

#include <netdb.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "common/log.h"
#include "common/zq_proto.h"
#include "control/control.h"
#include "main/socketclientcmd.h"
#include "net/net_comm.h"
#include "net/netuser.h"

namespace {

struct REGISTER_THREAD_INFO {
    int fd;
    USER_PRIVILEGE reg_priv;
};

void fill_register_device_info(TK_DEVICE_INFO *info)
{
    std::memset(info, 0, sizeof *info);
    // The answers are used as they come: a failed request leaves its fields zero.
    DeviceCapabilityReq cap_req{};
    DeviceCapabilityRsp cap{};
    int cap_len = 0;
    socket_client_cmd_Read(ZQ_GETDEVICECAP, &cap_req, sizeof cap_req, &cap, &cap_len, sizeof cap);

    DeviceInfoReq info_req{};
    auto dev = std::make_unique<DeviceInfoRsp>();
    std::memset(dev.get(), 0, sizeof *dev);
    int dev_len = 0;
    socket_client_cmd_Read(ZQ_GETDEVICEINFO, &info_req, sizeof info_req, dev.get(), &dev_len, sizeof *dev);

    wire_get_str(info->serial_no, sizeof info->serial_no, dev->DeviceId, sizeof dev->DeviceId);
    info->video_chns = 1;
    info->audio_chns = 1;
    info->alarmin_chns = cap.IoInputCount;
    info->alarmout_chns = cap.IoOutputCount;
    info->netport_num = 1;
    char version[sizeof dev->SoftWareVersion + 1];
    wire_get_str(version, sizeof version, dev->SoftWareVersion, sizeof dev->SoftWareVersion);
    active_register_version_info(version, info);
}

void register_routine(std::unique_ptr<REGISTER_THREAD_INFO> thread_info)
{
    const int fd = thread_info->fd;
    USER_PRIVILEGE reg_priv = thread_info->reg_priv;
    thread_info.reset();

    NEW_PACKET_HEADER head{};
    head.magic = TK_PROTO_MAGIC;
    head.cmd = TK_CMD_REGISTER;
    head.len = sizeof(USER_PRIVILEGE) + sizeof(TK_DEVICE_INFO);
    TK_DEVICE_INFO dev{};
    fill_register_device_info(&dev);

    if (writen(fd, &head, sizeof head) == static_cast<int>(sizeof head) &&
        writen(fd, &reg_priv, sizeof reg_priv) == static_cast<int>(sizeof reg_priv) &&
        writen(fd, &dev, sizeof dev) == static_cast<int>(sizeof dev)) {
        NEW_PACKET_HEADER ack{};
        TK_S32 auth_id = 0;
        if (readn(fd, &ack, sizeof ack) == static_cast<int>(sizeof ack) && ack.cmd == 0 && ack.len == 4 &&
            readn(fd, &auth_id, sizeof auth_id) == static_cast<int>(sizeof auth_id)) {
            const int session_id = netuser_add_register_ctrl_session(fd, auth_id, &reg_priv, NETUSER_LOGIN_TIMEOUT);
            if (session_id == -1) {
                ERR("active_register:add_cmd_session failed!");
            } else {
                auto buf = std::make_unique<char[]>(CONTROL_BUF_SIZE);
                control_routine(fd, buf.get(), session_id, &reg_priv, auth_id);
                netuser_remove_ctrl_session(session_id);
            }
        }
    }
    close(fd);
}

void *register_thread(void *arg)
{
    register_routine(std::unique_ptr<REGISTER_THREAD_INFO>(static_cast<REGISTER_THREAD_INFO *>(arg)));
    return nullptr;
}

// Copy at most n characters of src (fewer when it ends) to dst, terminated.
void copy_part(char *dst, const char *src, size_t n)
{
    size_t i = 0;
    while (i < n && src[i] != '\0') {
        dst[i] = src[i];
        ++i;
    }
    dst[i] = '\0';
}

}  // namespace

int parse(char *line, char **argv, char delimiter, int max_tokens)
{
    int argc = 0;
    char *p = line;
    while (p != nullptr && *p != '\0' && argc < max_tokens) {
        while (*p == delimiter) ++p;
        if (*p == '\0') break;
        argv[argc++] = p;
        while (*p != '\0' && *p != delimiter) ++p;
        if (*p == delimiter) *p++ = '\0';
    }
    argv[argc] = nullptr;
    return argc;
}

void active_register_version_info(const char *soft_version, TK_DEVICE_INFO *info)
{
    constexpr int kMaxParts = 16;
    char ver[64];
    copy_part(ver, soft_version ? soft_version : "", sizeof ver - 1);

    char split[sizeof ver];
    std::memcpy(split, ver, sizeof ver);
    char *argv[kMaxParts + 1];
    const int argc = parse(split, argv, '.', kMaxParts);
    info->version = 0;
    if (argc == 3) {
        char joined[3 * sizeof ver];
        std::snprintf(joined, sizeof joined, "%s%s%s", argv[0] + (argv[0][0] ? 1 : 0), argv[1], argv[2]);
        info->version = static_cast<TK_U32>(std::strtol(joined, nullptr, 10));
    } else {
        ERR("maybe error get version error ver = %s, argc = %d", ver, argc);
    }

    std::memset(info->release_date, 0, sizeof info->release_date);
    std::memset(info->dev_type, 0, sizeof info->dev_type);
    const char *blank = std::strrchr(ver, ' ');
    if (blank != nullptr) {
        const char *buf = blank + 1;
        DBG("buf = %s", buf);
        char year[5], month[3], day[3];
        const size_t len = std::strlen(buf);
        copy_part(year, buf, 4);
        copy_part(month, len > 4 ? buf + 4 : "", 2);
        copy_part(day, len > 6 ? buf + 6 : "", 2);
        char date[16];
        std::snprintf(date, sizeof date, "%s-%s-%s", year, month, day);
        char release[64];
        std::snprintf(release, sizeof release, "%s 00:00:00", date);
        wire_set_str(info->release_date, release);
        wire_set_str(info->dev_type, "IP_CAMERA");
    }
}

int active_register(const NET_CC_PARA *para)
{
    if (para == nullptr) return TK_ERR_SESSION;
    if (para->enable == 0) return 0;

    char server[sizeof para->cc_server + 1];
    wire_get_str(server, sizeof server, para->cc_server, sizeof para->cc_server);
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *res = nullptr;
    int gai = getaddrinfo(server, nullptr, &hints, &res);
    if (gai != 0 || res == nullptr) {
        ERR("getaddrinfo: %s", gai_strerror(gai));
        return TK_ERR_SOCKET;
    }
    sockaddr_in addr{};
    std::memcpy(&addr, res->ai_addr, sizeof addr);
    freeaddrinfo(res);
    addr.sin_port = htons(para->port);

    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        ERR("active_register: socket failed,fd=[%d]", fd);
        return TK_ERR_REFUSED;
    }
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        ERR("active_register connect failed");
        close(fd);
        return TK_ERR_SOCKET;
    }
    std::unique_ptr<REGISTER_THREAD_INFO> info(new (std::nothrow) REGISTER_THREAD_INFO);
    if (!info) {
        ERR("malloc failed!");
        close(fd);
        return TK_ERR_REFUSED;
    }
    info->fd = fd;
    info->reg_priv = para->reg_priv;
    pthread_t tid;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    int err = pthread_create(&tid, &attr, register_thread, info.get());
    pthread_attr_destroy(&attr);
    if (err != 0) {
        ERR("pthread_create failed! errno : %d", err);
        close(fd);
        return TK_ERR_REFUSED;
    }
    info.release();  // the thread owns it now
    return 0;
}

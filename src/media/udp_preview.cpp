#include "media/udp_preview.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "common/env.h"
#include "common/log.h"
#include "common/zq_proto.h"
#include "main/socketclientcmd.h"
#include "main/tcl_hook.h"
#include "media/frame_buffer.h"
#include "media/shm_cache.h"
#include "net/active_register.h"
#include "net/edci_protocol.h"
#include "net/netuser.h"

namespace {

constexpr int kHeaderLen = static_cast<int>(sizeof(NEW_PACKET_HEADER));
// The capability answer is taken with its two I/O counts (bytes 2 and 3), the
// device information when it holds everything up to SoftWareVersion.
constexpr int kCapMinLen = 4;
constexpr int kInfoMinLen =
    static_cast<int>(offsetof(DeviceInfoRsp, SoftWareVersion) + sizeof(DeviceInfoRsp::SoftWareVersion));
constexpr useconds_t kNoFrameUs = 5000;

struct CG_PACKED SEARCH_REPLY_DATAGRAM {
    NEW_PACKET_HEADER head;
    TK_SEARCH_REPLY body;
};
CG_SIZE(SEARCH_REPLY_DATAGRAM, 736);

void ipv4_text(uint32_t network_order, char (&out)[16])
{
    in_addr a{};
    a.s_addr = network_order;
    if (inet_ntop(AF_INET, &a, out, sizeof out) == nullptr) out[0] = '\0';
}

std::string peer_text(const sockaddr_in &addr)
{
    char ip[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &addr.sin_addr, ip, sizeof ip);
    return std::string(ip) + ":" + std::to_string(ntohs(addr.sin_port));
}

void send_header(int fd, const sockaddr_in &to, int cmd)
{
    NEW_PACKET_HEADER head{};
    new_tknvi_noload_ack(&head, cmd);
    if (sendto(fd, &head, sizeof head, MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&to), sizeof to) < 0)
        ERR("sendto %s failed! errno : %d", peer_text(to).c_str(), errno);
}

void answer_search(int fd, const sockaddr_in &from)
{
    char ip[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &from.sin_addr, ip, sizeof ip);
    DBG("recv rvedci search msg from %s:%d", ip, ntohs(from.sin_port));

    SEARCH_REPLY_DATAGRAM reply{};
    if (udp_fill_search_reply(&reply.body) != 0) return;
    reply.head.magic = TK_PROTO_MAGIC;
    reply.head.cmd = TK_CMD_SEARCH_DEVICE_ACK;
    reply.head.len = sizeof reply.body;

    // The limited broadcast must leave through the camera's interface even without a default route.
    const std::string route = std::string("route add -net 255.255.255.255 netmask 255.255.255.255 dev ") + env_ifname();
    env_system(route.c_str());

    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(env_discovery_port()));
    if (inet_pton(AF_INET, env_broadcast_addr(), &to.sin_addr) != 1) {
        ERR("search reply: bad broadcast address %s", env_broadcast_addr());
        return;
    }
    if (sendto(fd, &reply, sizeof reply, MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&to), sizeof to) !=
        static_cast<ssize_t>(sizeof reply))
        ERR("search reply to %s failed! errno : %d", peer_text(to).c_str(), errno);
}

// Start a UDP or multicast preview for the requester at from: 0 with
// *session_id, or the error code to answer.
int start_udp_preview(const sockaddr_in &from, const NEW_PP_PERVIEW_REQ &req, int *session_id)
{
    const int auth_id = static_cast<int>(req.auth_id);
    char user_name[16] = "";
    USER_PRIVILEGE priv{};
    const int ret = netuser_get_user_info(auth_id, user_name, &priv);
    if (ret != 0) {
        ERR("netuser_get_user_info failed! auth_id:%d, ret:%d", auth_id, ret);
        return TK_ERR_SESSION;
    }
    if (req.channel > 63 || priv.net_priview_right[req.channel] == 0) {
        ERR("udp_priview:no rights! channel:%d", static_cast<int>(req.channel));
        return TK_ERR_RIGHT;
    }
    if (req.protocol != PROTOCOL_TYPE_UDP && req.protocol != PROTOCOL_TYPE_MULTICAST) {
        ERR("udp_priview:protocol invalid! protocol:%d", static_cast<int>(req.protocol));
        return TK_ERR_UNSUPPORTED;
    }
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        ERR("udp_preview:socket failed! fd=[%d]", fd);
        return TK_ERR_SOCKET;
    }
    int sid = -1;  // a multicast preview has no destination and no session
    if (req.protocol == PROTOCOL_TYPE_UDP) {
        if (connect(fd, reinterpret_cast<const sockaddr *>(&from), sizeof from) != 0) {
            ERR("unicast:connect failed! errno:[%d]", errno);
            close(fd);
            return TK_ERR_SOCKET;
        }
        sid = netuser_add_udp_preview_session(auth_id, user_name, fd, static_cast<int>(req.channel),
                                              static_cast<int>(req.stream_index), UDP_PREVIEW_TIMEOUT);
        if (sid == -1) {
            ERR("udp_preview:add session failed!");
            close(fd);
            return TK_ERR_REFUSED;
        }
    }
    std::unique_ptr<NEW_UDP_SENT_PACKAGE> pkg(new (std::nothrow) NEW_UDP_SENT_PACKAGE());
    if (!pkg) ERR("udp_preview:malloc failed! errno:%d", errno);
    pthread_t tid;
    bool started = false;
    if (pkg) {
        pkg->payload = req;
        pkg->session_id = sid;
        pkg->fd = fd;
        started = pthread_create(&tid, nullptr, udp_preview_routine, pkg.get()) == 0;
        if (!started) ERR("udp_preview:pthread_create failed! errno:%d", errno);
    }
    if (!started) {
        if (sid != -1) netuser_remove_preview_session(sid);
        close(fd);
        return TK_ERR_REFUSED;
    }
    pkg.release();  // the thread owns it now
    pthread_detach(tid);
    *session_id = sid;
    return 0;
}

void answer_preview_request(int fd, const sockaddr_in &from, const NEW_PP_PERVIEW_REQ &req)
{
    int session_id = -1;
    const int ret = start_udp_preview(from, req, &session_id);
    if (ret != 0) {
        send_header(fd, from, ret);
        return;
    }
    struct CG_PACKED {
        NEW_PACKET_HEADER head;
        TK_S32 session_id;
    } answer{{TK_PROTO_MAGIC, TK_OK, sizeof(TK_S32)}, session_id};
    if (sendto(fd, &answer, sizeof answer, MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&from), sizeof from) < 0)
        ERR("sendto %s failed! errno : %d", peer_text(from).c_str(), errno);
}

// The streaming socket has no viewer any more: shut down by the registry
// (stop request, keepalive expiry), refused by the viewer's host, or never
// given a destination (multicast).
bool udp_viewer_gone(int fd)
{
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &len) != 0) return true;
    pollfd p{fd, POLLRDHUP, 0};
    if (poll(&p, 1, 0) < 0) return false;
    return (p.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) != 0;
}

}  // namespace

int geteth_ip_mask_mac_br(const char *ifname, char *ip, char *mask, char *mac)
{
    if (ifname == nullptr) {
        ERR("geteth_ip_mask error, eth is NULL");
        return -1;
    }
    const int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0) {
        ERR("%d socket error", __LINE__);
        return -1;
    }
    ifreq ifr{};
    std::snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", ifname);
    if (ioctl(s, SIOCGIFHWADDR, &ifr) < 0) {
        ERR("%d ioctl error", __LINE__);
        close(s);
        return -1;
    }
    const auto *hw = reinterpret_cast<const unsigned char *>(ifr.ifr_hwaddr.sa_data);
    char mac_text[18];
    std::snprintf(mac_text, sizeof mac_text, "%02X:%02X:%02X:%02X:%02X:%02X", hw[0], hw[1], hw[2], hw[3], hw[4], hw[5]);
    // Address and mask both come from bytes 2-5 of the hardware address: the
    // interface's address is not asked for (callers read the settings for it).
    char addr_text[16];
    std::snprintf(addr_text, sizeof addr_text, "%u.%u.%u.%u", hw[2], hw[3], hw[4], hw[5]);
    if (ip != nullptr) wire_copy_str(ip, 16, addr_text);
    if (mask != nullptr) wire_copy_str(mask, 16, addr_text);
    if (mac != nullptr) wire_copy_str(mac, 18, mac_text);
    close(s);
    return 0;
}

int udp_fill_search_reply(TK_SEARCH_REPLY *reply)
{
    std::memset(reply, 0, sizeof *reply);

    // Without these three nothing is answered.
    NetworkProtocolReq np_req{};
    NetworkProtocol np{};
    int np_len = 0;
    errno = 0;
    int ret = socket_client_cmd_Read(ZQ_GETNETWORKPROTOCOL, &np_req, sizeof np_req, &np, &np_len, sizeof np);
    bool ok = ret == 0 && np_len == static_cast<int>(sizeof np);
    DeviceCapabilityReq cap_req{};
    DeviceCapabilityRsp cap{};
    int cap_len = 0;
    if (ok) {
        ret = socket_client_cmd_Read(ZQ_GETDEVICECAP, &cap_req, sizeof cap_req, &cap, &cap_len, sizeof cap);
        ok = ret == 0 && cap_len >= kCapMinLen;
    }
    DeviceInfoReq info_req{};
    DeviceInfoRsp dev{};
    int dev_len = 0;
    if (ok) {
        ret = socket_client_cmd_Read(ZQ_GETDEVICEINFO, &info_req, sizeof info_req, &dev, &dev_len, sizeof dev);
        ok = ret == 0 && dev_len >= kInfoMinLen;
    }
    if (!ok) {
        ERR("may be ZQ_GETNETWORKPROTOCOL error, errno = %d", errno);
        return -1;
    }

    TK_DEVICE_INFO &d = reply->dev_info;
    wire_get_str(d.serial_no, sizeof d.serial_no, dev.DeviceId, sizeof dev.DeviceId);
    d.video_chns = 1;
    d.audio_chns = 1;
    d.alarmin_chns = cap.IoInputCount;
    d.alarmout_chns = cap.IoOutputCount;
    d.netport_num = 1;
    char version[sizeof dev.SoftWareVersion + 1];
    wire_get_str(version, sizeof version, dev.SoftWareVersion, sizeof dev.SoftWareVersion);
    active_register_version_info(version, &d);  // version, release_date, dev_type

    NET_COMM_PARA &net = reply->net;
    NetworkConfigReq nc_req;
    std::memset(&nc_req, 1, sizeof nc_req);
    NetworkConfig nc{};
    int nc_len = 0;
    errno = 0;
    ret = socket_client_cmd_Read(ZQ_GETNETWORK, &nc_req, sizeof nc_req, &nc, &nc_len, sizeof nc);
    if (ret == 0 && nc_len == static_cast<int>(sizeof nc)) {
        ipv4_text(nc.IPv4Address, net.eths[0].ipaddr.ipv4);
        ipv4_text(nc.IPv4Mask, net.eths[0].net_mask.ipv4);
        ipv4_text(nc.IPv4Gateway, net.default_gw.ipv4);
        ipv4_text(nc.IPv4DNS, net.dns_server1.ipv4);
        // A MAC given as 17-character text would be taken from the settings
        // (its first 8 bytes); the record holds only 8 bytes from MacAddress
        // on (six octets and padding), so the text is looked for there alone
        // and the interface's MAC is what the reply carries.
        const char *mac_field = reinterpret_cast<const char *>(nc.MacAddress);
        const size_t mac_room = sizeof nc - offsetof(NetworkConfig, MacAddress);
        if (wire_str_len(mac_field, mac_room) == 17) {
            std::memcpy(net.eths[0].mac_addr, mac_field, 8);
        } else {
            char mac[18] = "";
            geteth_ip_mask_mac_br(env_ifname(), nullptr, nullptr, mac);
            wire_set_str(net.eths[0].mac_addr, mac);
        }
    } else {
        ERR("%d ZQ_GETNETWORK error, ret = %d, outlen = %d, errno = %d", __LINE__, ret, nc_len, errno);
        char ip[16] = "", mask[16] = "", mac[18] = "";
        geteth_ip_mask_mac_br(env_ifname(), ip, mask, mac);
        wire_set_str(net.eths[0].ipaddr.ipv4, ip);
        wire_set_str(net.eths[0].net_mask.ipv4, mask);
        wire_set_str(net.eths[0].mac_addr, mac);
    }
    net.tcp_port = static_cast<TK_U16>(get_g_tcl_info()->tcl_port.load());
    net.web_port = np.HttpPort;
    return 0;
}

int edci_parse_udp_protocol(int fd)
{
    char buf[UDP_DATAGRAM_MAX];
    sockaddr_in from{};
    socklen_t fromlen = sizeof from;
    const ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &fromlen);
    if (n < 0) return TK_ERR_SOCKET;
    if (n == 0) {
        if (sendto(fd, buf, 0, MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&from), fromlen) < 0) {
            ERR("sendto 0 byte failed! errno : %d", errno);
            return TK_ERR_SOCKET;
        }
        return 0;
    }
    if (n < kHeaderLen || !edci_is_magic(buf)) return 0;
    NEW_PACKET_HEADER head;
    std::memcpy(&head, buf, sizeof head);
    const char *body = buf + kHeaderLen;
    const size_t body_len = static_cast<size_t>(n - kHeaderLen);

    switch (head.cmd) {
        case TK_CMD_SEARCH_DEVICE:
            answer_search(fd, from);
            break;
        case TK_CMD_PROBE:
            send_header(fd, from, TK_CMD_PROBE_ACK);
            break;
        case TK_CMD_PREVIEW_START: {
            NEW_PP_PERVIEW_REQ req;
            if (body_len < sizeof req) break;
            std::memcpy(&req, body, sizeof req);
            answer_preview_request(fd, from, req);
            break;
        }
        case TK_CMD_PREVIEW_STOP: {
            TK_S32 id;
            if (body_len < sizeof id) break;
            std::memcpy(&id, body, sizeof id);
            send_header(fd, from, netuser_remove_preview_session(id));
            break;
        }
        case TK_CMD_PREVIEW_HEARTBEAT: {
            TK_S32 id;
            if (body_len < sizeof id) break;
            std::memcpy(&id, body, sizeof id);
            netuser_update_heartbeat(id);
            break;
        }
        case TK_CMD_REMOTE_REBOOT: {
            int upgrades = 0;
            netuser_get_upgrade_sessions(nullptr, &upgrades);
            if (upgrades == 0) {
                DBG("new_tknvi_remote_control reboot");
                env_system("reboot");
            } else {
                ERR("system upgrade is executing!");
            }
            break;
        }
        default:
            break;
    }
    return 0;
}

void *udp_preview_routine(void *arg)
{
    std::unique_ptr<NEW_UDP_SENT_PACKAGE> pkg(static_cast<NEW_UDP_SENT_PACKAGE *>(arg));
    const int fd = pkg->fd;
    const int session_id = pkg->session_id;
    const int idx = static_cast<int>(pkg->payload.stream_index);
    pkg.reset();

    int mediatype = 0, bps = 0, fps = 0, width = 0, height = 0;
    const bool known = shm_cache_get_media_info(idx, &mediatype, &bps, &fps, &width, &height) == CACHE_RET_OK;
    if (!known) ERR("InitVideoPara() error");
    const FrameBuffer frame(known ? UDP_PREVIEW_BUF_SIZE : 0);
    if (known && !frame) ERR("udp_preview_routine: no frame buffer");
    if (frame) DBG("udp_preview_routine start, fd = %d, session_id = %d, stream = %d", fd, session_id, idx);
    int64_t frames = 0;
    while (frame) {
        int serial = CACHE_SEL_NEWEST_GOP, length = 0, type = 0;
        double timestamp = 0;
        const int ret =
            shm_cache_read_frame(idx, &serial, frame.data(), UDP_PREVIEW_BUF_SIZE, &length, &type, &timestamp);
        if (ret != CACHE_RET_OK || length <= 0) {
            // No key frame to give (none yet, or larger than the buffer): wait
            // a little instead of spinning, and end once the viewer has gone.
            if (udp_viewer_gone(fd)) break;
            usleep(kNoFrameUs);
            continue;
        }
        bool ended = false;
        TK_UDP_CHUNK_HDR hdr{};
        hdr.head.magic = TK_PROTO_MAGIC;
        hdr.head.cmd = TK_CMD_PREVIEW_DATA;
        for (int off = 0, index = 0; off < length; off += TK_UDP_CHUNK_SIZE, ++index) {
            const int chunk = length - off < TK_UDP_CHUNK_SIZE ? length - off : TK_UDP_CHUNK_SIZE;
            hdr.head.len = static_cast<TK_U32>(chunk + 4);
            hdr.chunk_index = static_cast<TK_U32>(index);
            iovec iov[2] = {{&hdr, sizeof hdr}, {frame.data() + off, static_cast<size_t>(chunk)}};
            msghdr msg{};
            msg.msg_iov = iov;
            msg.msg_iovlen = 2;
            const ssize_t sent = sendmsg(fd, &msg, MSG_NOSIGNAL);
            if (sent != static_cast<ssize_t>(sizeof hdr) + chunk) {
                ended = sent <= 0;  // a short datagram only abandons the frame
                break;
            }
        }
        if (ended) break;
        ++frames;
    }
    DBG("udp_preview_routine end, fd = %d, session_id = %d, frames = %lld, errno = %d", fd, session_id,
        static_cast<long long>(frames), errno);
    if (session_id != -1) netuser_remove_preview_session(session_id);
    close(fd);
    return nullptr;
}

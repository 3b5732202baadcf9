#include "client/media.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <set>
#include <utility>

namespace camgate {
namespace client {

namespace {

constexpr size_t kDatagramMax = 2048;
constexpr size_t kMaxReadyFrames = 4;

int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

int ms_until(int64_t deadline)
{
    const int64_t left = deadline - now_ms();
    return left > 0 ? static_cast<int>(left) : 0;
}

// Wait until fd is readable (true) or the deadline has passed (false); Io when poll fails.
bool readable_before(int fd, int64_t deadline)
{
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        const int r = poll(&p, 1, ms_until(deadline));
        if (r > 0) return true;
        if (r == 0) return false;
        if (errno != EINTR) throw Error(ErrorKind::Io, std::string("poll failed: ") + std::strerror(errno));
    }
}

std::string addr_text(const sockaddr_in &a)
{
    char ip[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &a.sin_addr, ip, sizeof ip);
    return std::string(ip) + ":" + std::to_string(ntohs(a.sin_port));
}

// Owns a descriptor until released.
struct FdGuard {
    int fd;
    ~FdGuard()
    {
        if (fd >= 0) ::close(fd);
    }
    int release() { return std::exchange(fd, -1); }
};

int udp_socket()
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw Error(ErrorKind::Io, std::string("cannot make a UDP socket: ") + std::strerror(errno));
    return fd;
}

std::string preview_refusal_text(int code)
{
    switch (code) {
        case TK_ERR_REFUSED:
            return "the camera serves 8 viewers already or has no room for another stream";
        case TK_ERR_SESSION:
            return "the camera knows no login with this id: log in first";
        case TK_ERR_RIGHT:
            return "no live-view right for this channel (channels are 0 to 63)";
        case TK_ERR_UNSUPPORTED:
            return "the camera does not serve this transport";
        case TK_ERR_SOCKET:
            return "the camera cannot send to this address";
        default:
            return "the camera answered an error";
    }
}

Error refused(const std::string &what, int code)
{
    return Error(ErrorKind::Refused,
                 what + " refused: " + preview_refusal_text(code) + " (" + std::to_string(code) + ")", code);
}

}  // namespace

void read_frame(Connection &conn, MediaFrame &frame)
{
    FRAME_HDR hdr;
    conn.receive_exact(&hdr, sizeof hdr);
    if (hdr.sync_code[0] != 0 || hdr.sync_code[1] != 0 || hdr.sync_code[2] != 1)
        throw Error(ErrorKind::Protocol, "the stream from " + conn.peer() + " lost its frame sync (00 00 01 expected)");
    size_t length = 0;
    size_t limit = kMaxVideoFrame;
    switch (hdr.type) {
        case TK_FRAME_VIDEO_I: {
            IFRAME_INFO info;
            conn.receive_exact(&info, sizeof info);
            frame.kind = MediaFrame::Kind::VideoI;
            frame.pts_msec = info.pts_msec;
            frame.framerate = info.framerate;
            frame.width = info.pic_width;
            frame.height = info.pic_height;
            frame.rtc_time = info.rtc_time;
            length = info.length;
            break;
        }
        case TK_FRAME_VIDEO_P: {
            PFRAME_INFO info;
            conn.receive_exact(&info, sizeof info);
            frame.kind = MediaFrame::Kind::VideoP;
            frame.pts_msec = info.pts_msec;
            length = info.length;
            break;
        }
        case TK_FRAME_AUDIO: {
            conn.receive_exact(&frame.audio, sizeof frame.audio);
            frame.kind = MediaFrame::Kind::Audio;
            length = frame.audio.length;
            limit = kMaxAudioFrame;
            break;
        }
        case TK_FRAME_OTHER:
            throw Error(ErrorKind::Protocol, "the camera " + conn.peer() +
                                                 " sent a video frame that is neither I nor P: its length is not "
                                                 "on the wire, so the stream cannot be followed");
        default: {
            char type[8];
            std::snprintf(type, sizeof type, "0x%02X", hdr.type);
            throw Error(ErrorKind::Protocol, "the stream from " + conn.peer() + " has a frame of unknown type " + type);
        }
    }
    if (length > limit)
        throw Error(ErrorKind::Protocol, "the stream from " + conn.peer() + " announced a frame of " +
                                             std::to_string(length) + " bytes, more than a camera sends");
    frame.data.resize(length);
    if (length != 0) conn.receive_exact(frame.data.data(), length);
}

PreviewStream::PreviewStream(const std::string &host, int port, const PreviewRequest &req, int timeout_ms)
    : conn_(host, port, timeout_ms)
{
    const NEW_PP_PERVIEW_REQ body{static_cast<TK_U32>(req.auth_id), req.protocol, req.channel, req.stream_index};
    NEW_PACKET_HEADER head{};
    try {
        conn_.send(TK_CMD_PREVIEW_START, &body, sizeof body);
        conn_.receive_exact(&head, sizeof head);
    } catch (const Error &e) {
        if (e.kind() == ErrorKind::Closed || e.kind() == ErrorKind::Timeout)
            throw Error(e.kind(), std::string(e.what()) + ": is the client protocol enabled?");
        throw;
    }
    if (head.magic != TK_PROTO_MAGIC)
        throw Error(ErrorKind::Protocol,
                    "the peer " + conn_.peer() + " does not speak the camera protocol (bad magic)");
    if (head.cmd != 0) throw refused("the live stream", head.cmd);
    if (head.len != sizeof session_id_)
        throw Error(ErrorKind::Protocol, "the camera " + conn_.peer() + " answered the preview request with " +
                                             std::to_string(head.len) + " bytes instead of 4");
    conn_.receive_exact(&session_id_, sizeof session_id_);
    camera_request_ = body;
}

PreviewStream::PreviewStream(Connection conn, const NEW_PP_PERVIEW_REQ &camera_request)
    : conn_(std::move(conn)), camera_request_(camera_request)
{
}

ActiveListener::ActiveListener(int port, const std::string &bind_address)
{
    FdGuard fd{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    if (fd.fd < 0) throw Error(ErrorKind::Io, std::string("cannot make a socket: ") + std::strerror(errno));
    const int one = 1;
    setsockopt(fd.fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr = resolve(bind_address, port);
    if (bind(fd.fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(fd.fd, 4) != 0)
        throw Error(ErrorKind::Io,
                    "cannot listen on " + bind_address + ":" + std::to_string(port) + ": " + std::strerror(errno));
    socklen_t len = sizeof addr;
    getsockname(fd.fd, reinterpret_cast<sockaddr *>(&addr), &len);
    port_ = ntohs(addr.sin_port);
    fd_ = fd.release();
}

ActiveListener::~ActiveListener()
{
    if (fd_ >= 0) ::close(fd_);
}

PreviewStream ActiveListener::accept(int timeout_ms, int32_t session_id)
{
    const int64_t deadline = now_ms() + timeout_ms;
    if (!readable_before(fd_, deadline))
        throw Error(ErrorKind::Timeout, "the camera did not connect to port " + std::to_string(port_) + " within " +
                                            std::to_string(timeout_ms) +
                                            " ms: can it reach this address, and is the port open?");
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    const int fd = accept4(fd_, reinterpret_cast<sockaddr *>(&peer), &len, SOCK_CLOEXEC);
    if (fd < 0) throw Error(ErrorKind::Io, std::string("accept failed: ") + std::strerror(errno));
    Connection conn(fd, addr_text(peer), ms_until(deadline) > 1000 ? ms_until(deadline) : 1000);
    const Message hello = conn.receive();
    NEW_PP_PERVIEW_REQ req{};
    if (hello.cmd != TK_CMD_PREVIEW_START || hello.body.size() != sizeof req)
        throw Error(ErrorKind::Protocol, "the peer " + conn.peer() + " did not present itself with a preview request");
    std::memcpy(&req, hello.body.data(), sizeof req);
    conn.send(TK_OK, &session_id, sizeof session_id);
    conn.set_timeout_ms(timeout_ms);
    return PreviewStream(std::move(conn), req);
}

int request_active_preview(Session &session, const std::string &address, int port, uint32_t channel,
                           uint32_t stream_index)
{
    NEW_ACTIVE_PERVIEW_REQ req{};
    if (address.size() >= sizeof req.ipaddr)
        throw Error(ErrorKind::Protocol, "the address \"" + address + "\" does not fit the request");
    wire_set_str(req.ipaddr, address.c_str());
    req.port = static_cast<TK_U32>(port);
    req.channel = channel;
    req.stream_index = stream_index;
    return session.request(TK_CMD_ACTIVE_PREVIEW, &req, sizeof req).result;
}

DiscoveredCamera DiscoveredCamera::decode(const TK_SEARCH_REPLY &raw)
{
    DiscoveredCamera c;
    c.device = DeviceInfo::decode(raw.dev_info);
    const NET_COMM_PARA &n = raw.net;
    c.dhcp = n.dhcp != 0;
    c.ip = field(n.eths[0].ipaddr.ipv4, sizeof n.eths[0].ipaddr.ipv4);
    c.mask = field(n.eths[0].net_mask.ipv4, sizeof n.eths[0].net_mask.ipv4);
    c.mac = field(n.eths[0].mac_addr, sizeof n.eths[0].mac_addr);
    c.gateway = field(n.default_gw.ipv4, sizeof n.default_gw.ipv4);
    c.dns = field(n.dns_server1.ipv4, sizeof n.dns_server1.ipv4);
    c.tcp_port = n.tcp_port;
    c.web_port = n.web_port;
    return c;
}

std::vector<DiscoveredCamera> discover(const DiscoverOptions &opt)
{
    FdGuard fd{udp_socket()};
    const int one = 1;
    setsockopt(fd.fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    setsockopt(fd.fd, SOL_SOCKET, SO_REUSEPORT, &one, sizeof one);
    setsockopt(fd.fd, SOL_SOCKET, SO_BROADCAST, &one, sizeof one);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    local.sin_port = htons(static_cast<uint16_t>(opt.port));
    if (bind(fd.fd, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0)
        throw Error(ErrorKind::Io,
                    "cannot listen for answers on UDP port " + std::to_string(opt.port) + ": " + std::strerror(errno));

    const sockaddr_in to = resolve(opt.address, opt.port);
    const NEW_PACKET_HEADER search{TK_PROTO_MAGIC, TK_CMD_SEARCH_DEVICE, 0};
    if (sendto(fd.fd, &search, sizeof search, MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&to), sizeof to) !=
        static_cast<ssize_t>(sizeof search))
        throw Error(ErrorKind::Io, "cannot send the search to " + addr_text(to) + ": " + std::strerror(errno));

    struct CG_PACKED Answer {
        NEW_PACKET_HEADER head;
        TK_SEARCH_REPLY body;
    };
    std::vector<DiscoveredCamera> found;
    std::set<std::string> seen;
    std::vector<uint8_t> buf(kDatagramMax);
    const int64_t deadline = now_ms() + opt.timeout_ms;
    while (readable_before(fd.fd, deadline)) {
        sockaddr_in from{};
        socklen_t len = sizeof from;
        const ssize_t n =
            recvfrom(fd.fd, buf.data(), buf.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from), &len);
        // Our own search comes back too (it is a broadcast), and anything else is not an answer.
        if (n != static_cast<ssize_t>(sizeof(Answer))) continue;
        Answer a;
        std::memcpy(&a, buf.data(), sizeof a);
        if (a.head.magic != TK_PROTO_MAGIC || a.head.cmd != TK_CMD_SEARCH_DEVICE_ACK || a.head.len != sizeof a.body)
            continue;
        DiscoveredCamera c = DiscoveredCamera::decode(a.body);
        c.from = addr_text(from);
        if (seen.insert(c.from + "|" + c.device.serial_no + "|" + c.mac + "|" + c.ip).second)
            found.push_back(std::move(c));
    }
    return found;
}

UdpPreview::UdpPreview(const std::string &host, int port, const PreviewRequest &req, int timeout_ms)
    : peer_(host + ":" + std::to_string(port)), timeout_ms_(timeout_ms), datagram_(kDatagramMax)
{
    const sockaddr_in to = resolve(host, port);
    peer_addr_ = to.sin_addr.s_addr;
    peer_port_ = to.sin_port;
    FdGuard fd{udp_socket()};
    // The camera sends as fast as it can: a large queue loses fewer chunks.
    const int rcvbuf = 4 << 20;
    setsockopt(fd.fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
    struct CG_PACKED {
        NEW_PACKET_HEADER head;
        NEW_PP_PERVIEW_REQ req;
    } msg{{TK_PROTO_MAGIC, TK_CMD_PREVIEW_START, sizeof(NEW_PP_PERVIEW_REQ)},
          {static_cast<TK_U32>(req.auth_id), req.protocol, req.channel, req.stream_index}};
    if (sendto(fd.fd, &msg, sizeof msg, MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&to), sizeof to) !=
        static_cast<ssize_t>(sizeof msg))
        throw Error(ErrorKind::Io, "cannot send the request to " + peer_ + ": " + std::strerror(errno));
    fd_ = fd.fd;  // the guard closes it should the camera not accept

    std::vector<uint8_t> answer;
    if (!pump(now_ms() + timeout_ms, &answer))
        throw Error(ErrorKind::Timeout, "no answer from the camera " + peer_ + " within " + std::to_string(timeout_ms) +
                                            " ms: is the client protocol enabled and the UDP port right?");
    NEW_PACKET_HEADER head;
    std::memcpy(&head, answer.data(), sizeof head);
    if (head.cmd != 0) throw refused("the UDP preview", head.cmd);
    if (answer.size() < sizeof head + sizeof session_id_)
        throw Error(ErrorKind::Protocol, "the camera " + peer_ + " answered without a session id");
    std::memcpy(&session_id_, answer.data() + sizeof head, sizeof session_id_);
    ctl_fd_ = udp_socket();
    if (connect(ctl_fd_, reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0) {
        ::close(ctl_fd_);
        throw Error(ErrorKind::Io, "cannot address " + peer_ + ": " + std::strerror(errno));
    }
    fd.release();
}

UdpPreview::~UdpPreview()
{
    if (fd_ >= 0) ::close(fd_);
    if (ctl_fd_ >= 0) ::close(ctl_fd_);
}

UdpPreview::UdpPreview(UdpPreview &&other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      ctl_fd_(std::exchange(other.ctl_fd_, -1)),
      peer_(std::move(other.peer_)),
      peer_addr_(other.peer_addr_),
      peer_port_(other.peer_port_),
      timeout_ms_(other.timeout_ms_),
      session_id_(other.session_id_),
      building_(std::move(other.building_)),
      in_frame_(other.in_frame_),
      broken_(other.broken_),
      next_index_(other.next_index_),
      ready_(std::move(other.ready_)),
      stats_(other.stats_),
      datagram_(std::move(other.datagram_))
{
}

void UdpPreview::send_ctl(int32_t cmd, const char *what)
{
    struct CG_PACKED {
        NEW_PACKET_HEADER head;
        TK_S32 id;
    } msg{{TK_PROTO_MAGIC, cmd, sizeof(TK_S32)}, session_id_};
    if (::send(ctl_fd_, &msg, sizeof msg, MSG_NOSIGNAL) < 0)
        throw Error(ErrorKind::Io, std::string("cannot send ") + what + " to " + peer_ + ": " + std::strerror(errno));
}

void UdpPreview::heartbeat()
{
    send_ctl(TK_CMD_PREVIEW_HEARTBEAT, "a heartbeat");
}

bool UdpPreview::next(UdpFrame &frame, int timeout_ms)
{
    if (ready_.empty() && !pump(now_ms() + timeout_ms, nullptr)) return false;
    frame = std::move(ready_.front());
    ready_.erase(ready_.begin());
    return true;
}

int UdpPreview::stop()
{
    send_ctl(TK_CMD_PREVIEW_STOP, "the stop");
    const int64_t deadline = now_ms() + timeout_ms_;
    for (;;) {
        if (!readable_before(ctl_fd_, deadline))
            throw Error(ErrorKind::Timeout, "no answer to the stop from the camera " + peer_);
        NEW_PACKET_HEADER head;
        const ssize_t n = ::recv(ctl_fd_, &head, sizeof head, MSG_DONTWAIT);
        if (n < 0 && errno == ECONNREFUSED)
            throw Error(ErrorKind::ConnectionRefused,
                        "the camera " + peer_ + " refused the stop: is the daemon running?");
        if (n == static_cast<ssize_t>(sizeof head) && head.magic == TK_PROTO_MAGIC) return head.cmd;
    }
}

bool UdpPreview::pump(int64_t deadline_ms, std::vector<uint8_t> *answer)
{
    for (;;) {
        if (answer == nullptr && !ready_.empty()) return true;
        if (!readable_before(fd_, deadline_ms)) return false;
        sockaddr_in from{};
        socklen_t len = sizeof from;
        const ssize_t n =
            recvfrom(fd_, datagram_.data(), datagram_.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from), &len);
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) continue;
            if (errno == ECONNREFUSED)
                throw Error(ErrorKind::ConnectionRefused,
                            "the camera " + peer_ + " refused the datagram: is the daemon running and the port right?");
            throw Error(ErrorKind::Io, "cannot receive from " + peer_ + ": " + std::strerror(errno));
        }
        NEW_PACKET_HEADER head;
        if (n < static_cast<ssize_t>(sizeof head)) continue;
        std::memcpy(&head, datagram_.data(), sizeof head);
        if (head.magic != TK_PROTO_MAGIC) continue;
        if (head.cmd == TK_CMD_PREVIEW_DATA && n >= static_cast<ssize_t>(sizeof(TK_UDP_CHUNK_HDR))) {
            TK_UDP_CHUNK_HDR chunk;
            std::memcpy(&chunk, datagram_.data(), sizeof chunk);
            on_chunk(chunk.chunk_index, datagram_.data() + sizeof chunk, static_cast<size_t>(n) - sizeof chunk);
            continue;
        }
        if (answer != nullptr && from.sin_addr.s_addr == peer_addr_ && from.sin_port == peer_port_) {
            answer->assign(datagram_.begin(), datagram_.begin() + n);
            return true;
        }
    }
}

void UdpPreview::on_chunk(uint32_t index, const uint8_t *data, size_t len)
{
    ++stats_.datagrams;
    if (index == 0) {
        if (in_frame_) finish_frame(false);  // ended on a full chunk, or lost its last chunks
        in_frame_ = true;
        broken_ = false;
        next_index_ = 0;
        building_.data.clear();
        building_.chunks = 0;
    } else if (!in_frame_) {
        return;  // the rest of a frame whose start was missed
    }
    if (index != next_index_ || len > static_cast<size_t>(TK_UDP_CHUNK_SIZE)) {
        broken_ = true;
    } else {
        building_.data.insert(building_.data.end(), data, data + len);
        ++building_.chunks;
        ++next_index_;
    }
    // Only the last chunk of a frame is shorter than 1024 bytes.
    if (len < static_cast<size_t>(TK_UDP_CHUNK_SIZE)) finish_frame(!broken_);
}

void UdpPreview::finish_frame(bool whole)
{
    in_frame_ = false;
    building_.whole = whole;
    ++(whole ? stats_.whole : stats_.cut);
    if (ready_.size() >= kMaxReadyFrames) ready_.erase(ready_.begin());  // a slow reader keeps the newest
    ready_.push_back(std::move(building_));
    building_ = UdpFrame();
}

}  // namespace client
}  // namespace camgate

#include "client/client.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

namespace camgate {
namespace client {

namespace {

using Clock = std::chrono::steady_clock;

std::string seconds_text(int ms)
{
    const int tenths = (ms + 50) / 100;
    return std::to_string(tenths / 10) + (tenths % 10 ? "." + std::to_string(tenths % 10) : "") + " s";
}

int ms_left(Clock::time_point deadline)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

// poll() for events until the deadline; false on time-out.
bool wait_for(int fd, short events, Clock::time_point deadline)
{
    for (;;) {
        pollfd p{fd, events, 0};
        const int r = poll(&p, 1, ms_left(deadline));
        if (r > 0) return true;
        if (r == 0) return false;
        if (errno != EINTR) throw Error(ErrorKind::Io, std::string("poll failed: ") + std::strerror(errno));
    }
}

Error closed_error(const std::string &peer)
{
    return Error(ErrorKind::Closed, "the camera " + peer + " closed the connection");
}

}  // namespace

sockaddr_in resolve(const std::string &host, int port)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, host.c_str(), &addr.sin_addr) == 1) return addr;
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *res = nullptr;
    const int gai = getaddrinfo(host.c_str(), nullptr, &hints, &res);
    if (gai != 0 || res == nullptr)
        throw Error(ErrorKind::Resolve, "cannot resolve host \"" + host + "\": " + gai_strerror(gai));
    addr.sin_addr = reinterpret_cast<const sockaddr_in *>(res->ai_addr)->sin_addr;
    freeaddrinfo(res);
    return addr;
}

std::string field(const char *p, size_t n)
{
    return std::string(p, wire_str_len(p, n));
}

Connection::Connection(const std::string &host, int port, int timeout_ms)
    : timeout_ms_(timeout_ms), peer_(host + ":" + std::to_string(port))
{
    sockaddr_in addr = resolve(host, port);
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) throw Error(ErrorKind::Io, std::string("cannot make a socket: ") + std::strerror(errno));
    const int flags = fcntl(fd_, F_GETFL);
    fcntl(fd_, F_SETFL, flags | O_NONBLOCK);
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    int err = 0;
    if (connect(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        err = errno;
        if (err == EINPROGRESS) {
            if (!wait_for(fd_, POLLOUT, deadline)) {
                close();
                throw Error(ErrorKind::Timeout, "no connection to " + peer_ + " within " + seconds_text(timeout_ms) +
                                                    ": is the camera reachable?");
            }
            socklen_t len = sizeof err;
            getsockopt(fd_, SOL_SOCKET, SO_ERROR, &err, &len);
        }
    }
    if (err != 0) {
        close();
        if (err == ECONNREFUSED)
            throw Error(ErrorKind::ConnectionRefused,
                        "connection refused by " + peer_ + ": is the daemon running and the port right?");
        if (err == ETIMEDOUT || err == EHOSTUNREACH || err == ENETUNREACH)
            throw Error(ErrorKind::Timeout, "cannot reach " + peer_ + ": " + std::strerror(err));
        throw Error(ErrorKind::Io, "cannot connect to " + peer_ + ": " + std::strerror(err));
    }
    fcntl(fd_, F_SETFL, flags);
}

Connection::~Connection()
{
    close();
}

Connection::Connection(Connection &&other) noexcept
    : fd_(std::exchange(other.fd_, -1)), timeout_ms_(other.timeout_ms_), peer_(std::move(other.peer_))
{
}

Connection &Connection::operator=(Connection &&other) noexcept
{
    if (this != &other) {
        close();
        fd_ = std::exchange(other.fd_, -1);
        timeout_ms_ = other.timeout_ms_;
        peer_ = std::move(other.peer_);
    }
    return *this;
}

void Connection::close()
{
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

void Connection::send(int32_t cmd, const void *body, size_t len)
{
    if (fd_ < 0) throw closed_error(peer_);
    if (len > kMaxBody)
        throw Error(ErrorKind::Protocol, "a message body of " + std::to_string(len) + " bytes is too large");
    NEW_PACKET_HEADER head{TK_PROTO_MAGIC, cmd, static_cast<TK_U32>(len)};
    std::vector<uint8_t> out(sizeof head + len);
    std::memcpy(out.data(), &head, sizeof head);
    if (len != 0) std::memcpy(out.data() + sizeof head, body, len);
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms_);
    size_t done = 0;
    while (done < out.size()) {
        const ssize_t n = ::send(fd_, out.data() + done, out.size() - done, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (!wait_for(fd_, POLLOUT, deadline))
                throw Error(ErrorKind::Timeout,
                            "the camera " + peer_ + " took no data for " + seconds_text(timeout_ms_));
            continue;
        }
        if (errno == EPIPE || errno == ECONNRESET) throw closed_error(peer_);
        throw Error(ErrorKind::Io, "cannot send to " + peer_ + ": " + std::strerror(errno));
    }
}

void Connection::receive_exact(void *buf, size_t len)
{
    if (fd_ < 0) throw closed_error(peer_);
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms_);
    auto *p = static_cast<uint8_t *>(buf);
    size_t done = 0;
    while (done < len) {
        if (!wait_for(fd_, POLLIN, deadline))
            throw Error(ErrorKind::Timeout,
                        "no answer from the camera " + peer_ + " within " + seconds_text(timeout_ms_));
        const ssize_t n = ::recv(fd_, p + done, len - done, MSG_DONTWAIT);
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (n == 0 || errno == ECONNRESET) throw closed_error(peer_);
        if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
        throw Error(ErrorKind::Io, "cannot read from " + peer_ + ": " + std::strerror(errno));
    }
}

Message Connection::receive()
{
    NEW_PACKET_HEADER head{};
    receive_exact(&head, sizeof head);
    if (head.magic != TK_PROTO_MAGIC)
        throw Error(ErrorKind::Protocol, "the peer " + peer_ + " does not speak the camera protocol (bad magic)");
    if (head.len > kMaxBody)
        throw Error(ErrorKind::Protocol,
                    "the camera " + peer_ + " announced a reply of " + std::to_string(head.len) + " bytes");
    Message msg;
    msg.cmd = head.cmd;
    msg.body.resize(head.len);
    if (head.len != 0) receive_exact(msg.body.data(), msg.body.size());
    return msg;
}

DeviceInfo DeviceInfo::decode(const TK_DEVICE_INFO &raw)
{
    DeviceInfo d;
    d.serial_no = field(raw.serial_no, sizeof raw.serial_no);
    d.dev_type = field(raw.dev_type, sizeof raw.dev_type);
    d.release_date = field(raw.release_date, sizeof raw.release_date);
    d.video_chns = raw.video_chns;
    d.audio_chns = raw.audio_chns;
    d.alarmin_chns = raw.alarmin_chns;
    d.alarmout_chns = raw.alarmout_chns;
    d.serial_num = raw.serial_num;
    d.ipchan_num = raw.ipchan_num;
    d.disk_num = raw.disk_num;
    d.netport_num = raw.netport_num;
    d.usbport_num = raw.usbport_num;
    d.support_mask = raw.support_mask;
    d.version = raw.version;
    return d;
}

Session::Session(const std::string &host, int port, int timeout_ms) : conn_(host, port, timeout_ms) {}

const LoginInfo &Session::login(const std::string &user, const std::string &password)
{
    NEW_PP_LOGIN_REQ req{};
    // Names and passwords fill their 16-byte fields; the camera keeps 15 characters of the name.
    std::memcpy(req.uid, user.data(), std::min(user.size(), sizeof req.uid));
    std::memcpy(req.pass, password.data(), std::min(password.size(), sizeof req.pass));
    Message reply;
    try {
        conn_.send(TK_CMD_LOGIN, &req, sizeof req);
        reply = conn_.receive();
    } catch (const Error &e) {
        conn_.close();
        if (e.kind() == ErrorKind::Closed || e.kind() == ErrorKind::Timeout)
            throw Error(e.kind(), std::string(e.what()) + ": is the client protocol enabled?");
        throw;
    }
    if (reply.cmd != 0) {
        conn_.close();
        throw Error(ErrorKind::LoginRefused,
                    "login refused: " + refusal_text(reply.cmd) + " (" + std::to_string(reply.cmd) + ")", reply.cmd);
    }
    if (reply.body.size() != sizeof(NEW_PP_LOGIN_RSP)) {
        conn_.close();
        throw Error(ErrorKind::Protocol, "the login reply has " + std::to_string(reply.body.size()) +
                                             " bytes instead of " + std::to_string(sizeof(NEW_PP_LOGIN_RSP)));
    }
    NEW_PP_LOGIN_RSP rsp;
    std::memcpy(&rsp, reply.body.data(), sizeof rsp);
    info_.session_id = rsp.session_id;
    info_.rights = rsp.priv;
    info_.device = DeviceInfo::decode(rsp.dev_info);
    logged_in_ = true;
    return info_;
}

Reply Session::request(int32_t cmd, const void *payload, size_t len)
{
    try {
        conn_.send(cmd, payload, len);
        Message msg = conn_.receive();
        return Reply{msg.cmd, std::move(msg.body)};
    } catch (const Error &e) {
        if (e.kind() == ErrorKind::Closed || e.kind() == ErrorKind::Timeout || e.kind() == ErrorKind::Protocol) {
            conn_.close();
            logged_in_ = false;
        }
        throw;
    }
}

void Session::heartbeat()
{
    const Reply r = request(TK_CMD_HEARTBEAT);
    if (!r.ok())
        throw Error(ErrorKind::Protocol, "the camera refused the heartbeat (" + std::to_string(r.result) + ")");
}

void Session::logout()
{
    const Reply r = request(TK_CMD_LOGOUT);
    conn_.close();
    logged_in_ = false;
    if (!r.ok()) throw Error(ErrorKind::Protocol, "the camera refused the logout (" + std::to_string(r.result) + ")");
}

const char *right_name(int right)
{
    static const char *const names[RIGHT_COUNT] = {
        "channel settings", "encoding settings",  "recording settings", "event detection settings",
        "network settings", "serial settings",    "analysis settings",  "factory reset",
        "system settings",  "storage management", "system upgrade",     "power control",
        "PTZ control",      "system log",         "online users",       "remote talk",
    };
    return right >= 0 && right < RIGHT_COUNT ? names[right] : "unknown right";
}

const char *right_key(int right)
{
    static const char *const keys[RIGHT_COUNT] = {
        "channel_set", "encode_set",    "record_set",         "event_detect_set", "network_set",    "serial_set",
        "ia_set",      "reset_factory", "sysbase_set",        "storage_manage",   "system_upgrade", "system_power",
        "ptz_control", "system_log",    "online_user_manage", "remote_talk",
    };
    return right >= 0 && right < RIGHT_COUNT ? keys[right] : "unknown";
}

std::string refusal_text(int code)
{
    switch (code) {
        case TK_ERR_REFUSED:
            return "no free control session";
        case TK_ERR_SESSION:
            return "unknown user or session";
        case TK_ERR_UNSUPPORTED:
            return "not supported by the camera";
        case TK_ERR_RIGHT:
            return "right not granted";
        default:
            return "the camera answered an error";
    }
}

}  // namespace client
}  // namespace camgate

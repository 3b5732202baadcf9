#include "support/sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include "support/testenv.h"

namespace cgtest {

void Fd::reset(int fd)
{
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
}

namespace {

sockaddr_in loopback(int port)
{
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sa.sin_port = htons(static_cast<uint16_t>(port));
    return sa;
}

// Wait for fd to become readable; false on time-out.
bool wait_readable(int fd, int timeout_ms)
{
    pollfd p{fd, POLLIN, 0};
    int r;
    do {
        r = poll(&p, 1, timeout_ms);
    } while (r < 0 && errno == EINTR);
    return r > 0;
}

}  // namespace

TcpPair tcp_pair()
{
    TcpPair pair;
    Fd listener(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in sa = loopback(0);
    if (!listener.valid() || bind(listener.get(), reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0 ||
        listen(listener.get(), 1) != 0)
        return pair;
    socklen_t len = sizeof sa;
    getsockname(listener.get(), reinterpret_cast<sockaddr *>(&sa), &len);
    pair.client.reset(socket(AF_INET, SOCK_STREAM, 0));
    if (connect(pair.client.get(), reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) {
        pair.client.reset();
        return pair;
    }
    pair.server.reset(accept(listener.get(), nullptr, nullptr));
    return pair;
}

Listener::Listener()
{
    fd_.reset(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in sa = loopback(0);
    if (bind(fd_.get(), reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0 || listen(fd_.get(), 8) != 0) {
        fd_.reset();
        return;
    }
    socklen_t len = sizeof sa;
    getsockname(fd_.get(), reinterpret_cast<sockaddr *>(&sa), &len);
    port_ = ntohs(sa.sin_port);
}

Fd Listener::accept(int timeout_ms)
{
    if (!fd_.valid() || !wait_readable(fd_.get(), timeout_ms)) return Fd();
    return Fd(::accept(fd_.get(), nullptr, nullptr));
}

void Listener::shutdown()
{
    ::shutdown(fd_.get(), SHUT_RDWR);
}

ScriptedPeer::ScriptedPeer(std::function<void(int fd)> script, int accept_timeout_ms)
{
    thread_ = std::thread([this, script, accept_timeout_ms] {
        Fd fd = listener_.accept(accept_timeout_ms);
        if (fd.valid()) script(fd.get());
    });
}

void ScriptedPeer::join()
{
    if (!thread_.joinable()) return;
    listener_.shutdown();
    thread_.join();
}

Fd connect_loopback(int port, int timeout_ms)
{
    const int64_t deadline = now_ms() + timeout_ms;
    for (;;) {
        Fd fd(socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in sa = loopback(port);
        if (connect(fd.get(), reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0) return fd;
        if (errno != ECONNREFUSED || now_ms() >= deadline) return Fd();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

bool recv_exact(int fd, void *buf, size_t len, int timeout_ms)
{
    const int64_t deadline = now_ms() + timeout_ms;
    auto *p = static_cast<uint8_t *>(buf);
    size_t done = 0;
    while (done < len) {
        const int64_t left = deadline - now_ms();
        if (left <= 0 || !wait_readable(fd, static_cast<int>(left))) return false;
        ssize_t n = recv(fd, p + done, len - done, 0);
        if (n <= 0) {
            if (n < 0 && errno == EINTR) continue;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

bool wait_peer_closed(int fd, int timeout_ms, std::vector<uint8_t> *data)
{
    const int64_t deadline = now_ms() + timeout_ms;
    // Looks at least once, so a time-out of 0 tells whether the peer has closed already.
    for (bool first = true;; first = false) {
        const int64_t left = deadline - now_ms();
        if ((left <= 0 && !first) || !wait_readable(fd, static_cast<int>(std::max<int64_t>(0, left)))) return false;
        uint8_t buf[4096];
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n == 0) return true;
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno == ECONNRESET || errno == EPIPE;
        }
        if (data) data->insert(data->end(), buf, buf + n);
    }
}

bool send_message(int fd, int32_t cmd, const void *body, size_t len)
{
    std::string out = header_bytes(cmd, static_cast<uint32_t>(len));
    if (body != nullptr) out.append(static_cast<const char *>(body), len);
    size_t done = 0;
    while (done < out.size()) {
        ssize_t n = send(fd, out.data() + done, out.size() - done, MSG_NOSIGNAL);
        if (n <= 0) {
            if (n < 0 && errno == EINTR) continue;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

bool recv_message(int fd, NEW_PACKET_HEADER *head, std::vector<uint8_t> *body, int timeout_ms)
{
    if (!recv_exact(fd, head, sizeof *head, timeout_ms) || head->len > (4u << 20)) return false;
    body->resize(head->len);
    return head->len == 0 || recv_exact(fd, body->data(), head->len, timeout_ms);
}

std::string header_bytes(int32_t cmd, uint32_t len)
{
    const NEW_PACKET_HEADER h{TK_PROTO_MAGIC, cmd, len};
    return std::string(reinterpret_cast<const char *>(&h), sizeof h);
}

Fd udp_socket(int port)
{
    Fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int one = 1, rcvbuf = 1 << 20;
    setsockopt(fd.get(), SOL_SOCKET, SO_BROADCAST, &one, sizeof one);
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
    sockaddr_in sa = loopback(port);
    if (port != 0) sa.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(fd.get(), reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) fd.reset();
    return fd;
}

int local_port(int fd)
{
    sockaddr_in sa{};
    socklen_t len = sizeof sa;
    getsockname(fd, reinterpret_cast<sockaddr *>(&sa), &len);
    return ntohs(sa.sin_port);
}

bool send_datagram(int fd, const char *addr, int port, int32_t cmd, const void *body, size_t len)
{
    std::string msg = header_bytes(cmd, static_cast<uint32_t>(len));
    if (body != nullptr) msg.append(static_cast<const char *>(body), len);
    sockaddr_in to = loopback(port);
    inet_pton(AF_INET, addr, &to.sin_addr);
    return sendto(fd, msg.data(), msg.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to) ==
           static_cast<ssize_t>(msg.size());
}

bool recv_datagram(int fd, std::vector<uint8_t> *out, int timeout_ms, sockaddr_in *from)
{
    if (!wait_readable(fd, timeout_ms)) return false;
    out->resize(65536);
    sockaddr_in f{};
    socklen_t len = sizeof f;
    const ssize_t n = recvfrom(fd, out->data(), out->size(), 0, reinterpret_cast<sockaddr *>(&f), &len);
    if (n < 0) return false;
    out->resize(static_cast<size_t>(n));
    if (from) *from = f;
    return true;
}

bool udp_port_taken(int port)
{
    Fd fd(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in sa = loopback(port);
    sa.sin_addr.s_addr = htonl(INADDR_ANY);
    return bind(fd.get(), reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0;
}

USER_PRIVILEGE all_rights()
{
    USER_PRIVILEGE p;
    std::memset(&p, 1, sizeof p);
    return p;
}

}  // namespace cgtest

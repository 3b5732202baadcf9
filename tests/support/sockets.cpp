#include "support/sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

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
    for (;;) {
        const int64_t left = deadline - now_ms();
        if (left <= 0 || !wait_readable(fd, static_cast<int>(left))) return false;
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
    NEW_PACKET_HEADER head{TK_PROTO_MAGIC, cmd, static_cast<TK_U32>(len)};
    std::string out(reinterpret_cast<const char *>(&head), sizeof head);
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

}  // namespace cgtest

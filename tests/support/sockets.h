// Loopback socket helpers for tests: an owning descriptor, connected TCP
// pairs, connecting to a port with a bound wait, exact reads with a
// time-out, and waiting for the peer to close.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/tk_proto.h"

namespace cgtest {

// Owns a descriptor and closes it on destruction.
class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(Fd &&other) noexcept : fd_(other.release()) {}
    Fd &operator=(Fd &&other) noexcept
    {
        if (this != &other) reset(other.release());
        return *this;
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release()
    {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1);

  private:
    int fd_ = -1;
};

// A connected TCP pair on loopback: client side and the accepted server side.
struct TcpPair {
    Fd client;
    Fd server;
};
TcpPair tcp_pair();

// A TCP listener on a free loopback port (a fake peer: a centre, a client
// that receives an active stream, a scripted camera).
class Listener {
  public:
    Listener();
    int port() const { return port_; }
    int fd() const { return fd_.get(); }
    // The next connection, or an invalid Fd after timeout_ms.
    Fd accept(int timeout_ms = 3000);
    // Wake a thread blocked in accept (it gets an invalid Fd).
    void shutdown();

  private:
    Fd fd_;
    int port_ = 0;
};

// Connect to 127.0.0.1:port, retrying refused connections until timeout_ms
// has passed (for servers that are still starting). Invalid Fd on failure.
Fd connect_loopback(int port, int timeout_ms = 3000);

// Read exactly len bytes within timeout_ms; false on time-out, error or close.
bool recv_exact(int fd, void *buf, size_t len, int timeout_ms = 3000);

// Wait until the peer has closed (a read gives end of file or a reset);
// bytes that arrive meanwhile are appended to *data when given. False on time-out.
bool wait_peer_closed(int fd, int timeout_ms = 3000, std::vector<uint8_t> *data = nullptr);

// Send a header (magic "QVRM", cmd, len = body size) and the body; false unless all was sent.
bool send_message(int fd, int32_t cmd, const void *body = nullptr, size_t len = 0);

}  // namespace cgtest

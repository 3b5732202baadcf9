// Loopback socket helpers for tests: an owning descriptor, connected TCP
// pairs, scripted peers, connecting to a port with a bound wait, exact reads
// with a time-out, waiting for the peer to close, datagrams, and the records
// that cross them.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
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

// A scripted peer (a fake camera, centre or viewer): a listener whose first
// connection within accept_timeout_ms is handed to script on a thread of its
// own. The destructor wakes a listener nobody reached and joins the thread.
class ScriptedPeer {
  public:
    explicit ScriptedPeer(std::function<void(int fd)> script, int accept_timeout_ms = 10000);
    ~ScriptedPeer() { join(); }
    int port() const { return listener_.port(); }
    // Wait until the script has ended.
    void join();

  private:
    Listener listener_;
    std::thread thread_;
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
// Read a header and its body within timeout_ms; false on time-out, close or a body over 4 MB.
bool recv_message(int fd, NEW_PACKET_HEADER *head, std::vector<uint8_t> *body, int timeout_ms = 3000);
// The bytes of a header with magic "QVRM".
std::string header_bytes(int32_t cmd, uint32_t len = 0);

// A UDP socket on 127.0.0.1 at an ephemeral port, or, when port is given, on
// any address at port, shared with other sockets; both may broadcast.
Fd udp_socket(int port = 0);
// The local port of a socket.
int local_port(int fd);
// Send a header for cmd and the body as one datagram to addr:port; false unless all was sent.
bool send_datagram(int fd, const char *addr, int port, int32_t cmd, const void *body = nullptr, size_t len = 0);
// The next datagram within timeout_ms (false on time-out); its sender in *from.
bool recv_datagram(int fd, std::vector<uint8_t> *out, int timeout_ms, sockaddr_in *from = nullptr);
// True when a socket without SO_REUSEADDR cannot bind UDP port (a server holds it).
bool udp_port_taken(int port);

// The bytes of a record.
template <class T>
std::vector<uint8_t> bytes_of(const T &rec)
{
    const auto *p = reinterpret_cast<const uint8_t *>(&rec);
    return std::vector<uint8_t>(p, p + sizeof rec);
}
// The text of a fixed field that may lack its terminator.
template <size_t N>
std::string field_text(const char (&field)[N])
{
    return std::string(field, wire_str_len(field, N));
}
// Every operation and channel right.
USER_PRIVILEGE all_rights();

}  // namespace cgtest

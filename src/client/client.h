// Client library of the camera's client protocol (TCP port 6258 by default).
//
// A Connection is one TCP connection speaking framed messages (a 12-byte
// NEW_PACKET_HEADER and its body). A Session logs in on a connection, which
// then becomes a control connection: request() sends a control command and
// returns the reply's result code and body; heartbeat() keeps the session
// alive (the camera drops a control session after about 12 s without one);
// logout() ends it.
//
// Failures throw camgate::client::Error, whose kind() tells what happened
// and whose what() is a message a person can act on.
//
//   camgate::client::Session s("192.168.1.10", 6258);
//   const auto &info = s.login("admin", "");
//   auto reply = s.request(TK_CMD_GET_NETWORK_CFG);
//   s.logout();
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/tk_proto.h"

namespace camgate {
namespace client {

enum class ErrorKind {
    Resolve,            // the host name cannot be resolved
    ConnectionRefused,  // nothing listens on host:port
    Timeout,            // no connection or no answer in time
    Closed,             // the camera closed the connection
    LoginRefused,       // the camera answered the login with an error code (code())
    Protocol,           // the camera sent something that is not this protocol
    Io,                 // any other socket failure
    Refused,            // the camera answered a request with an error code (code()): a control command, a preview
};

class Error : public std::runtime_error {
  public:
    Error(ErrorKind kind, const std::string &message, int code = 0)
        : std::runtime_error(message), kind_(kind), code_(code)
    {
    }
    ErrorKind kind() const { return kind_; }
    // The camera's result code for LoginRefused and Refused; 0 otherwise.
    int code() const { return code_; }

  private:
    ErrorKind kind_;
    int code_;
};

// The IPv4 address of host (a name or dotted text) with port; Error (Resolve) when it has none.
sockaddr_in resolve(const std::string &host, int port);

// The text of a fixed field of n bytes that may lack its terminator.
std::string field(const char *p, size_t n);

// One message: the header's cmd (a command, or a result in a control reply) and the body.
struct Message {
    int32_t cmd = 0;
    std::vector<uint8_t> body;
};

// The largest body accepted from the camera (a snapshot is at most 1.5 MB).
constexpr size_t kMaxBody = 4u << 20;

// A TCP connection to the client port. Move-only; closes its socket.
class Connection {
  public:
    Connection() = default;
    // Resolve host (name or dotted address, IPv4) and connect within timeout_ms.
    Connection(const std::string &host, int port, int timeout_ms);
    // Take over a connected socket (one the camera opened towards us, say); peer names it in messages.
    Connection(int fd, std::string peer, int timeout_ms) : fd_(fd), timeout_ms_(timeout_ms), peer_(std::move(peer)) {}
    ~Connection();
    Connection(Connection &&other) noexcept;
    Connection &operator=(Connection &&other) noexcept;
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    bool is_open() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    const std::string &peer() const { return peer_; }  // "host:port" for messages
    int timeout_ms() const { return timeout_ms_; }
    void set_timeout_ms(int ms) { timeout_ms_ = ms; }

    // Send the header (magic, cmd, len) and the body whole.
    void send(int32_t cmd, const void *body = nullptr, size_t len = 0);
    // Receive one message within the time-out; the magic must be "QVRM".
    Message receive();
    // Receive exactly len bytes within the time-out.
    void receive_exact(void *buf, size_t len);
    void close();

  private:
    int fd_ = -1;
    int timeout_ms_ = 10000;
    std::string peer_;
};

// The device description of a login reply, decoded.
struct DeviceInfo {
    std::string serial_no;
    std::string dev_type;
    std::string release_date;
    unsigned video_chns = 0, audio_chns = 0, alarmin_chns = 0, alarmout_chns = 0;
    unsigned serial_num = 0, ipchan_num = 0, disk_num = 0, netport_num = 0, usbport_num = 0;
    uint32_t support_mask = 0;
    uint32_t version = 0;

    static DeviceInfo decode(const TK_DEVICE_INFO &raw);
};

struct LoginInfo {
    int32_t session_id = -1;
    USER_PRIVILEGE rights{};
    DeviceInfo device;
};

// The reply to a control command: result code (0 success) and body.
struct Reply {
    int32_t result = 0;
    std::vector<uint8_t> body;
    bool ok() const { return result == 0; }
};

class Session {
  public:
    // Connect to host:port; timeout_ms bounds the connection and every answer.
    Session(const std::string &host, int port, int timeout_ms = 10000);

    // Log in. Throws LoginRefused with the camera's code (-6: no free control
    // session), Closed or Timeout when the camera does not serve the protocol.
    const LoginInfo &login(const std::string &user, const std::string &password);

    // Send a control command and wait for its reply.
    Reply request(int32_t cmd, const void *payload = nullptr, size_t len = 0);
    Reply request(int32_t cmd, const std::vector<uint8_t> &payload)
    {
        return request(cmd, payload.data(), payload.size());
    }

    // Refresh the session; throws unless the camera answers 0.
    void heartbeat();
    // Log out (the camera answers 0 and closes); the session is closed afterwards.
    void logout();

    bool logged_in() const { return logged_in_; }
    const LoginInfo &info() const { return info_; }
    Connection &connection() { return conn_; }

  private:
    Connection conn_;
    LoginInfo info_;
    bool logged_in_ = false;
};

// Rights: the operation rights (TK_RIGHT) by index.
const char *right_name(int right);  // "network settings"
const char *right_key(int right);   // "network_set"
// Text for a login refusal code ("no free control session" for -6).
std::string refusal_text(int code);

}  // namespace client
}  // namespace camgate

// The client library against the front end running in this process, and
// against scripted fake cameras for the failures a real one rarely shows.
#include <gtest/gtest.h>

#include <sys/socket.h>

#include <cstring>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "client/client.h"
#include "main/tcl_hook.h"
#include "net/netuser.h"
#include "support/front_end.h"
#include "support/sockets.h"
#include "support/testenv.h"

using camgate::client::Error;
using camgate::client::ErrorKind;
using camgate::client::Session;

namespace {

// A listener on a free loopback port whose first connection is handed to script.
class FakeCamera {
  public:
    explicit FakeCamera(std::function<void(int fd)> script)
    {
        thread_ = std::thread([this, script] {
            cgtest::Fd fd = listener_.accept(10000);
            if (fd.valid()) script(fd.get());
        });
    }
    ~FakeCamera()
    {
        listener_.shutdown();  // wakes accept when no one came
        thread_.join();
    }
    int port() const { return listener_.port(); }

  private:
    cgtest::Listener listener_;
    std::thread thread_;
};

// Expect fn to throw Error of kind; returns its message.
std::string expect_error(const std::function<void()> &fn, ErrorKind kind)
{
    try {
        fn();
    } catch (const Error &e) {
        EXPECT_EQ(static_cast<int>(e.kind()), static_cast<int>(kind)) << e.what();
        return e.what();
    }
    ADD_FAILURE() << "no error thrown";
    return "";
}

int ctrl_count()
{
    int n = 0;
    netuser_get_ctrl_sessions(nullptr, &n);
    return n;
}

}  // namespace

TEST(Client, LoginRequestsHeartbeatAndLogout)
{
    const int port = cgtest::front_end_port();
    Session s("127.0.0.1", port, 3000);
    const auto &info = s.login("operator", "pw");
    EXPECT_TRUE(s.logged_in());
    EXPECT_EQ(static_cast<uint32_t>(info.session_id) >> 24, 0u);
    EXPECT_EQ(info.rights.opt_rights[RIGHT_REMOTE_TALK], 1);
    EXPECT_EQ(info.rights.net_playback_right[63], 1);
    EXPECT_EQ(info.device.video_chns, 1u);
    EXPECT_EQ(info.device.netport_num, 1u);
    EXPECT_EQ(info.device.serial_no, "");

    s.heartbeat();
    auto reply = s.request(0x30000, std::vector<uint8_t>{1, 2, 3});  // no such command
    EXPECT_EQ(reply.result, -4);
    EXPECT_FALSE(reply.ok());
    EXPECT_TRUE(reply.body.empty());
    EXPECT_EQ(ctrl_count(), 1);

    s.logout();
    EXPECT_FALSE(s.logged_in());
    EXPECT_TRUE(cgtest::wait_until([] { return ctrl_count() == 0; }, 2000));
    const std::string msg = expect_error([&] { s.heartbeat(); }, ErrorKind::Closed);
    EXPECT_NE(msg.find("closed the connection"), std::string::npos) << msg;
}

TEST(Client, SilentCameraTimesOutInTime)
{
    FakeCamera cam([](int fd) { cgtest::wait_peer_closed(fd, 5000); });
    Session s("127.0.0.1", cam.port(), 400);
    const int64_t start = cgtest::now_ms();
    const std::string msg = expect_error([&] { s.login("admin", ""); }, ErrorKind::Timeout);
    const int64_t took = cgtest::now_ms() - start;
    EXPECT_GE(took, 350);
    EXPECT_LT(took, 2000);
    EXPECT_NE(msg.find("no answer from the camera"), std::string::npos) << msg;
}

TEST(Client, ForeignOrOversizedRepliesAreProtocolErrors)
{
    {
        FakeCamera cam([](int fd) {
            NEW_PACKET_HEADER h;
            cgtest::recv_exact(fd, &h, sizeof h);
            const char http[] = "HTTP/1.0 400 Bad Request\r\n\r\n";
            send(fd, http, sizeof http - 1, MSG_NOSIGNAL);
            cgtest::wait_peer_closed(fd, 2000);
        });
        Session s("127.0.0.1", cam.port(), 2000);
        expect_error([&] { s.login("admin", ""); }, ErrorKind::Protocol);
    }
    {
        FakeCamera cam([](int fd) {
            NEW_PACKET_HEADER h;
            cgtest::recv_exact(fd, &h, sizeof h);
            NEW_PACKET_HEADER huge{TK_PROTO_MAGIC, 0, 0x7FFFFFFF};
            send(fd, &huge, sizeof huge, MSG_NOSIGNAL);
            cgtest::wait_peer_closed(fd, 2000);
        });
        Session s("127.0.0.1", cam.port(), 2000);
        expect_error([&] { s.login("admin", ""); }, ErrorKind::Protocol);
    }
    {
        // A login reply of the wrong size.
        FakeCamera cam([](int fd) {
            uint8_t req[12 + 32];
            cgtest::recv_exact(fd, req, sizeof req);
            cgtest::send_message(fd, 0, "abcd", 4);
            cgtest::wait_peer_closed(fd, 2000);
        });
        Session s("127.0.0.1", cam.port(), 2000);
        expect_error([&] { s.login("admin", ""); }, ErrorKind::Protocol);
    }
}

TEST(Client, DeviceInfoDecodesUnterminatedFields)
{
    TK_DEVICE_INFO raw{};
    std::memset(raw.serial_no, 'S', sizeof raw.serial_no);  // all 32 bytes, no terminator
    wire_set_str(raw.dev_type, "IP_CAMERA");
    wire_set_str(raw.release_date, "2015-01-02 00:00:00");
    raw.alarmin_chns = 4;
    raw.alarmout_chns = 2;
    raw.version = 135;
    raw.support_mask = 0x11;
    const auto d = camgate::client::DeviceInfo::decode(raw);
    EXPECT_EQ(d.serial_no, std::string(32, 'S'));
    EXPECT_EQ(d.dev_type, "IP_CAMERA");
    EXPECT_EQ(d.release_date, "2015-01-02 00:00:00");
    EXPECT_EQ(d.alarmin_chns, 4u);
    EXPECT_EQ(d.alarmout_chns, 2u);
    EXPECT_EQ(d.version, 135u);
    EXPECT_EQ(d.support_mask, 0x11u);
}

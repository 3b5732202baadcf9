// The client protocol switched and moved by the settings server, and the
// keepalive of the real daemon. These tests wait real seconds.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <string>

#include "client/client.h"
#include "support/camera_fixture.h"
#include "support/sockets.h"

using camgate::client::Error;
using camgate::client::ErrorKind;
using camgate::client::Session;

namespace {

// Log in on port; the error kind when the login fails (-1 when it works).
int login_error(int port, int timeout_ms)
{
    try {
        Session s("127.0.0.1", port, timeout_ms);
        s.login("probe", "");
        s.logout();
        return -1;
    } catch (const Error &e) {
        return static_cast<int>(e.kind());
    }
}

}  // namespace

TEST(CameraService, SettingsSwitchTheProtocolOnAndOff)
{
    // Enabled, but for another protocol type: not served.
    cgtest::CameraOptions opt;
    opt.protocol_type = 2;
    cgtest::Camera cam(opt);
    ASSERT_TRUE(cam.start()) << cam.error();
    EXPECT_EQ(login_error(cam.port(), 1500), static_cast<int>(ErrorKind::Timeout));

    // Switched on for this protocol: served.
    ASSERT_TRUE(cam.push_protocol(1, 1, cam.port()));
    ASSERT_TRUE(cgtest::wait_until([&] { return login_error(cam.port(), 1000) == -1; }, 5000, 100));

    // A session running, then switched off: the daemon drops it within about a second.
    cgtest::Process tool;
    ASSERT_TRUE(tool.start(cgtest::bin_path("camgate"),
                           {"session", "--port", std::to_string(cam.port()), "--interval", "0.2"}));
    ASSERT_TRUE(tool.wait_output("heartbeat 1: ok", 5000)) << tool.err();
    ASSERT_TRUE(cam.push_protocol(0, 1, cam.port()));
    const int64_t off = cgtest::now_ms();
    ASSERT_TRUE(cam.daemon().wait_output("ctrl_session is timeout!", 3000)) << cam.daemon().err();
    EXPECT_LE(cgtest::now_ms() - off, 1600);
    int status = 0;
    ASSERT_TRUE(tool.wait_exit(5000, &status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_NE(tool.err().find(" failed: the camera 127.0.0.1:" + std::to_string(cam.port()) +
                              " closed the connection (the camera ends a session after about 12 s without "
                              "heartbeats, or when its client protocol is switched off)"),
              std::string::npos)
        << tool.err();
    EXPECT_NE(login_error(cam.port(), 1000), -1);
}

TEST(CameraService, PortChangeMovesTheListenerAndKeepsSessions)
{
    cgtest::Camera cam;
    ASSERT_TRUE(cam.start()) << cam.error();
    Session before("127.0.0.1", cam.port(), 3000);
    before.login("before", "");

    const int new_port = cgtest::free_port_tcp_and_udp();
    ASSERT_TRUE(cam.push_protocol(1, 1, new_port));
    const int64_t pushed = cgtest::now_ms();
    ASSERT_TRUE(cgtest::wait_until([&] { return login_error(new_port, 1000) == -1; }, 5000, 50));
    EXPECT_LE(cgtest::now_ms() - pushed, 3500);
    EXPECT_EQ(login_error(cam.port(), 1000), static_cast<int>(ErrorKind::ConnectionRefused));
    EXPECT_TRUE(cgtest::wait_until(
        [&] { return cgtest::udp_port_taken(new_port) && !cgtest::udp_port_taken(cam.port()); }, 3000));

    // The session made on the old port outlives the move.
    for (int i = 0; i < 3; ++i) before.heartbeat();
    before.logout();
    EXPECT_TRUE(cam.daemon().running());
}

// About 14 s: a client that stops sending heartbeats is dropped on the 12th
// check after its last one, while a client that keeps sending them stays.
TEST(CameraService, KeepaliveDropsSilentClientsOnly)
{
    cgtest::Camera cam;
    ASSERT_TRUE(cam.start()) << cam.error();
    cgtest::Process tool;
    ASSERT_TRUE(tool.start(cgtest::bin_path("camgate"),
                           {"session", "--port", std::to_string(cam.port()), "--interval", "2", "--count", "7"}));
    Session silent("127.0.0.1", cam.port(), 3000);
    silent.login("silent", "");
    const int64_t start = cgtest::now_ms();

    ASSERT_TRUE(cgtest::wait_peer_closed(silent.connection().fd(), 15000));
    const int64_t dropped = cgtest::now_ms() - start;
    EXPECT_GE(dropped, 10900);
    EXPECT_LE(dropped, 12900);
    EXPECT_EQ(cam.daemon().count_output("ctrl_session is timeout!"), 1);

    int status = 0;
    ASSERT_TRUE(tool.wait_exit(8000, &status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << tool.err() << tool.out();  // all 7 heartbeats answered
}

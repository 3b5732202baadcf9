// The camgate command-line tool against the front end running in this process.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>

#include <memory>
#include <string>
#include <vector>

#include "client/client.h"
#include "net/netuser.h"
#include "support/front_end.h"
#include "support/sockets.h"
#include "support/testenv.h"
#include "support/text.h"

namespace {

using cgtest::ctrl_session_count;

class Tool : public ::testing::Test {
  protected:
    void SetUp() override { port_ = cgtest::front_end_port(); }

    struct Run {
        int status;  // -1 when it did not end within 10 s
        std::string out, err;
    };
    // Run camgate with args to its end.
    static Run run(const std::vector<std::string> &args)
    {
        cgtest::Process p;
        const int status = p.run(cgtest::bin_path("camgate"), args, 10000);
        return {status, p.out(), p.err()};
    }

    std::string port() const { return std::to_string(port_); }

    int port_ = -1;
};

}  // namespace

TEST_F(Tool, LoginPrintsSessionRightsAndDeviceThenLogsOutAsTextOrJson)
{
    const Run r = run({"login", "--port", port(), "--user", "alice"});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string &out = r.out;
    EXPECT_NE(out.find("logged in to 127.0.0.1:" + port() + " as alice\n"), std::string::npos) << out;
    const std::string hex = "[0-9a-f]";
    EXPECT_TRUE(
        cgtest::has_line(out, "session    0x0" + hex + hex + hex + hex + hex + hex + hex + " (control slot [0-9]*)"))
        << out;
    EXPECT_TRUE(cgtest::has_line(out, "rights     all 16 operations")) << out;
    EXPECT_TRUE(cgtest::has_line(out, "live view  channels 1-64")) << out;
    EXPECT_TRUE(cgtest::has_line(out, "  video channels  1")) << out;
    EXPECT_TRUE(cgtest::has_line(out, "  serial number   -")) << out;
    EXPECT_NE(out.find("\nlogged out\n"), std::string::npos) << out;
    EXPECT_TRUE(r.err.empty()) << r.err;
    EXPECT_TRUE(cgtest::wait_until([] { return ctrl_session_count() == 0; }, 2000));

    // The same as one JSON object.
    const Run j = run({"login", "--port=" + port(), "--json"});
    ASSERT_EQ(j.status, 0) << j.err;
    const std::string &json = j.out;
    ASSERT_FALSE(json.empty());
    EXPECT_EQ(json.front(), '{');
    EXPECT_EQ(json.substr(json.size() - 2), "}\n");
    EXPECT_EQ(std::count(json.begin(), json.end(), '\n'), 1);
    EXPECT_TRUE(cgtest::has_line(json, R"(*"session_id": [0-9]*, "session_id_hex": "0x0*)")) << json;
    EXPECT_NE(json.find(R"("operations": ["channel_set", "encode_set",)"), std::string::npos) << json;
    EXPECT_NE(json.find(R"("net_preview_channels": "1-64")"), std::string::npos) << json;
    EXPECT_NE(json.find(R"("video_chns": 1,)"), std::string::npos) << json;
    EXPECT_NE(json.find(R"("logged_out": true})"), std::string::npos) << json;
}

// Interrupted in text, terminated in JSON (a session that ends after its
// count is in the camera's keepalive test).
TEST_F(Tool, SessionLogsOutCleanlyOnSignals)
{
    for (bool json : {false, true}) {
        std::vector<std::string> args = {"session", "--port", port(), "--interval", "0.2"};
        if (json) args.push_back("--json");
        cgtest::Process p;
        ASSERT_TRUE(p.start(cgtest::bin_path("camgate"), args));
        ASSERT_TRUE(p.wait_output(json ? "\"n\": 2" : "heartbeat 2: ok", 5000)) << p.out() << p.err();
        EXPECT_EQ(ctrl_session_count(), 1);
        kill(p.pid(), json ? SIGTERM : SIGINT);
        int status = 0;
        ASSERT_TRUE(p.wait_exit(5000, &status));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        EXPECT_TRUE(cgtest::wait_until([] { return ctrl_session_count() == 0; }, 2000));
        const std::string out = p.out();
        if (json) {
            EXPECT_NE(out.find(R"({"event": "logout", "reason": "terminated")"), std::string::npos) << out;
        } else {
            EXPECT_EQ(out.find("logged in to 127.0.0.1:" + port() + " as admin, session 0x"), 0u) << out;
            EXPECT_TRUE(cgtest::has_line(out, "heartbeat 1: ok, [0-9]*.[0-9] ms")) << out;
            EXPECT_TRUE(cgtest::has_line(out, "logged out (interrupted) after * heartbeats")) << out;
        }
    }
}

TEST_F(Tool, FailuresAreExplainedWithNonZeroStatus)
{
    const struct {
        std::vector<std::string> args;
        int status;
        const char *says;  // in the error output
    } cases[] = {
        {{"login", "--port", std::to_string(cgtest::free_tcp_port())},
         1,
         "camgate login: connection refused by 127.0.0.1:"},
        {{"login", "--host", ""}, 1, "camgate login: cannot resolve host \"\""},
        {{"login", "--port", port(), "--user", "a-name-far-too-long"}, 2, "--user is longer than"},
        {{"session", "--count"}, 2, "--count needs a value"},
        {{"nonsense"}, 2, ""},
    };
    for (const auto &c : cases) {
        const Run r = run(c.args);
        EXPECT_EQ(r.status, c.status) << c.args[0];
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
    }
    const Run help = run({"session", "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("--interval SECONDS"), std::string::npos);

    std::vector<std::unique_ptr<camgate::client::Session>> held;
    for (int i = 0; i < NETUSER_CTRL_MAX; ++i) {
        held.push_back(std::make_unique<camgate::client::Session>("127.0.0.1", port_, 3000));
        held.back()->login("holder", "");
    }
    const Run full = run({"login", "--port", port()});
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.err, "camgate login: login refused: no free control session (-6)\n");
    for (auto &s : held) s->logout();
}

TEST_F(Tool, CameraThatDropsTheLoginPointsAtTheProtocolSwitch)
{
    // A camera with the client protocol off closes the connection after the first header.
    cgtest::ScriptedPeer cam([](int fd) {
        NEW_PACKET_HEADER h;
        cgtest::recv_exact(fd, &h, sizeof h);
    });
    const Run r = run({"login", "--port", std::to_string(cam.port())});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("closed the connection: is the client protocol enabled?"), std::string::npos) << r.err;
}

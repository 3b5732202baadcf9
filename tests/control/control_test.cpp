// The control loop on one connection: heartbeats, logout and the limits of a
// request.
#include <gtest/gtest.h>

#include <sys/socket.h>

#include <cstring>
#include <future>
#include <thread>
#include <vector>

#include "control/control.h"
#include "main/tcl_hook.h"
#include "net/netuser.h"
#include "support/sockets.h"
#include "support/testenv.h"

namespace {

class Control : public ::testing::Test {
  protected:
    void SetUp() override
    {
        tcl_info *info = get_g_tcl_info();
        info->tcl_enable = 1;
        info->tcl_st = con_suc;
        ASSERT_EQ(netuser_init(), 0);
        pair_ = cgtest::tcp_pair();
        std::memset(&priv_, 1, sizeof priv_);
    }

    // Register a control session on the server side and run the loop on it.
    void start(int timeout = NETUSER_LOGIN_TIMEOUT)
    {
        session_ = netuser_add_login_ctrl_session(pair_.server.get(), "op", &priv_, timeout);
        ASSERT_NE(session_, -1);
        const int fd = pair_.server.get();
        result_ = std::async(std::launch::async, [this, fd] {
            std::vector<char> buf(CONTROL_BUF_SIZE);
            int r = control_routine(fd, buf.data(), session_, &priv_, session_);
            netuser_remove_ctrl_session(session_);
            return r;
        });
    }

    // The routine's result once it has returned (-100 when it did not within 3 s).
    int result()
    {
        if (result_.wait_for(std::chrono::seconds(3)) != std::future_status::ready) return -100;
        return result_.get();
    }

    NEW_PACKET_HEADER ask(int32_t cmd, const std::vector<uint8_t> &payload = {})
    {
        NEW_PACKET_HEADER h{};
        h.cmd = 12345;
        EXPECT_TRUE(cgtest::send_message(client(), cmd, payload.data(), payload.size()));
        EXPECT_TRUE(cgtest::recv_exact(client(), &h, sizeof h));
        return h;
    }

    int client() { return pair_.client.get(); }

    cgtest::TcpPair pair_;
    USER_PRIVILEGE priv_{};
    int session_ = -1;
    std::future<int> result_;
};

}  // namespace

TEST_F(Control, AnswersSessionCommandsAndLogsOut)
{
    start();
    NEW_PACKET_HEADER h = ask(TK_CMD_HEARTBEAT);
    EXPECT_EQ(h.magic, TK_PROTO_MAGIC);
    EXPECT_EQ(h.cmd, 0);
    EXPECT_EQ(h.len, 0u);
    testing::internal::CaptureStdout();
    h = ask(TK_CMD_LOGOUT);
    EXPECT_EQ(h.cmd, 0);
    EXPECT_EQ(result(), -1);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find(" user=op type=6 index=0"), std::string::npos) << out;
}

TEST_F(Control, RequestsAreReadWholeAndBounded)
{
    start();
    // A request that comes in pieces is one request.
    NEW_PACKET_HEADER req{TK_PROTO_MAGIC, TK_CMD_HEARTBEAT, 3};
    send(client(), &req, 5, MSG_NOSIGNAL);
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    send(client(), reinterpret_cast<char *>(&req) + 5, sizeof req - 5, MSG_NOSIGNAL);
    send(client(), "abc", 3, MSG_NOSIGNAL);
    NEW_PACKET_HEADER h{};
    ASSERT_TRUE(cgtest::recv_exact(client(), &h, sizeof h));
    EXPECT_EQ(h.cmd, 0);

    // A payload longer than the work buffer ends the connection without a reply.
    req.len = CONTROL_BUF_SIZE + 1;
    send(client(), &req, sizeof req, MSG_NOSIGNAL);
    std::vector<uint8_t> got;
    EXPECT_TRUE(cgtest::wait_peer_closed(client(), 3000, &got));
    EXPECT_EQ(result(), -7);
    EXPECT_TRUE(got.empty());
}

TEST_F(Control, ShortRequestEndsTheLoop)
{
    start();
    NEW_PACKET_HEADER req{TK_PROTO_MAGIC, TK_CMD_HEARTBEAT, 100};
    send(client(), &req, sizeof req, MSG_NOSIGNAL);
    send(client(), "short", 5, MSG_NOSIGNAL);
    shutdown(client(), SHUT_WR);
    EXPECT_EQ(result(), -7);

    // Ended from the registry's side: the keepalive or a removal shuts the socket down.
    pair_ = cgtest::tcp_pair();
    start();
    ASSERT_EQ(ask(TK_CMD_HEARTBEAT).cmd, 0);
    netuser_remove_ctrl_session(session_);
    EXPECT_EQ(result(), -7);
}

// Real seconds: with a time-out of 1 a silent session goes on the 3rd check;
// heartbeats through the control loop keep it for 4 s, then silence ends it.
TEST_F(Control, HeartbeatsKeepTheSessionAlive)
{
    start(1);
    const int64_t start_ms = cgtest::now_ms();
    while (cgtest::now_ms() - start_ms < 4000) {
        ASSERT_EQ(ask(TK_CMD_HEARTBEAT).cmd, 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
    }
    EXPECT_TRUE(cgtest::wait_peer_closed(client(), 4000));
    EXPECT_EQ(result(), -7);
}

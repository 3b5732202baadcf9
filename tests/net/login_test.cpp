// Login and the control connection through the front end running in this
// process (no system server: the device description has its defaults).
#include <gtest/gtest.h>

#include <sys/socket.h>

#include <array>
#include <cstring>
#include <vector>

#include "main/tcl_hook.h"
#include "net/netuser.h"
#include "support/front_end.h"
#include "support/sockets.h"
#include "support/testenv.h"

namespace {

NEW_PP_LOGIN_REQ login_req(const char *user, size_t user_len, const char *pass = "secret")
{
    NEW_PP_LOGIN_REQ req{};
    std::memcpy(req.uid, user, std::min(user_len, sizeof req.uid));
    wire_set_str(req.pass, pass);
    return req;
}

struct Reply {
    bool ok = false;
    NEW_PACKET_HEADER head{};
    std::vector<uint8_t> body;
};

Reply read_reply(int fd)
{
    Reply r;
    if (!cgtest::recv_exact(fd, &r.head, sizeof r.head)) return r;
    r.body.resize(r.head.len);
    r.ok = r.head.len == 0 || cgtest::recv_exact(fd, r.body.data(), r.body.size());
    return r;
}

int ctrl_count()
{
    int n = 0;
    netuser_get_ctrl_sessions(nullptr, &n);
    return n;
}

class Login : public ::testing::Test {
  protected:
    void SetUp() override { port_ = cgtest::front_end_port(); }

    // Connect and send a login; the connection, with the reply still unread.
    cgtest::Fd start_login(const NEW_PP_LOGIN_REQ &req)
    {
        cgtest::Fd fd = cgtest::connect_loopback(port_);
        EXPECT_TRUE(fd.valid());
        EXPECT_TRUE(cgtest::send_message(fd.get(), TK_CMD_LOGIN, &req, sizeof req));
        return fd;
    }

    int port_ = -1;
};

}  // namespace

TEST_F(Login, ReplyIsHeaderAndTheWholeDescription)
{
    cgtest::Fd fd = start_login(login_req("admin", 5));
    NEW_PACKET_HEADER head{};
    ASSERT_TRUE(cgtest::recv_exact(fd.get(), &head, sizeof head));
    EXPECT_EQ(std::memcmp(&head, "QVRM", 4), 0);
    EXPECT_EQ(head.cmd, 0);
    ASSERT_EQ(head.len, 472u);
    std::array<uint8_t, 472> body{};
    ASSERT_TRUE(cgtest::recv_exact(fd.get(), body.data(), body.size()));
    NEW_PP_LOGIN_RSP rsp;
    std::memcpy(&rsp, body.data(), sizeof rsp);

    int type = -1;
    EXPECT_EQ(check_session_id_is_valid(rsp.session_id, &type, nullptr), 1);
    EXPECT_EQ(type, CTRL_SESSION_TYPE);
    for (size_t i = 4; i < 324; ++i) ASSERT_EQ(body[i], 1) << "right byte " << i;
    // Without a system server: no serial number and no alarm channels, the fixed counts, nothing else.
    std::array<uint8_t, 148> expect{};
    expect[64] = 1;  // video_chns
    expect[65] = 1;  // audio_chns
    expect[71] = 1;  // netport_num
    EXPECT_EQ(std::memcmp(body.data() + 324, expect.data(), expect.size()), 0);

    CTRL_SESSION rec{};
    int n = 1;
    netuser_get_ctrl_sessions(&rec, &n);
    ASSERT_EQ(n, 1);
    EXPECT_EQ(rec.auth_id, rsp.session_id);
    EXPECT_STREQ(rec.user_name, "admin");

    // The connection is now a control connection: logout answers 0, ends it and removes the session.
    ASSERT_TRUE(cgtest::send_message(fd.get(), TK_CMD_LOGOUT));
    Reply r = read_reply(fd.get());
    EXPECT_EQ(r.head.cmd, 0);
    EXPECT_TRUE(cgtest::wait_peer_closed(fd.get(), 2000));
    EXPECT_TRUE(cgtest::wait_until([] { return ctrl_count() == 0; }, 2000));
}

TEST_F(Login, SixteenByteNameWithoutTerminatorKeepsFifteen)
{
    cgtest::Fd fd = start_login(login_req("ABCDEFGHIJKLMNOP", 16));
    Reply r = read_reply(fd.get());
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(r.head.cmd, 0);
    CTRL_SESSION rec{};
    int n = 1;
    netuser_get_ctrl_sessions(&rec, &n);
    ASSERT_EQ(n, 1);
    EXPECT_STREQ(rec.user_name, "ABCDEFGHIJKLMNO");
    fd.reset();  // the peer leaving ends the session too
    EXPECT_TRUE(cgtest::wait_until([] { return ctrl_count() == 0; }, 2000));
}

TEST_F(Login, SeventeenthLoginIsRefusedAndAFreedSlotReused)
{
    std::vector<cgtest::Fd> conns;
    std::vector<int32_t> ids;
    for (int i = 0; i < NETUSER_CTRL_MAX; ++i) {
        conns.push_back(start_login(login_req("u", 1)));
        Reply r = read_reply(conns.back().get());
        ASSERT_TRUE(r.ok);
        ASSERT_EQ(r.head.cmd, 0);
        int32_t id;
        std::memcpy(&id, r.body.data(), 4);
        ids.push_back(id);
    }

    cgtest::Fd extra = start_login(login_req("late", 4));
    std::vector<uint8_t> got;
    EXPECT_TRUE(cgtest::wait_peer_closed(extra.get(), 3000, &got));
    ASSERT_EQ(got.size(), 12u);  // the header alone
    NEW_PACKET_HEADER h;
    std::memcpy(&h, got.data(), sizeof h);
    EXPECT_EQ(h.magic, TK_PROTO_MAGIC);
    EXPECT_EQ(h.cmd, -6);
    EXPECT_EQ(h.len, 0u);

    ASSERT_TRUE(cgtest::send_message(conns[7].get(), TK_CMD_LOGOUT));
    EXPECT_TRUE(cgtest::wait_peer_closed(conns[7].get(), 2000));
    ASSERT_TRUE(cgtest::wait_until([] { return ctrl_count() == NETUSER_CTRL_MAX - 1; }, 2000));
    cgtest::Fd again = start_login(login_req("again", 5));
    Reply r = read_reply(again.get());
    ASSERT_EQ(r.head.cmd, 0);
    int32_t id;
    std::memcpy(&id, r.body.data(), 4);
    EXPECT_EQ(static_cast<uint32_t>(id) >> 24, static_cast<uint32_t>(ids[7]) >> 24);

    conns.clear();
    again.reset();
    EXPECT_TRUE(cgtest::wait_until([] { return ctrl_count() == 0; }, 3000));
}

TEST_F(Login, ShortBodyGetsNoReply)
{
    cgtest::Fd fd = cgtest::connect_loopback(port_);
    NEW_PACKET_HEADER h{TK_PROTO_MAGIC, TK_CMD_LOGIN, 32};
    send(fd.get(), &h, sizeof h, MSG_NOSIGNAL);
    send(fd.get(), "only ten b", 10, MSG_NOSIGNAL);
    shutdown(fd.get(), SHUT_WR);
    std::vector<uint8_t> got;
    EXPECT_TRUE(cgtest::wait_peer_closed(fd.get(), 3000, &got));
    EXPECT_TRUE(got.empty());
    EXPECT_EQ(ctrl_count(), 0);
}

TEST_F(Login, OversizedControlPayloadEndsTheConnection)
{
    cgtest::Fd fd = start_login(login_req("big", 3));
    ASSERT_EQ(read_reply(fd.get()).head.cmd, 0);
    // A payload of exactly the work buffer is read and answered; one byte more ends the connection.
    std::vector<uint8_t> payload(8192, 0x5A);
    ASSERT_TRUE(cgtest::send_message(fd.get(), 0x30000, payload.data(), payload.size()));
    EXPECT_EQ(read_reply(fd.get()).head.cmd, -4);
    payload.push_back(0);
    ASSERT_TRUE(cgtest::send_message(fd.get(), 0x30000, payload.data(), payload.size()));
    std::vector<uint8_t> got;
    EXPECT_TRUE(cgtest::wait_peer_closed(fd.get(), 3000, &got));
    EXPECT_TRUE(got.empty());
    EXPECT_TRUE(cgtest::wait_until([] { return ctrl_count() == 0; }, 2000));
}

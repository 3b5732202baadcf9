// The front end in this process: its server sockets, the login and the
// dispatch of a first message (no system server: the device
// description has its defaults).
#include <gtest/gtest.h>

#include <sys/socket.h>

#include <cstring>
#include <future>
#include <vector>

#include "main/tcl_hook.h"
#include "net/edci_protocol.h"
#include "net/net_comm.h"
#include "net/netctrl.h"
#include "net/netuser.h"
#include "support/front_end.h"
#include "support/sockets.h"
#include "support/testenv.h"

namespace {

using cgtest::ctrl_session_count;

NEW_PP_LOGIN_REQ login_req(const char *user, size_t user_len)
{
    NEW_PP_LOGIN_REQ req{};
    std::memcpy(req.uid, user, std::min(user_len, sizeof req.uid));
    wire_set_str(req.pass, "secret");
    return req;
}

// Connect and send a login; the connection, with the reply still unread.
cgtest::Fd start_login(int port, const NEW_PP_LOGIN_REQ &req)
{
    cgtest::Fd fd = cgtest::connect_loopback(port);
    EXPECT_TRUE(cgtest::send_message(fd.get(), TK_CMD_LOGIN, &req, sizeof req));
    return fd;
}

// The session id of an accepted login (its reply read whole), -1 otherwise.
int32_t login_reply(int fd, std::vector<uint8_t> *body = nullptr)
{
    NEW_PACKET_HEADER h{};
    std::vector<uint8_t> b;
    if (!cgtest::recv_message(fd, &h, &b) || h.cmd != 0 || b.size() != sizeof(NEW_PP_LOGIN_RSP)) return -1;
    int32_t id;
    std::memcpy(&id, b.data(), sizeof id);
    if (body) *body = b;
    return id;
}

// A control session of user, read from the registry (the only one there).
CTRL_SESSION only_session()
{
    CTRL_SESSION rec{};
    int n = 1;
    netuser_get_ctrl_sessions(&rec, &n);
    EXPECT_EQ(n, 1);
    return rec;
}

}  // namespace

TEST(FrontEnd, ServerSocketsBindOrFail)
{
    const int port = cgtest::free_port_tcp_and_udp();
    const int tcp = create_listen_fd(0x7F000001, static_cast<unsigned short>(port));
    ASSERT_GE(tcp, 0);
    EXPECT_TRUE(cgtest::connect_loopback(port, 0).valid());
    // A second listener on the same port fails cleanly.
    EXPECT_EQ(create_listen_fd(0x7F000001, static_cast<unsigned short>(port)), -1);
    close(tcp);

    const int udp = create_udp_fd(0, static_cast<unsigned short>(port), 1);
    ASSERT_GE(udp, 0);
    int on = 0;
    socklen_t len = sizeof on;
    getsockopt(udp, SOL_SOCKET, SO_BROADCAST, &on, &len);
    EXPECT_NE(on, 0);
    EXPECT_TRUE(cgtest::udp_port_taken(port));
    close(udp);
    EXPECT_EQ(create_udp_fd(0xC0000201, static_cast<unsigned short>(port), 0), -1);  // 192.0.2.1: not ours
}

TEST(Login, WithoutASettingsServerTheDescriptionHasItsDefaults)
{
    cgtest::Fd fd = start_login(cgtest::front_end_port(), login_req("admin", 5));
    std::vector<uint8_t> body;
    const int32_t id = login_reply(fd.get(), &body);
    ASSERT_NE(id, -1);
    // No serial number and no alarm channels; the fixed counts, nothing else.
    std::vector<uint8_t> device(sizeof(TK_DEVICE_INFO), 0);
    device[offsetof(TK_DEVICE_INFO, video_chns)] = 1;
    device[offsetof(TK_DEVICE_INFO, audio_chns)] = 1;
    device[offsetof(TK_DEVICE_INFO, netport_num)] = 1;
    EXPECT_EQ(std::vector<uint8_t>(body.begin() + offsetof(NEW_PP_LOGIN_RSP, dev_info), body.end()), device);
    const CTRL_SESSION rec = only_session();
    EXPECT_EQ(rec.auth_id, id);  // a login is its own authority
    EXPECT_STREQ(rec.user_name, "admin");

    // The connection is now a control connection: logout answers 0, ends it and removes the session.
    ASSERT_TRUE(cgtest::send_message(fd.get(), TK_CMD_LOGOUT));
    std::vector<uint8_t> rest;
    EXPECT_TRUE(cgtest::wait_peer_closed(fd.get(), 2000, &rest));
    EXPECT_EQ(std::string(rest.begin(), rest.end()), cgtest::header_bytes(0));
    EXPECT_TRUE(cgtest::wait_until([] { return ctrl_session_count() == 0; }, 2000));
}

TEST(Login, SixteenByteNameWithoutTerminatorKeepsFifteenAndAShortBodyGetsNothing)
{
    const int port = cgtest::front_end_port();
    cgtest::Fd fd = start_login(port, login_req("ABCDEFGHIJKLMNOP", 16));
    ASSERT_NE(login_reply(fd.get()), -1);
    EXPECT_STREQ(only_session().user_name, "ABCDEFGHIJKLMNO");
    fd.reset();  // the peer leaving ends the session too
    EXPECT_TRUE(cgtest::wait_until([] { return ctrl_session_count() == 0; }, 2000));

    fd = cgtest::connect_loopback(port);
    const std::string cut = cgtest::header_bytes(TK_CMD_LOGIN, sizeof(NEW_PP_LOGIN_REQ)) + "only ten b";
    send(fd.get(), cut.data(), cut.size(), MSG_NOSIGNAL);
    shutdown(fd.get(), SHUT_WR);
    std::vector<uint8_t> got;
    EXPECT_TRUE(cgtest::wait_peer_closed(fd.get(), 3000, &got));
    EXPECT_TRUE(got.empty());
    EXPECT_EQ(ctrl_session_count(), 0);
}

TEST(Login, SeventeenthLoginIsRefusedAndAFreedSlotReused)
{
    const int port = cgtest::front_end_port();
    std::vector<cgtest::Fd> conns;
    std::vector<int32_t> ids;
    for (int i = 0; i < NETUSER_CTRL_MAX; ++i) {
        conns.push_back(start_login(port, login_req("u", 1)));
        ids.push_back(login_reply(conns.back().get()));
        ASSERT_NE(ids.back(), -1);
    }

    cgtest::Fd extra = start_login(port, login_req("late", 4));
    std::vector<uint8_t> got;
    EXPECT_TRUE(cgtest::wait_peer_closed(extra.get(), 3000, &got));
    EXPECT_EQ(std::string(got.begin(), got.end()), cgtest::header_bytes(-6));  // the header alone

    ASSERT_TRUE(cgtest::send_message(conns[7].get(), TK_CMD_LOGOUT));
    EXPECT_TRUE(cgtest::wait_peer_closed(conns[7].get(), 2000));
    ASSERT_TRUE(cgtest::wait_until([] { return ctrl_session_count() == NETUSER_CTRL_MAX - 1; }, 2000));
    cgtest::Fd again = start_login(port, login_req("again", 5));
    EXPECT_EQ(static_cast<uint32_t>(login_reply(again.get())) >> 24, static_cast<uint32_t>(ids[7]) >> 24);

    conns.clear();
    again.reset();
    EXPECT_TRUE(cgtest::wait_until([] { return ctrl_session_count() == 0; }, 3000));
}

// A login that reaches the dispatcher while the protocol is out of service
// (switched off, failed, or moving to another port) is refused without a reply.
TEST(Dispatch, ProtocolOutOfServiceRefusesEvenAGoodLogin)
{
    cgtest::fresh_registry();
    tcl_info *info = get_g_tcl_info();
    const std::string login = cgtest::header_bytes(TK_CMD_LOGIN, sizeof(NEW_PP_LOGIN_REQ)) + std::string(32, 'a');
    const struct {
        int enable, st;
    } cases[] = {{1, con_fail}, {1, con_change_port}, {0, con_suc}};
    for (const auto &c : cases) {
        info->tcl_enable = c.enable;
        info->tcl_st = c.st;
        // Served as the connection thread serves it.
        auto pair = cgtest::tcp_pair();
        const int server = pair.server.release();
        auto result = std::async(std::launch::async, [server] {
            char magic[4];
            const int r = readn(server, magic, 4) == 4 && edci_is_magic(magic) ? edci_parse_protocol(server) : 1;
            close(server);
            return r;
        });
        send(pair.client.get(), login.data(), login.size(), MSG_NOSIGNAL);
        std::vector<uint8_t> reply;
        EXPECT_TRUE(cgtest::wait_peer_closed(pair.client.get(), 3000, &reply));
        EXPECT_TRUE(reply.empty());
        ASSERT_EQ(result.wait_for(std::chrono::seconds(3)), std::future_status::ready);
        EXPECT_EQ(result.get(), -7) << c.enable << "/" << c.st;
    }
    info->tcl_enable = 1;
    info->tcl_st = con_suc;
}

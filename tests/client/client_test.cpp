// The client library against scripted cameras, for the failures a real one
// rarely shows: silence, replies no camera sends, refusals in words and
// replies of the wrong shape.
#include <gtest/gtest.h>

#include <sys/socket.h>

#include <string>
#include <vector>

#include "client/client_fixture.h"
#include "client/control.h"
#include "support/sockets.h"
#include "support/testenv.h"

using camgate::client::Control;
using camgate::client::Error;
using camgate::client::ErrorKind;
using camgate::client::Session;
using cgtest::error_of;

TEST(Client, SilentCameraTimesOutInTime)
{
    cgtest::ScriptedPeer cam([](int fd) { cgtest::wait_peer_closed(fd, 5000); });
    Session s("127.0.0.1", cam.port(), 400);
    const int64_t start = cgtest::now_ms();
    const Error e = error_of([&] { s.login("admin", ""); });
    const int64_t took = cgtest::now_ms() - start;
    EXPECT_EQ(e.kind(), ErrorKind::Timeout);
    EXPECT_GE(took, 350);
    EXPECT_LT(took, 2000);
    EXPECT_NE(std::string(e.what()).find("no answer from the camera"), std::string::npos) << e.what();
}

TEST(Client, ForeignOversizedOrMisshapenLoginRepliesAreProtocolErrors)
{
    const std::string replies[] = {
        "HTTP/1.0 400 Bad Request\r\n\r\n", cgtest::header_bytes(0, 0x7FFFFFFF),
        cgtest::header_bytes(0, 4) + "abcd",  // a login reply of the wrong size
    };
    for (const std::string &reply : replies) {
        cgtest::ScriptedPeer cam([&reply](int fd) {
            uint8_t req[sizeof(NEW_PACKET_HEADER) + sizeof(NEW_PP_LOGIN_REQ)];
            cgtest::recv_exact(fd, req, sizeof req);
            send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
            cgtest::wait_peer_closed(fd, 2000);
        });
        Session s("127.0.0.1", cam.port(), 2000);
        EXPECT_EQ(error_of([&] { s.login("admin", ""); }).kind(), ErrorKind::Protocol) << reply.size();
    }
}

TEST(ControlClient, ResultsAreExplainedInWords)
{
    using camgate::client::result_text;
    EXPECT_EQ(result_text(TK_CMD_GET_CAMERA_CFG, -11), "refused: the user lacks the recording settings right (-11)");
    EXPECT_EQ(result_text(TK_CMD_PTZ_CONTROL, -11), "refused: the user lacks the PTZ control right (-11)");
    EXPECT_EQ(result_text(TK_CMD_GET_ENC_CFG, -11), "refused: the user lacks the right for command 0x30040 (-11)");
    EXPECT_EQ(result_text(TK_CMD_SET_PTZ_CFG, -1), "the camera answered command 0x300a4 with error -1");
}

TEST(ControlClient, RefusalsAndMisshapenRepliesThrow)
{
    NET_COMM_PARA net{};
    net.tcp_port = 6000;
    std::vector<uint8_t> users(4 + sizeof(USER_INFO), 0);
    users[0] = 2;  // claims two records, carries one
    // Answer the login, then each request in turn with these results and bodies.
    const std::vector<std::pair<int32_t, std::vector<uint8_t>>> answers = {
        {TK_ERR_RIGHT, {}}, {0, cgtest::bytes_of(net)}, {0, std::vector<uint8_t>(10, 0)}, {0, users}};
    std::vector<int32_t> requests;
    cgtest::ScriptedPeer cam([&](int fd) {
        NEW_PACKET_HEADER h{};
        std::vector<uint8_t> body;
        const NEW_PP_LOGIN_RSP rsp{};
        if (!cgtest::recv_message(fd, &h, &body) || !cgtest::send_message(fd, 0, &rsp, sizeof rsp)) return;
        for (const auto &a : answers) {
            if (!cgtest::recv_message(fd, &h, &body)) return;
            requests.push_back(h.cmd);
            cgtest::send_message(fd, a.first, a.second.data(), a.second.size());
        }
        cgtest::wait_peer_closed(fd, 3000);
    });
    Session s("127.0.0.1", cam.port(), 3000);
    s.login("admin", "");
    Control c(s);

    Error e = error_of([&] { c.get_network(); });
    EXPECT_EQ(e.kind(), ErrorKind::Refused);
    EXPECT_EQ(e.code(), -11);
    EXPECT_STREQ(e.what(), "refused: the user lacks the network settings right (-11)");
    // A refusal leaves the session usable.
    EXPECT_EQ(c.get_network().tcp_port, 6000);
    e = error_of([&] { c.get_time(); });
    EXPECT_EQ(e.kind(), ErrorKind::Protocol);
    EXPECT_NE(std::string(e.what()).find("has 10 bytes instead of 8"), std::string::npos) << e.what();
    EXPECT_EQ(error_of([&] { c.users(); }).kind(), ErrorKind::Protocol);
    s.connection().close();
    cam.join();
    EXPECT_EQ(requests, (std::vector<int32_t>{TK_CMD_GET_NETWORK_CFG, TK_CMD_GET_NETWORK_CFG, TK_CMD_GET_TIME,
                                              TK_CMD_GET_ALL_USER}));
}

// Reply headers and the dispatch of a connection's first message, run on the
// server side of a loopback pair the way the connection thread runs it.
#include <gtest/gtest.h>

#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <future>
#include <vector>

#include "main/tcl_hook.h"
#include "net/edci_protocol.h"
#include "net/net_comm.h"
#include "net/netctrl.h"
#include "net/netuser.h"
#include "support/sockets.h"

namespace {

struct Outcome {
    int result = 1;              // edci_parse_protocol's result
    bool closed = false;         // the connection ended
    std::vector<uint8_t> reply;  // everything the client received
};

class Dispatch : public ::testing::Test {
  protected:
    void SetUp() override
    {
        info_ = get_g_tcl_info();
        info_->tcl_enable = 1;
        info_->tcl_st = con_suc;
        netuser_init();
    }
    void TearDown() override
    {
        info_->tcl_enable = 1;
        info_->tcl_st = con_suc;
    }

    // Send bytes (then end the client's writing when half_close), serve the
    // connection as the connection thread does, and collect what came back.
    Outcome serve(const std::string &bytes, bool half_close = false)
    {
        auto pair = cgtest::tcp_pair();
        const int server = pair.server.release();
        auto result = std::async(std::launch::async, [server] {
            int r = 1;
            char magic[4];
            if (readn(server, magic, 4) == 4 && edci_is_magic(magic)) r = edci_parse_protocol(server);
            close(server);
            return r;
        });
        send(pair.client.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (half_close) shutdown(pair.client.get(), SHUT_WR);
        Outcome out;
        out.closed = cgtest::wait_peer_closed(pair.client.get(), 3000, &out.reply);
        if (result.wait_for(std::chrono::seconds(3)) == std::future_status::ready) out.result = result.get();
        return out;
    }

    static std::string header(int32_t cmd, uint32_t len = 0)
    {
        NEW_PACKET_HEADER h{TK_PROTO_MAGIC, cmd, len};
        return std::string(reinterpret_cast<const char *>(&h), sizeof h);
    }

    tcl_info *info_ = nullptr;
};

}  // namespace

TEST(ReplyHeader, NoloadAndLoadAcks)
{
    NEW_PACKET_HEADER h{};
    new_tknvi_noload_ack(&h, -6);
    EXPECT_EQ(std::memcmp(&h.magic, "QVRM", 4), 0);
    EXPECT_EQ(h.cmd, -6);
    EXPECT_EQ(h.len, 0u);

    uint8_t body[4 + 3 * 36];
    std::memset(body, 0xEE, sizeof body);
    new_tknvi_load_ack(&h, body, 36, 3);
    EXPECT_EQ(h.cmd, 0);
    EXPECT_EQ(h.len, 3u * 36 + 4);
    int32_t count;
    std::memcpy(&count, body, 4);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(body[4], 0xEE);  // the records are the caller's

    new_tknvi_load_ack(&h, body, 28, 0);
    EXPECT_EQ(h.len, 4u);
}

TEST_F(Dispatch, FirstMessagesWithoutServiceCloseWithoutReply)
{
    // Unknown first commands: -4; upgrade and upload first messages: accepted, nothing served.
    const struct {
        int32_t cmd;
        int result;
    } cases[] = {
        {TK_CMD_GET_TIME, -4},     {TK_CMD_HEARTBEAT, -4},   {0, -4},
        {TK_CMD_UPGRADE_FIRST, 0}, {TK_CMD_UPLOAD_FIRST, 0}, {TK_CMD_TALK_START, 0},
        {TK_CMD_START_PLAY, 0},
    };
    for (const auto &c : cases) {
        Outcome out = serve(header(c.cmd));
        EXPECT_EQ(out.result, c.result) << std::hex << c.cmd;
        EXPECT_TRUE(out.closed) << std::hex << c.cmd;
        EXPECT_TRUE(out.reply.empty()) << std::hex << c.cmd;
    }
}

TEST_F(Dispatch, ShortHeaderIsAnIoError)
{
    Outcome out = serve("QVRM", true);  // the magic, then the client stops writing
    EXPECT_EQ(out.result, -7);
    EXPECT_TRUE(out.reply.empty());
    out = serve(std::string("QVRM\x01\x00\x02", 7), true);
    EXPECT_EQ(out.result, -7);
    // A preview request cut short: no session, no reply.
    out = serve(header(TK_CMD_PREVIEW_START, sizeof(NEW_PP_PERVIEW_REQ)) + std::string(8, '\0'), true);
    EXPECT_EQ(out.result, -7);
    EXPECT_TRUE(out.closed);
    EXPECT_TRUE(out.reply.empty());
}

TEST_F(Dispatch, ProtocolOutOfServiceRefusesEvenAGoodLogin)
{
    const std::string login = header(TK_CMD_LOGIN, sizeof(NEW_PP_LOGIN_REQ)) + std::string(32, 'a');
    for (int st : {con_fail, con_change_port}) {
        info_->tcl_st = st;
        Outcome out = serve(login);
        EXPECT_EQ(out.result, -7) << st;
        EXPECT_TRUE(out.closed);
        EXPECT_TRUE(out.reply.empty());
    }
    info_->tcl_st = con_suc;
    info_->tcl_enable = 0;
    Outcome out = serve(login);
    EXPECT_EQ(out.result, -7);
    EXPECT_TRUE(out.reply.empty());
}

TEST_F(Dispatch, ConnectionThreadDropsABadMagicAfterOneErrorLine)
{
    for (const char *bytes : {"MRVQ", "GET / HTTP/1.0\r\n\r\n"}) {
        auto pair = cgtest::tcp_pair();
        send(pair.client.get(), bytes, std::strlen(bytes), MSG_NOSIGNAL);
        testing::internal::CaptureStderr();
        tcp_session_routine(reinterpret_cast<void *>(static_cast<intptr_t>(pair.server.release())));
        const std::string err = testing::internal::GetCapturedStderr();
        std::vector<uint8_t> reply;
        EXPECT_TRUE(cgtest::wait_peer_closed(pair.client.get(), 1000, &reply));
        EXPECT_TRUE(reply.empty());
        EXPECT_NE(err.find("pkt_magic["), std::string::npos) << err;
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    }
}

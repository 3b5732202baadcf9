// Talkback carries no audio: the passive channel closes at once and an
// active request succeeds without connecting anywhere.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>

#include <cstring>

#include "media/talkback.h"
#include "support/sockets.h"

namespace {

NEW_ACTIVE_TALK_REQ talk_req(const char *ip, int port)
{
    NEW_ACTIVE_TALK_REQ req{};
    wire_set_str(req.ipaddr, ip);
    req.port = static_cast<TK_U32>(port);
    return req;
}

}  // namespace

TEST(Talkback, PassiveChannelReadsAndSendsNothing)
{
    auto pair = cgtest::tcp_pair();
    send(pair.client.get(), "audio", 5, MSG_NOSIGNAL);
    EXPECT_EQ(talkback_routine(pair.server.get()), 0);
    char buf[8];
    EXPECT_EQ(recv(pair.server.get(), buf, sizeof buf, MSG_DONTWAIT), 5);  // left unread
    pollfd p{pair.client.get(), POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 100), 0);  // nothing was sent
}

TEST(Talkback, ActiveRequestSucceedsWithoutConnecting)
{
    cgtest::Listener listener;  // would see any connection made for the talk
    const int port = listener.port();

    auto control = cgtest::tcp_pair();
    NEW_ACTIVE_TALK_REQ req = talk_req("", port);  // empty: the control peer's address
    EXPECT_EQ(active_talkback(control.server.get(), 7, reinterpret_cast<const char *>(&req)), 0);
    req = talk_req("127.0.0.1", port);
    EXPECT_EQ(active_talkback(-1, 7, reinterpret_cast<const char *>(&req)), 0);
    EXPECT_FALSE(listener.accept(200).valid());

    // An address taken from the peer needs a peer.
    cgtest::Fd lonely(socket(AF_INET, SOCK_STREAM, 0));
    req = talk_req("", port);
    EXPECT_EQ(active_talkback(lonely.get(), 7, reinterpret_cast<const char *>(&req)), -1);

    // An address field without terminator is read within its 48 bytes.
    std::memset(req.ipaddr, '1', sizeof req.ipaddr);
    EXPECT_EQ(active_talkback(-1, 7, reinterpret_cast<const char *>(&req)), 0);
}

// Talkback carries no audio: an active request succeeds without connecting
// anywhere (the passive channel is closed at once, which the camera tests see).
#include <gtest/gtest.h>

#include <sys/socket.h>

#include <cstring>

#include "media/talkback.h"
#include "support/sockets.h"

TEST(Talkback, ActiveRequestSucceedsWithoutConnecting)
{
    cgtest::Listener listener;  // would see any connection made for the talk
    NEW_ACTIVE_TALK_REQ req{};
    req.port = static_cast<TK_U32>(listener.port());
    auto talk = [&req](int control_fd) { return active_talkback(control_fd, 7, reinterpret_cast<const char *>(&req)); };

    auto control = cgtest::tcp_pair();
    EXPECT_EQ(talk(control.server.get()), 0);  // an empty address: the control peer's
    wire_set_str(req.ipaddr, "127.0.0.1");
    EXPECT_EQ(talk(-1), 0);
    EXPECT_FALSE(listener.accept(200).valid());

    // An address field without terminator is read within its 48 bytes.
    std::memset(req.ipaddr, '1', sizeof req.ipaddr);
    EXPECT_EQ(talk(-1), 0);

    // An address taken from the peer needs a peer.
    cgtest::Fd lonely(socket(AF_INET, SOCK_STREAM, 0));
    wire_set_str(req.ipaddr, "");
    EXPECT_EQ(talk(lonely.get()), -1);
}

// The listener, the UDP server and their rebuilds, in this process.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

#include "common/env.h"
#include "main/tcl_hook.h"
#include "net/netctrl.h"
#include "net/netuser.h"
#include "support/front_end.h"
#include "support/sockets.h"
#include "support/testenv.h"

namespace {

// Log in on port; the connection after the reply, or an invalid Fd.
cgtest::Fd login(int port, int timeout_ms = 3000)
{
    cgtest::Fd fd = cgtest::connect_loopback(port, timeout_ms);
    if (!fd.valid()) return fd;
    NEW_PP_LOGIN_REQ req{};
    wire_set_str(req.uid, "admin");
    NEW_PACKET_HEADER h{};
    if (!cgtest::send_message(fd.get(), TK_CMD_LOGIN, &req, sizeof req) ||
        !cgtest::recv_exact(fd.get(), &h, sizeof h, timeout_ms) || h.cmd != 0 || h.len != 472)
        return cgtest::Fd();
    NEW_PP_LOGIN_RSP rsp;
    if (!cgtest::recv_exact(fd.get(), &rsp, sizeof rsp)) return cgtest::Fd();
    return fd;
}

// True when some socket without SO_REUSEADDR cannot bind UDP port (the front end holds it).
bool udp_port_taken(int port)
{
    cgtest::Fd fd(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    return bind(fd.get(), reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0;
}

bool connect_refused(int port)
{
    return !cgtest::connect_loopback(port, 0).valid();
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
    EXPECT_TRUE(udp_port_taken(port));
    close(udp);
    EXPECT_EQ(create_udp_fd(0xC0000201, static_cast<unsigned short>(port), 0), -1);  // 192.0.2.1: not ours
}

TEST(FrontEnd, UdpServerAndDiscoveryHoldTheirPorts)
{
    const int port = cgtest::front_end_port();
    EXPECT_TRUE(udp_port_taken(port));
    EXPECT_TRUE(udp_port_taken(env_discovery_port()));
    EXPECT_NE(env_discovery_port(), 16258);  // the test keeps off the camera's port
    // A datagram on either port leaves the front end serving.
    cgtest::Fd udp(socket(AF_INET, SOCK_DGRAM, 0));
    for (int to : {port, env_discovery_port()}) {
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        sa.sin_port = htons(static_cast<uint16_t>(to));
        EXPECT_EQ(sendto(udp.get(), "QVRM", 4, 0, reinterpret_cast<sockaddr *>(&sa), sizeof sa), 4);
    }
    EXPECT_TRUE(login(port).valid());
}

TEST(FrontEnd, ServerRebuildMovesBothServers)
{
    const int old_port = cgtest::front_end_port();
    const int new_port = cgtest::free_port_tcp_and_udp();
    EXPECT_EQ(netctrl_server_rebuild(0, static_cast<unsigned short>(new_port)), 0);
    EXPECT_TRUE(login(new_port).valid());
    EXPECT_TRUE(udp_port_taken(new_port));
    EXPECT_TRUE(connect_refused(old_port));
    EXPECT_EQ(cgtest::front_end_port(), new_port);
}

// While the protocol is off nothing is served: a connection stays in the
// backlog, or is accepted by a listener that was waiting in select and left
// alone. Once it is on again, new connections are served.
TEST(FrontEnd, DisabledProtocolServesNothingUntilEnabled)
{
    const int port = cgtest::front_end_port();
    tcl_info *info = get_g_tcl_info();
    info->tcl_enable = 0;
    cgtest::Fd fd = cgtest::connect_loopback(port);  // the kernel completes the handshake
    ASSERT_TRUE(fd.valid());
    NEW_PP_LOGIN_REQ req{};
    ASSERT_TRUE(cgtest::send_message(fd.get(), TK_CMD_LOGIN, &req, sizeof req));
    NEW_PACKET_HEADER h{};
    EXPECT_FALSE(cgtest::recv_exact(fd.get(), &h, sizeof h, 2500));
    int n = 0;
    netuser_get_ctrl_sessions(nullptr, &n);
    EXPECT_EQ(n, 0);

    info->tcl_enable = 1;
    EXPECT_TRUE(login(port).valid());
}

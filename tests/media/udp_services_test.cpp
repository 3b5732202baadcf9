// The datagrams of the real daemon: device search on the discovery port,
// probe, echo and UDP and multicast preview on the client port; and the
// client port's handler in this process (junk, remote reboot). Search replies
// go to 127.255.255.255 and shell commands to the recorder.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "client/client.h"
#include "media/shm_cache.h"
#include "media/udp_preview.h"
#include "net/netuser.h"
#include "support/camera_fixture.h"
#include "support/front_end.h"
#include "support/media_frames.h"
#include "support/sockets.h"
#include "support/testenv.h"
#include "support/text.h"

namespace {

using cgtest::recv_datagram;
using cgtest::send_datagram;

// The next datagram of cmd within timeout_ms, skipping all others.
bool recv_cmd(int fd, int32_t cmd, std::vector<uint8_t> *out, int timeout_ms)
{
    const int64_t deadline = cgtest::now_ms() + timeout_ms;
    while (recv_datagram(fd, out, static_cast<int>(std::max<int64_t>(0, deadline - cgtest::now_ms())))) {
        NEW_PACKET_HEADER h;
        if (out->size() >= sizeof h) {
            std::memcpy(&h, out->data(), sizeof h);
            if (h.cmd == cmd) return true;
        }
    }
    return false;
}

struct CG_PACKED Search {
    NEW_PACKET_HEADER head;
    TK_SEARCH_REPLY body;
};

// Broadcast a search from an ephemeral port; the reply heard on the discovery port.
bool search(cgtest::Camera &cam, int listener, Search *reply, int *to_searcher = nullptr)
{
    cgtest::Fd searcher = cgtest::udp_socket();
    send_datagram(searcher.get(), "127.255.255.255", cam.discovery_port(), TK_CMD_SEARCH_DEVICE);
    std::vector<uint8_t> d;
    if (!recv_cmd(listener, TK_CMD_SEARCH_DEVICE_ACK, &d, 3000) || d.size() != sizeof *reply) return false;
    std::memcpy(reply, d.data(), sizeof *reply);
    if (to_searcher) *to_searcher = recv_datagram(searcher.get(), &d, 100) ? 1 : 0;
    return true;
}

}  // namespace

TEST(Discovery, TheSearchIsAnsweredByBroadcastWithTheCameraAndItsNetwork)
{
    cgtest::Camera cam;
    DeviceInfoRsp dev = cam.sim().get<DeviceInfoRsp>(ZQ_GETDEVICEINFO);
    wire_set_str(dev.DeviceId, "CAM-TEST-0042");
    wire_set_str(dev.SoftWareVersion, "V1.0.5 20130512");
    cam.sim().put(ZQ_GETDEVICEINFO, dev);
    DeviceCapabilityRsp cap = cam.sim().get<DeviceCapabilityRsp>(ZQ_GETDEVICECAP);
    cap.IoInputCount = 4;
    cap.IoOutputCount = 2;
    cam.sim().put(ZQ_GETDEVICECAP, cap);
    NetworkConfig net = cam.sim().get<NetworkConfig>(ZQ_GETNETWORK);
    net.IPv4Address = inet_addr("10.1.2.3");
    net.IPv4Mask = inet_addr("255.255.0.0");
    net.IPv4Gateway = inet_addr("10.1.0.1");
    net.IPv4DNS = inet_addr("10.1.0.53");
    cam.sim().put(ZQ_GETNETWORK, net);
    NetworkProtocol proto = cam.sim().get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
    proto.HttpPort = 8080;
    cam.sim().put(ZQ_GETNETWORKPROTOCOL, proto);
    ASSERT_TRUE(cam.start()) << cam.error();
    cgtest::Fd listener = cgtest::udp_socket(cam.discovery_port());

    TK_SEARCH_REPLY want{};
    wire_set_str(want.dev_info.serial_no, "CAM-TEST-0042");
    wire_set_str(want.dev_info.dev_type, "IP_CAMERA");
    want.dev_info.video_chns = 1;
    want.dev_info.audio_chns = 1;
    want.dev_info.alarmin_chns = 4;
    want.dev_info.alarmout_chns = 2;
    want.dev_info.netport_num = 1;
    want.dev_info.version = 105;
    wire_set_str(want.dev_info.release_date, "2013-05-12 00:00:00");
    wire_set_str(want.net.eths[0].ipaddr.ipv4, "10.1.2.3");
    wire_set_str(want.net.eths[0].net_mask.ipv4, "255.255.0.0");
    wire_set_str(want.net.eths[0].mac_addr, "00:00:00:00:00:00");  // the interface's (lo)
    wire_set_str(want.net.default_gw.ipv4, "10.1.0.1");
    wire_set_str(want.net.dns_server1.ipv4, "10.1.0.53");
    want.net.tcp_port = static_cast<TK_U16>(cam.port());
    want.net.web_port = 8080;

    Search reply{};
    int to_searcher = -1;
    ASSERT_TRUE(search(cam, listener.get(), &reply, &to_searcher));
    EXPECT_EQ(reply.head.magic, TK_PROTO_MAGIC);
    EXPECT_EQ(reply.head.len, 724u);
    EXPECT_EQ(std::memcmp(&reply.body.dev_info, &want.dev_info, sizeof want.dev_info), 0);
    EXPECT_EQ(std::memcmp(&reply.body.net, &want.net, sizeof want.net), 0);
    EXPECT_EQ(to_searcher, 0) << "the reply is broadcast, never sent to the searcher";
    EXPECT_TRUE(cgtest::has_line(cam.shell_log(), "route add -net 255.255.255.255 netmask 255.255.255.255 dev lo"))
        << cam.shell_log();

    // Without the network settings, address, mask and MAC come from the interface alone.
    cam.sim().set_canned_answer(ZQ_GETNETWORK, {1, 2, 3});
    ASSERT_TRUE(search(cam, listener.get(), &reply));
    EXPECT_STREQ(reply.body.net.eths[0].ipaddr.ipv4, "0.0.0.0");
    EXPECT_STREQ(reply.body.net.eths[0].net_mask.ipv4, "0.0.0.0");
    EXPECT_STREQ(reply.body.net.eths[0].mac_addr, "00:00:00:00:00:00");
    EXPECT_STREQ(reply.body.net.default_gw.ipv4, "");
    EXPECT_STREQ(reply.body.net.dns_server1.ipv4, "");
    EXPECT_EQ(reply.body.dev_info.version, 105u);

    // Without the device information there is no answer at all: a probe sent
    // after the search is answered, the search never.
    cam.sim().set_canned_answer(ZQ_GETDEVICEINFO, {1});
    cgtest::Fd searcher = cgtest::udp_socket();
    send_datagram(searcher.get(), "127.255.255.255", cam.discovery_port(), TK_CMD_SEARCH_DEVICE);
    send_datagram(searcher.get(), "127.255.255.255", cam.discovery_port(), TK_CMD_PROBE);
    std::vector<uint8_t> d;
    ASSERT_TRUE(recv_cmd(searcher.get(), TK_CMD_PROBE_ACK, &d, 3000));
    EXPECT_EQ(d.size(), 12u);
    EXPECT_FALSE(recv_cmd(listener.get(), TK_CMD_SEARCH_DEVICE_ACK, &d, 200));
}

TEST(UdpServices, ProbeAndEchoOnTheClientPort)
{
    cgtest::Camera cam;
    ASSERT_TRUE(cam.start()) << cam.error();
    cgtest::Fd c = cgtest::udp_socket();
    send_datagram(c.get(), "127.0.0.1", cam.port(), TK_CMD_PROBE);
    std::vector<uint8_t> d;
    sockaddr_in from{};
    ASSERT_TRUE(recv_datagram(c.get(), &d, 3000, &from));
    EXPECT_EQ(std::string(d.begin(), d.end()), cgtest::header_bytes(TK_CMD_PROBE_ACK));
    EXPECT_EQ(ntohs(from.sin_port), cam.port());
    // An empty datagram comes back empty.
    ASSERT_EQ(sendto(c.get(), "", 0, 0, reinterpret_cast<const sockaddr *>(&from), sizeof from), 0);
    ASSERT_TRUE(recv_datagram(c.get(), &d, 3000));
    EXPECT_TRUE(d.empty());
}

// The client port's handler in this process, for what depends on the session registry.
TEST(UdpHandler, IgnoresJunkAndRefusesARebootDuringAnUpgrade)
{
    cgtest::fresh_registry();
    cgtest::TempDir dir;
    const std::string log = dir.file("shell.log");
    setenv("CAMGATE_SHELL_LOG", log.c_str(), 1);
    cgtest::Fd daemon = cgtest::udp_socket(), client = cgtest::udp_socket();
    const timeval tv{0, 100000};
    setsockopt(daemon.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    sockaddr_in to{};
    socklen_t len = sizeof to;
    getsockname(daemon.get(), reinterpret_cast<sockaddr *>(&to), &len);
    auto send_raw = [&](const void *p, size_t n) {
        ASSERT_EQ(sendto(client.get(), p, n, 0, reinterpret_cast<sockaddr *>(&to), sizeof to), static_cast<ssize_t>(n));
        EXPECT_EQ(edci_parse_udp_protocol(daemon.get()), 0);
    };
    auto send_cmd = [&](int32_t cmd) { send_raw(cgtest::header_bytes(cmd).data(), sizeof(NEW_PACKET_HEADER)); };
    std::vector<uint8_t> got;

    // Nothing to read: -8, errno saying it was the time-out.
    errno = 0;
    EXPECT_EQ(edci_parse_udp_protocol(daemon.get()), -8);
    EXPECT_TRUE(errno == EAGAIN || errno == EWOULDBLOCK);

    // A short datagram, a wrong magic and an unknown command are dropped.
    send_raw("QVRM", 4);
    const NEW_PACKET_HEADER wrong{0x5156524D, TK_CMD_PROBE, 0};  // "MRVQ"
    send_raw(&wrong, sizeof wrong);
    send_cmd(0x7777);
    EXPECT_FALSE(recv_datagram(client.get(), &got, 100));

    // A reboot while an upgrade session exists does nothing; without one it runs "reboot", unanswered.
    cgtest::TcpPair pair = cgtest::tcp_pair();
    const int upgrade = netuser_add_login_upgrade_session(1, "installer", pair.server.get());
    ASSERT_GE(upgrade, 0);
    send_cmd(TK_CMD_REMOTE_REBOOT);
    EXPECT_EQ(cgtest::read_file(log), "");
    ASSERT_EQ(netuser_remove_upgrade_session(upgrade), 0);
    send_cmd(TK_CMD_REMOTE_REBOOT);
    EXPECT_EQ(cgtest::read_file(log), "reboot\n");
    EXPECT_FALSE(recv_datagram(client.get(), &got, 100));

    // Stop and heartbeat of a session that is not a preview: -2 for the stop, silence for the heartbeat.
    struct CG_PACKED {
        NEW_PACKET_HEADER h;
        int32_t id;
    } stop{{TK_PROTO_MAGIC, TK_CMD_PREVIEW_STOP, 4}, 0x01000000},
        beat{{TK_PROTO_MAGIC, TK_CMD_PREVIEW_HEARTBEAT, 4}, 0};
    send_raw(&stop, sizeof stop);
    ASSERT_TRUE(recv_datagram(client.get(), &got, 1000));
    EXPECT_EQ(std::string(got.begin(), got.end()), cgtest::header_bytes(TK_ERR_SESSION));
    send_raw(&beat, sizeof beat);
    EXPECT_FALSE(recv_datagram(client.get(), &got, 100));
    unsetenv("CAMGATE_SHELL_LOG");
}

TEST(UdpPreview, RequestsAreCheckedAndTheNewestKeyFrameIsSentInChunks)
{
    cgtest::CameraOptions opt;
    opt.cache = {1, {1024}, 1, {64}, 1, {16}};  // room for a key frame over 512 KB
    cgtest::Camera cam(opt);
    ASSERT_TRUE(cam.start()) << cam.error();
    ASSERT_EQ(shm_cache_set_media_info(0, CACHE_MEDIA_TYPE_H264, 512, 25, 640, 360), 0);
    ASSERT_EQ(cgtest::write_tagged(0, 'V', 0, 5000, CACHE_FRAME_TYPE_I, 1.0), 0);
    ASSERT_EQ(cgtest::write_tagged(0, 'V', 1, 800, CACHE_FRAME_TYPE_P, 1.04), 0);
    camgate::client::Session s("127.0.0.1", cam.port(), 3000);
    const int32_t auth = s.login("udp", "").session_id;
    cgtest::Fd c = cgtest::udp_socket();

    // The answer from the client port: its cmd, and the session id after it.
    auto ask = [&](int fd, int32_t auth_id, uint32_t protocol, uint32_t channel, int32_t *sid) {
        const NEW_PP_PERVIEW_REQ req{static_cast<TK_U32>(auth_id), protocol, channel, 0};
        send_datagram(fd, "127.0.0.1", cam.port(), TK_CMD_PREVIEW_START, &req, sizeof req);
        std::vector<uint8_t> d;
        sockaddr_in from{};
        while (recv_datagram(fd, &d, 3000, &from)) {
            NEW_PACKET_HEADER h;
            if (ntohs(from.sin_port) != cam.port() || d.size() < sizeof h) continue;
            std::memcpy(&h, d.data(), sizeof h);
            EXPECT_EQ(d.size(), h.cmd == 0 ? 16u : 12u);
            if (h.cmd == 0) std::memcpy(sid, d.data() + 12, 4);
            return static_cast<int>(h.cmd);
        }
        return 1;
    };
    int32_t sid = 0;
    EXPECT_EQ(ask(c.get(), 0x7ABCDEF0, PROTOCOL_TYPE_UDP, 0, &sid), TK_ERR_SESSION);
    EXPECT_EQ(ask(c.get(), auth, PROTOCOL_TYPE_UDP, 64, &sid), TK_ERR_RIGHT);
    EXPECT_EQ(ask(c.get(), auth, PROTOCOL_TYPE_TCP, 0, &sid), TK_ERR_UNSUPPORTED);
    EXPECT_EQ(ask(c.get(), auth, PROTOCOL_TYPE_RTSP, 0, &sid), TK_ERR_UNSUPPORTED);
    // Multicast is accepted without a session and delivers nothing.
    EXPECT_EQ(ask(c.get(), auth, PROTOCOL_TYPE_MULTICAST, 0, &sid), 0);
    EXPECT_EQ(sid, -1);
    ASSERT_TRUE(cam.daemon().wait_output("udp_preview_routine end", 3000, 1));
    std::vector<uint8_t> d;
    EXPECT_FALSE(recv_datagram(c.get(), &d, 200));

    // UDP: the key frame again and again, in chunks of 1024 bytes, each
    // chunk index counting from 0 and len = chunk + 4.
    ASSERT_EQ(ask(c.get(), auth, PROTOCOL_TYPE_UDP, 0, &sid), 0);
    // Put frames together until one is whole; -1 when none within timeout_ms.
    auto next_frame = [&](std::vector<uint8_t> *frame, std::vector<size_t> *chunks, int timeout_ms) {
        const int64_t deadline = cgtest::now_ms() + timeout_ms;
        uint32_t expect = 0;
        bool started = false;
        while (recv_datagram(c.get(), &d, static_cast<int>(std::max<int64_t>(0, deadline - cgtest::now_ms())))) {
            TK_UDP_CHUNK_HDR h;
            if (d.size() < sizeof h) continue;
            std::memcpy(&h, d.data(), sizeof h);
            if (h.head.cmd != TK_CMD_PREVIEW_DATA) continue;
            EXPECT_EQ(h.head.magic, TK_PROTO_MAGIC);
            EXPECT_EQ(h.head.len, d.size() - 12);
            EXPECT_LE(d.size(), 1040u);
            if (h.chunk_index == 0) {
                frame->clear();
                chunks->clear();
                started = true;
                expect = 0;
            }
            if (!started || h.chunk_index != expect) {
                started = false;  // a chunk lost: wait for the next frame
                continue;
            }
            ++expect;
            frame->insert(frame->end(), d.begin() + 16, d.end());
            chunks->push_back(d.size() - 16);
            if (d.size() - 16 < 1024) return true;
        }
        return false;
    };
    std::vector<uint8_t> frame;
    std::vector<size_t> chunks;
    ASSERT_TRUE(next_frame(&frame, &chunks, 3000));
    EXPECT_EQ(cgtest::tagged_serial(frame, 'V'), 0);
    EXPECT_EQ(chunks, (std::vector<size_t>{1024, 1024, 1024, 1024, 904}));

    // A key frame larger than the 512 KB buffer is never sent...
    ASSERT_EQ(cgtest::write_tagged(0, 'V', 2, 600000, CACHE_FRAME_TYPE_I, 1.08), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    while (recv_datagram(c.get(), &d, 0)) {
    }
    EXPECT_FALSE(recv_datagram(c.get(), &d, 300));
    // ...and the next key frame is.
    ASSERT_EQ(cgtest::write_tagged(0, 'V', 3, 3000, CACHE_FRAME_TYPE_I, 1.12), 0);
    ASSERT_TRUE(next_frame(&frame, &chunks, 3000));
    EXPECT_EQ(cgtest::tagged_serial(frame, 'V'), 3);
    EXPECT_EQ(chunks, (std::vector<size_t>{1024, 1024, 952}));

    // A heartbeat is not answered; a stop is answered 0 and ends the stream.
    // (Sent from a socket of their own: the stream floods the viewer's.)
    cgtest::Fd ctl = cgtest::udp_socket();
    send_datagram(ctl.get(), "127.0.0.1", cam.port(), TK_CMD_PREVIEW_HEARTBEAT, &sid, sizeof sid);
    send_datagram(ctl.get(), "127.0.0.1", cam.port(), TK_CMD_PREVIEW_STOP, &sid, sizeof sid);
    ASSERT_TRUE(recv_datagram(ctl.get(), &d, 3000));
    ASSERT_EQ(d.size(), 12u);
    NEW_PACKET_HEADER stopped;
    std::memcpy(&stopped, d.data(), sizeof stopped);
    EXPECT_EQ(stopped.cmd, 0);
    ASSERT_TRUE(cam.daemon().wait_output("udp_preview_routine end", 3000, 2));
    while (recv_datagram(c.get(), &d, 0)) {
    }
    EXPECT_FALSE(recv_datagram(c.get(), &d, 200));

    // A viewer that goes away ends its stream too (its port refuses the datagrams).
    {
        cgtest::Fd gone = cgtest::udp_socket();
        ASSERT_EQ(ask(gone.get(), auth, PROTOCOL_TYPE_UDP, 0, &sid), 0);
        ASSERT_TRUE(recv_datagram(gone.get(), &d, 3000));
    }
    EXPECT_TRUE(cam.daemon().wait_output("udp_preview_routine end", 3000, 3));
    s.logout();
}

// Login and first messages through the real daemon, with the settings server
// simulated: what a client sees on the wire and what the daemon logs.
#include <gtest/gtest.h>

#include <sys/socket.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "support/camera_fixture.h"
#include "support/sockets.h"

namespace {

// Send bytes on a new connection (then stop writing when half_close) and
// collect everything until the daemon closes it.
std::vector<uint8_t> exchange(int port, const std::string &bytes, bool *closed, bool half_close = false)
{
    cgtest::Fd fd = cgtest::connect_loopback(port);
    send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (half_close) shutdown(fd.get(), SHUT_WR);
    std::vector<uint8_t> got;
    *closed = cgtest::wait_peer_closed(fd.get(), 3000, &got);
    return got;
}

}  // namespace

TEST(CameraLogin, DescriptionComesFromTheSettingsServer)
{
    cgtest::Camera cam;
    DeviceInfoRsp info = cam.sim().get<DeviceInfoRsp>(ZQ_GETDEVICEINFO);
    std::memset(info.DeviceId, 'D', sizeof info.DeviceId);  // 32 bytes without terminator
    cam.sim().put(ZQ_GETDEVICEINFO, info);
    DeviceCapabilityRsp cap = cam.sim().get<DeviceCapabilityRsp>(ZQ_GETDEVICECAP);
    cap.IoInputCount = 4;
    cap.IoOutputCount = 3;
    cam.sim().put(ZQ_GETDEVICECAP, cap);
    ASSERT_TRUE(cam.start()) << cam.error();
    cam.sim().clear_received();

    // The exact bytes: a 12-byte header and the 472-byte body.
    cgtest::Fd fd = cgtest::connect_loopback(cam.port());
    NEW_PP_LOGIN_REQ req{};
    wire_set_str(req.uid, "alice");
    wire_set_str(req.pass, "anything");
    ASSERT_TRUE(cgtest::send_message(fd.get(), TK_CMD_LOGIN, &req, sizeof req));
    std::array<uint8_t, 12 + 472> reply{};
    ASSERT_TRUE(cgtest::recv_exact(fd.get(), reply.data(), reply.size()));
    const NEW_PACKET_HEADER *h = reinterpret_cast<const NEW_PACKET_HEADER *>(reply.data());
    EXPECT_EQ(h->magic, TK_PROTO_MAGIC);
    EXPECT_EQ(h->cmd, 0);
    EXPECT_EQ(h->len, 472u);
    TK_DEVICE_INFO dev;
    std::memcpy(&dev, reply.data() + 12 + 324, sizeof dev);
    EXPECT_EQ(std::string(dev.serial_no), std::string(31, 'D'));  // kept terminated
    EXPECT_EQ(dev.alarmin_chns, 4);
    EXPECT_EQ(dev.alarmout_chns, 3);
    EXPECT_EQ(dev.video_chns, 1);
    EXPECT_EQ(dev.audio_chns, 1);
    EXPECT_EQ(dev.netport_num, 1);
    EXPECT_EQ(dev.version, 0u);
    EXPECT_EQ(dev.dev_type[0], 0);
    EXPECT_EQ(dev.release_date[0], 0);
    for (size_t i = 12 + 4; i < 12 + 324; ++i) ASSERT_EQ(reply[i], 1) << i;
    fd.reset();

    // The daemon asked with zeroed selectors of the right sizes.
    sysd::Frame f;
    ASSERT_TRUE(cam.sim().wait_for(ZQ_GETDEVICECAP, 2000, &f));
    EXPECT_EQ(f.data, std::vector<uint8_t>(6, 0));
    ASSERT_TRUE(cam.sim().wait_for(ZQ_GETDEVICEINFO, 2000, &f));
    EXPECT_EQ(f.data, std::vector<uint8_t>(8, 0));
}

TEST(CameraLogin, FirstMessagesOnTheWire)
{
    cgtest::Camera cam;
    ASSERT_TRUE(cam.start()) << cam.error();
    cgtest::Process &d = cam.daemon();
    bool closed = false;
    using cgtest::header_bytes;

    // Only "QVRM" in this order is the magic; anything else is dropped after one error line.
    for (const std::string &bad :
         {"MRVQ" + header_bytes(TK_CMD_LOGIN).substr(4), std::string("GET / HTTP/1.0\r\n\r\n")}) {
        EXPECT_TRUE(exchange(cam.port(), bad, &closed).empty());
        EXPECT_TRUE(closed);
    }
    EXPECT_TRUE(d.wait_output("pkt_magic[", 2000, 2)) << d.err();

    // The magic alone, or a preview request cut short, then the client leaves: -7, no reply.
    EXPECT_TRUE(exchange(cam.port(), "QVRM", &closed, true).empty());
    EXPECT_TRUE(closed);
    EXPECT_TRUE(
        exchange(cam.port(), header_bytes(TK_CMD_PREVIEW_START, 16) + std::string(8, '\0'), &closed, true).empty());
    EXPECT_TRUE(closed);
    EXPECT_TRUE(d.wait_output("edci_parse_protocol failed! ret : -7", 2000, 2)) << d.err();

    // Unknown first commands: -4, closed without reply.
    for (int32_t cmd : {TK_CMD_GET_TIME, TK_CMD_HEARTBEAT}) {
        EXPECT_TRUE(exchange(cam.port(), header_bytes(cmd), &closed).empty());
        EXPECT_TRUE(closed);
    }
    EXPECT_TRUE(d.wait_output("edci_parse_protocol failed! ret : -4", 2000, 2)) << d.err();

    // Upgrade and upload first messages, a talk channel and playback: closed
    // without reply and without an error line.
    const int failures = d.count_output("edci_parse_protocol failed!");
    for (int32_t cmd : {TK_CMD_UPGRADE_FIRST, TK_CMD_UPLOAD_FIRST, TK_CMD_START_PLAY, TK_CMD_TALK_START}) {
        EXPECT_TRUE(exchange(cam.port(), header_bytes(cmd), &closed).empty()) << std::hex << cmd;
        EXPECT_TRUE(closed) << std::hex << cmd;
    }
    EXPECT_TRUE(d.wait_output("edci_parse_protocol, now cmd = " + std::to_string(TK_CMD_TALK_START), 2000));
    EXPECT_EQ(d.count_output("edci_parse_protocol failed!"), failures) << d.err();
    EXPECT_EQ(d.count_output("pkt_magic["), 2) << d.err();
    EXPECT_TRUE(d.running());
}

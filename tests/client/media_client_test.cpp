// The client library's live-media readers against scripted cameras: the
// stream parser, the key-frame reassembly of a UDP preview, the collection
// of search answers, and the listener of an active preview.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstring>
#include <thread>
#include <vector>

#include "client/client_fixture.h"
#include "client/media.h"
#include "support/sockets.h"
#include "support/testenv.h"

using camgate::client::Connection;
using camgate::client::Error;
using camgate::client::ErrorKind;
using camgate::client::MediaFrame;
using cgtest::error_of;

namespace {

template <class T>
void append(std::vector<uint8_t> &out, const T &rec)
{
    const auto *b = reinterpret_cast<const uint8_t *>(&rec);
    out.insert(out.end(), b, b + sizeof rec);
}

// Feed bytes to a fresh stream; the error kind read_frame ends with (-1: a frame was read).
int parse(const std::vector<uint8_t> &wire, MediaFrame *frame = nullptr)
{
    cgtest::TcpPair pair = cgtest::tcp_pair();
    if (!wire.empty()) {
        EXPECT_EQ(send(pair.server.get(), wire.data(), wire.size(), 0), static_cast<ssize_t>(wire.size()));
    }
    pair.server.reset();
    Connection conn(pair.client.release(), "camera", 1000);
    MediaFrame f;
    try {
        camgate::client::read_frame(conn, frame ? *frame : f);
    } catch (const Error &e) {
        return static_cast<int>(e.kind());
    }
    return -1;
}

void send_chunk(int fd, const sockaddr_in &to, uint32_t index, const std::vector<uint8_t> &frame, size_t off,
                size_t len)
{
    std::vector<uint8_t> d;
    TK_UDP_CHUNK_HDR h{{TK_PROTO_MAGIC, TK_CMD_PREVIEW_DATA, static_cast<TK_U32>(len + 4)}, index};
    append(d, h);
    d.insert(d.end(), frame.begin() + static_cast<long>(off), frame.begin() + static_cast<long>(off + len));
    ASSERT_EQ(sendto(fd, d.data(), d.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to),
              static_cast<ssize_t>(d.size()));
}

// A header for cmd with the 4-byte id as its body, or with no body (id omitted).
std::vector<uint8_t> message(int32_t cmd, const int32_t *id = nullptr)
{
    std::vector<uint8_t> m;
    append(m, NEW_PACKET_HEADER{TK_PROTO_MAGIC, cmd, id ? 4u : 0u});
    if (id) append(m, *id);
    return m;
}

void send_to(int fd, const std::vector<uint8_t> &d, const sockaddr_in &to)
{
    sendto(fd, d.data(), d.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
}

std::vector<uint8_t> frame_of(size_t n, uint8_t seed)
{
    std::vector<uint8_t> f(n);
    for (size_t i = 0; i < n; ++i) f[i] = static_cast<uint8_t>(seed + i * 31);
    return f;
}

}  // namespace

TEST(ClientStream, ReadsTheFramingAndRejectsWhatNoCameraSends)
{
    // An I-frame with its description (the other kinds come from the daemon in the tool's tests).
    std::vector<uint8_t> wire;
    append(wire, FRAME_HDR{{0, 0, 1}, TK_FRAME_VIDEO_I});
    IFRAME_INFO i{};
    i.framerate = 25;
    i.pts_msec = 4242;
    i.pic_width = 640;
    i.pic_height = 360;
    i.rtc_time = {3600000, 7, 5, 2024};
    i.length = 5;
    append(wire, i);
    for (uint8_t b : {0, 0, 0, 1, 0x65}) wire.push_back(b);
    MediaFrame f;
    ASSERT_EQ(parse(wire, &f), -1);
    EXPECT_EQ(f.kind, MediaFrame::Kind::VideoI);
    EXPECT_EQ(f.framerate, 25u);
    EXPECT_EQ(f.pts_msec, 4242);
    EXPECT_EQ(f.width, 640u);
    EXPECT_EQ(f.height, 360u);
    EXPECT_EQ(f.rtc_time.tm_year, 2024);
    EXPECT_EQ(f.data, (std::vector<uint8_t>{0, 0, 0, 1, 0x65}));

    // What no camera sends: sync lost, an unknown type, a type without a length
    // on the wire, frames beyond the camera's 3 MB video and 512 KB audio buffers.
    std::vector<uint8_t> bad[5];
    append(bad[0], FRAME_HDR{{0, 1, 1}, TK_FRAME_VIDEO_P});
    append(bad[1], FRAME_HDR{{0, 0, 1}, 0x42});
    append(bad[2], FRAME_HDR{{0, 0, 1}, TK_FRAME_OTHER});
    append(bad[3], FRAME_HDR{{0, 0, 1}, TK_FRAME_VIDEO_P});
    append(bad[3], PFRAME_INFO{0, 0, 3145729});
    append(bad[4], FRAME_HDR{{0, 0, 1}, TK_FRAME_AUDIO});
    append(bad[4], AFRAME_INFO{1, 0, 1, 0, 524289});
    for (const std::vector<uint8_t> &b : bad) EXPECT_EQ(parse(b), static_cast<int>(ErrorKind::Protocol)) << &b - bad;
    // Cut in the middle of a frame: the camera closed the connection.
    wire.resize(wire.size() - 2);
    EXPECT_EQ(parse(wire), static_cast<int>(ErrorKind::Closed));
}

TEST(ClientUdpPreview, PutsKeyFramesTogetherFromTheirChunks)
{
    const int32_t kSession = 0x10ABCDEF;
    cgtest::Fd camera = cgtest::udp_socket();    // the camera's client port
    cgtest::Fd streamer = cgtest::udp_socket();  // its streaming socket
    const std::vector<uint8_t> a = frame_of(2500, 1), b = frame_of(3000, 2), c = frame_of(2048, 3),
                               d = frame_of(100, 4);
    std::vector<uint8_t> heard_beat, heard_stop;
    std::thread fake([&] {
        std::vector<uint8_t> req;
        sockaddr_in viewer{};
        ASSERT_TRUE(cgtest::recv_datagram(camera.get(), &req, 3000, &viewer));
        NEW_PACKET_HEADER h;
        NEW_PP_PERVIEW_REQ r;
        ASSERT_EQ(req.size(), sizeof h + sizeof r);
        std::memcpy(&h, req.data(), sizeof h);
        std::memcpy(&r, req.data() + sizeof h, sizeof r);
        EXPECT_EQ(h.cmd, TK_CMD_PREVIEW_START);
        EXPECT_EQ(r.auth_id, 0x01020304u);
        EXPECT_EQ(r.protocol, static_cast<TK_U32>(PROTOCOL_TYPE_UDP));
        EXPECT_EQ(r.stream_index, 1u);
        // The stream may overtake the answer.
        send_chunk(streamer.get(), viewer, 0, a, 0, 1024);
        send_to(camera.get(), message(0, &kSession), viewer);
        send_chunk(streamer.get(), viewer, 1, a, 1024, 1024);
        send_chunk(streamer.get(), viewer, 2, a, 2048, 452);  // a: whole
        send_chunk(streamer.get(), viewer, 0, b, 0, 1024);
        send_chunk(streamer.get(), viewer, 2, b, 2048, 952);  // b: chunk 1 lost
        send_chunk(streamer.get(), viewer, 3, c, 0, 1024);    // the tail of a frame never started
        send_chunk(streamer.get(), viewer, 0, c, 0, 1024);
        send_chunk(streamer.get(), viewer, 1, c, 1024, 1024);  // c: ends on a full chunk
        send_chunk(streamer.get(), viewer, 0, d, 0, 100);      // d: whole
        sockaddr_in from{};
        ASSERT_TRUE(cgtest::recv_datagram(camera.get(), &heard_beat, 3000, &from));
        ASSERT_TRUE(cgtest::recv_datagram(camera.get(), &heard_stop, 3000, &from));
        send_to(camera.get(), message(0), from);
    });

    camgate::client::PreviewRequest req;
    req.auth_id = 0x01020304;
    req.stream_index = 1;
    req.protocol = PROTOCOL_TYPE_UDP;
    camgate::client::UdpPreview udp("127.0.0.1", cgtest::local_port(camera.get()), req, 3000);
    EXPECT_EQ(udp.session_id(), kSession);
    camgate::client::UdpFrame f;
    ASSERT_TRUE(udp.next(f, 3000));
    EXPECT_TRUE(f.whole);
    EXPECT_EQ(f.chunks, 3);
    EXPECT_EQ(f.data, a);
    ASSERT_TRUE(udp.next(f, 3000));
    EXPECT_FALSE(f.whole);
    ASSERT_TRUE(udp.next(f, 3000));
    EXPECT_FALSE(f.whole) << "a frame ending on a full chunk cannot be told from a cut one";
    ASSERT_TRUE(udp.next(f, 3000));
    EXPECT_TRUE(f.whole);
    EXPECT_EQ(f.data, d);
    EXPECT_FALSE(udp.next(f, 100));
    EXPECT_EQ(udp.stats().datagrams, 9);
    EXPECT_EQ(udp.stats().whole, 2);
    EXPECT_EQ(udp.stats().cut, 2);

    udp.heartbeat();
    EXPECT_EQ(udp.stop(), 0);
    fake.join();
    EXPECT_EQ(heard_beat, message(TK_CMD_PREVIEW_HEARTBEAT, &kSession));
    EXPECT_EQ(heard_stop, message(TK_CMD_PREVIEW_STOP, &kSession));

    // A refusal carries the camera's code.
    std::thread refuse([&] {
        std::vector<uint8_t> req_bytes;
        sockaddr_in viewer{};
        ASSERT_TRUE(cgtest::recv_datagram(camera.get(), &req_bytes, 3000, &viewer));
        send_to(camera.get(), message(TK_ERR_RIGHT), viewer);
    });
    const Error e =
        error_of([&] { camgate::client::UdpPreview("127.0.0.1", cgtest::local_port(camera.get()), req, 3000); });
    refuse.join();
    EXPECT_EQ(e.kind(), ErrorKind::Refused);
    EXPECT_EQ(e.code(), TK_ERR_RIGHT);
}

TEST(ClientDiscover, CollectsEachCameraOnceUntilTheTimeOut)
{
    const int port = cgtest::free_port_tcp_and_udp();
    // Two cameras on the discovery port; the first answers twice.
    cgtest::Fd cam1 = cgtest::udp_socket(port), cam2 = cgtest::udp_socket(port);
    auto answer = [&](int fd, const char *serial, const char *ip, int times) {
        std::vector<uint8_t> d;
        sockaddr_in from{};
        while (cgtest::recv_datagram(fd, &d, 3000, &from)) {
            NEW_PACKET_HEADER h;
            if (d.size() != sizeof h) continue;
            std::memcpy(&h, d.data(), sizeof h);
            if (h.cmd == TK_CMD_SEARCH_DEVICE) break;
        }
        std::vector<uint8_t> reply;
        append(reply, NEW_PACKET_HEADER{TK_PROTO_MAGIC, TK_CMD_SEARCH_DEVICE_ACK, sizeof(TK_SEARCH_REPLY)});
        TK_SEARCH_REPLY r{};
        std::memcpy(r.dev_info.serial_no, serial, std::min(std::strlen(serial), sizeof r.dev_info.serial_no));
        wire_set_str(r.net.eths[0].ipaddr.ipv4, ip);
        wire_set_str(r.net.eths[0].mac_addr, "00:11:22:33:44:55");
        append(reply, r);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(static_cast<uint16_t>(port));
        inet_pton(AF_INET, "127.255.255.255", &to.sin_addr);
        for (int i = 0; i < times; ++i)
            sendto(fd, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    };
    std::thread t1([&] { answer(cam1.get(), "CAM-1", "10.0.0.1", 2); });
    const std::string serial2(32, 'S');  // no terminator on the wire
    std::thread t2([&] { answer(cam2.get(), serial2.c_str(), "10.0.0.2", 1); });

    camgate::client::DiscoverOptions opt;
    opt.port = port;
    opt.timeout_ms = 500;
    const int64_t t0 = cgtest::now_ms();
    const auto found = camgate::client::discover(opt);
    EXPECT_GE(cgtest::now_ms() - t0, 450);
    t1.join();
    t2.join();
    ASSERT_EQ(found.size(), 2u);
    const auto &first = found[0].device.serial_no == "CAM-1" ? found[0] : found[1];
    const auto &second = found[0].device.serial_no == "CAM-1" ? found[1] : found[0];
    EXPECT_EQ(first.ip, "10.0.0.1");
    EXPECT_EQ(second.device.serial_no, serial2);
    EXPECT_EQ(first.mac, "00:11:22:33:44:55");
    EXPECT_EQ(first.from, "127.0.0.1:" + std::to_string(port));
}

TEST(ClientActivePreview, AnswersTheCamerasRequestAndReadsItsStream)
{
    camgate::client::ActiveListener listener(0, "127.0.0.1");
    ASSERT_GT(listener.port(), 0);

    // Nobody connects: a time-out that says what to check.
    EXPECT_EQ(error_of([&] { listener.accept(100); }).kind(), ErrorKind::Timeout);

    // A camera: its preview request, our 16-byte answer, then its frames.
    std::vector<uint8_t> answer(16);
    std::thread camera([&] {
        cgtest::Fd fd = cgtest::connect_loopback(listener.port());
        const NEW_PP_PERVIEW_REQ req{0x0300AAAA, PROTOCOL_TYPE_TCP, 0, 1};
        ASSERT_TRUE(cgtest::send_message(fd.get(), TK_CMD_PREVIEW_START, &req, sizeof req));
        ASSERT_TRUE(cgtest::recv_exact(fd.get(), answer.data(), answer.size()));
        std::vector<uint8_t> frame;
        append(frame, FRAME_HDR{{0, 0, 1}, TK_FRAME_VIDEO_P});
        append(frame, PFRAME_INFO{7, 0, 2});
        frame.push_back(0xAB);
        frame.push_back(0xCD);
        send(fd.get(), frame.data(), frame.size(), 0);
        cgtest::wait_peer_closed(fd.get(), 3000);
    });
    const int32_t id = 0x1234;
    camgate::client::PreviewStream stream = listener.accept(3000, id);
    EXPECT_EQ(stream.camera_request().auth_id, 0x0300AAAAu);
    EXPECT_EQ(stream.camera_request().stream_index, 1u);
    MediaFrame f;
    stream.next(f);
    EXPECT_EQ(f.kind, MediaFrame::Kind::VideoP);
    EXPECT_EQ(f.data, (std::vector<uint8_t>{0xAB, 0xCD}));
    stream.connection().close();
    camera.join();
    EXPECT_EQ(answer, message(0, &id));

    // A peer that is no camera.
    std::thread stranger([&] {
        cgtest::Fd fd = cgtest::connect_loopback(listener.port());
        cgtest::send_message(fd.get(), TK_CMD_LOGIN, "x", 1);
        cgtest::wait_peer_closed(fd.get(), 3000);
    });
    EXPECT_EQ(error_of([&] { listener.accept(3000); }).kind(), ErrorKind::Protocol);
    stranger.join();
}

// The TCP live stream of the real daemon, fed with frames this test writes
// into the frame cache: every frame names its serial in its bytes, so the
// tests see exactly which frames a viewer got, in which order, and whole.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "client/client.h"
#include "client/media.h"
#include "media/shm_cache.h"
#include "support/camera_fixture.h"
#include "support/media_frames.h"
#include "support/sockets.h"
#include "support/testenv.h"

using camgate::client::Connection;
using camgate::client::MediaFrame;
using camgate::client::read_frame;

namespace {

constexpr int kVideo = 0;

double stamp(int serial)
{
    return 100.0 + serial * 0.125;  // exact in binary; past 65.536 s, so the 16-bit pts wraps
}

int write_video(int serial, int size, bool key)
{
    return cgtest::write_tagged(kVideo, 'V', serial, size, key ? CACHE_FRAME_TYPE_I : CACHE_FRAME_TYPE_P,
                                stamp(serial));
}

// A GOP of n frames starting at serial first (an I-frame, then P-frames).
void write_gop(int first, int n, int size = 600)
{
    for (int s = first; s < first + n; ++s) ASSERT_EQ(write_video(s, size, s == first), 0);
}

// The viewer side of a stream whose reply has been read.
struct Viewer {
    explicit Viewer(cgtest::Fd fd) : conn(fd.release(), "camgated", 3000) {}
    // The next frame; its tagged serial (-1 when damaged), -2 when the stream ended or stalled.
    int next(MediaFrame &f)
    {
        try {
            read_frame(conn, f);
        } catch (const camgate::client::Error &) {
            return -2;
        }
        return cgtest::tagged_serial(f.data, f.video() ? 'V' : 'A');
    }
    Connection conn;
};

Viewer open_viewer(cgtest::Camera &cam, int32_t *session_id = nullptr)
{
    cgtest::Fd fd;
    int32_t sid = 0;
    EXPECT_EQ(cgtest::request_preview(cam.port(), &fd, &sid), 0);
    if (session_id) *session_id = sid;
    return Viewer(std::move(fd));
}

// User plus system CPU time of a process, in clock ticks.
long cpu_ticks(pid_t pid)
{
    const std::string stat = cgtest::read_file("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));  // from field 3 on
    std::string skip;
    for (int i = 3; i < 14; ++i) fields >> skip;
    long utime = 0, stime = 0;
    fields >> utime >> stime;
    return utime + stime;
}

}  // namespace

TEST(LivePreview, StartsAtTheNewestGopFollowsTheCacheAndEndsWhenTheProtocolStops)
{
    cgtest::Camera cam;
    ASSERT_TRUE(cam.start()) << cam.error();
    ASSERT_EQ(shm_cache_set_media_info(kVideo, CACHE_MEDIA_TYPE_H264, 512, 50, 640, 360), 0);
    write_gop(0, 3);
    write_gop(3, 3);

    Viewer v = open_viewer(cam);  // the reply: a header with cmd 0 and len 4, and the session id

    // The first frame is the I-frame opening the newest GOP, with its description.
    MediaFrame f;
    ASSERT_EQ(v.next(f), 3);
    EXPECT_EQ(f.kind, MediaFrame::Kind::VideoI);
    EXPECT_EQ(f.framerate, 50u);
    EXPECT_EQ(f.width, 640u);
    EXPECT_EQ(f.height, 360u);
    EXPECT_EQ(f.pts_msec, static_cast<uint16_t>(100375 & 0xFFFF));
    ASSERT_EQ(v.next(f), 4);
    EXPECT_EQ(f.kind, MediaFrame::Kind::VideoP);
    EXPECT_EQ(f.pts_msec, static_cast<uint16_t>(100500 & 0xFFFF));
    ASSERT_EQ(v.next(f), 5);

    // Frames written while the viewer keeps up arrive in order, none missing.
    std::thread writer([] {
        for (int s = 6; s < 46; ++s) {
            write_video(s, 300 + s * 50, s % 10 == 0);
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
    });
    for (int s = 6; s < 46; ++s) {
        const int got = v.next(f);
        ASSERT_EQ(got, s);
        ASSERT_EQ(f.kind, s % 10 == 0 ? MediaFrame::Kind::VideoI : MediaFrame::Kind::VideoP) << s;
    }
    writer.join();

    // Switching the client protocol off ends the stream within about a second.
    ASSERT_TRUE(cam.push_protocol(0, 1, cam.port()));
    const int64_t off = cgtest::now_ms();
    EXPECT_TRUE(cgtest::wait_peer_closed(v.conn.fd(), 3000));
    EXPECT_LE(cgtest::now_ms() - off, 1500);
}

TEST(LivePreview, AViewerBehindTheCacheResumesAtTheNewestKeyFrameAndNeverGoesBack)
{
    cgtest::Camera cam;  // 256 blocks of video: a few hundred small frames
    ASSERT_TRUE(cam.start()) << cam.error();
    ASSERT_EQ(shm_cache_set_media_info(kVideo, CACHE_MEDIA_TYPE_H264, 512, 25, 640, 360), 0);
    write_gop(0, 10, 500);
    write_gop(10, 10, 500);
    Viewer v = open_viewer(cam);
    MediaFrame f;
    ASSERT_EQ(v.next(f), 10);

    // The viewer is paced at about 27 frames a second: 400 frames at once leave it far behind.
    for (int s = 20; s < 420; s += 10) write_gop(s, 10, 500);
    int last = 10, jumps = 0;
    while (last < 419) {
        const int got = v.next(f);
        ASSERT_GT(got, last) << "after " << last;
        if (got != last + 1) {
            ++jumps;
            EXPECT_EQ(f.kind, MediaFrame::Kind::VideoI) << "a jump lands on a key frame, not on " << got;
            EXPECT_EQ(got % 10, 0);
        }
        last = got;
    }
    EXPECT_GE(jumps, 1);
    EXPECT_TRUE(cam.daemon().wait_output("CACHE_RET_OVER_WRITE", 1000));
}

TEST(LivePreview, AWaitingViewerStartsAtAKeyFrameWithoutSpinning)
{
    cgtest::Camera cam;
    ASSERT_TRUE(cam.start()) << cam.error();
    ASSERT_EQ(shm_cache_set_media_info(kVideo, CACHE_MEDIA_TYPE_H264, 512, 25, 640, 360), 0);
    Viewer v = open_viewer(cam);
    v.conn.set_timeout_ms(300);
    MediaFrame f;
    EXPECT_EQ(v.next(f), -2);  // an empty cache: nothing yet

    // P-frames without a key frame to start at: still nothing, and the daemon waits idle.
    for (int s = 0; s < 3; ++s) ASSERT_EQ(write_video(s, 400, false), 0);
    const long before = cpu_ticks(cam.daemon().pid());
    const int64_t t0 = cgtest::now_ms();
    EXPECT_EQ(v.next(f), -2);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const long used = cpu_ticks(cam.daemon().pid()) - before;
    const double ticks_per_ms = static_cast<double>(sysconf(_SC_CLK_TCK)) / 1000.0;
    EXPECT_LT(used, 0.3 * (cgtest::now_ms() - t0) * ticks_per_ms) << "the daemon spins while it waits";

    ASSERT_EQ(write_video(3, 400, true), 0);
    ASSERT_EQ(write_video(4, 400, false), 0);
    v.conn.set_timeout_ms(3000);
    ASSERT_EQ(v.next(f), 3);
    EXPECT_EQ(f.kind, MediaFrame::Kind::VideoI);
    EXPECT_EQ(v.next(f), 4);
}

TEST(LivePreview, AFrameLargerThanTheBufferIsNeverSent)
{
    cgtest::CameraOptions opt;
    opt.cache = {1, {8192}, 1, {64}, 1, {16}};
    cgtest::Camera cam(opt);
    ASSERT_TRUE(cam.start()) << cam.error();
    ASSERT_EQ(shm_cache_set_media_info(kVideo, CACHE_MEDIA_TYPE_H264, 512, 25, 640, 360), 0);
    write_gop(0, 2, 1000);
    Viewer v = open_viewer(cam);
    MediaFrame f;
    ASSERT_EQ(v.next(f), 0);
    ASSERT_EQ(v.next(f), 1);

    // 3.2 MB: the viewer stays on it, retrying, until it is overwritten...
    ASSERT_EQ(write_video(2, 3355443, false), 0);
    ASSERT_TRUE(cam.daemon().wait_output("*** CACHE_RET_OVER_WRITE", 3000));
    ASSERT_EQ(write_video(3, 1000, false), 0);
    for (int s = 4; s < 9; ++s) ASSERT_EQ(write_video(s, 1048576, false), 0);  // evict frames 0-2
    // ...and then goes on at the newest key frame.
    write_gop(9, 2, 1000);
    ASSERT_EQ(v.next(f), 9);
    EXPECT_EQ(f.kind, MediaFrame::Kind::VideoI);
    EXPECT_EQ(v.next(f), 10);
}

TEST(LivePreview, AudioIsSentWhenEnabledAndConsumedSilentlyWhenNot)
{
    cgtest::Camera cam;
    ASSERT_TRUE(cam.start()) << cam.error();
    ASSERT_EQ(shm_cache_set_media_info(kVideo, CACHE_MEDIA_TYPE_H264, 512, 25, 640, 360), 0);
    const int audio_idx = get_audio_cache_idx(0);
    ASSERT_GE(audio_idx, 0);
    write_gop(0, 1);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int s = 0; !stop; ++s) {
            cgtest::write_tagged(audio_idx, 'A', s, 320, CACHE_FRAME_TYPE_AUDIO, stamp(s));
            if (s % 2 == 0) write_video(s / 2 + 1, 500, false);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });

    // Enabled (the settings server's default): audio among the video (whole
    // and in order, as the test under load checks).
    {
        Viewer v = open_viewer(cam);
        MediaFrame f;
        for (int n = 0; n < 200 && v.next(f) >= 0 && f.video(); ++n) {
        }
        EXPECT_FALSE(f.video()) << "no audio frame";
    }
    ASSERT_TRUE(cam.daemon().wait_output("stop audio_stream_proc", 3000));
    sysd::Frame asked;
    ASSERT_TRUE(cam.sim().wait_for(ZQ_GETAUDIO, 1000, &asked));
    EXPECT_EQ(asked.data, std::vector<uint8_t>{0});  // the request is one zero byte

    // Disabled: video only; the audio thread ends with the stream all the same.
    AudioInfo off = cam.sim().get<AudioInfo>(ZQ_GETAUDIO);
    off.AudioEnable = 0;
    cam.sim().put(ZQ_GETAUDIO, off);
    {
        Viewer v = open_viewer(cam);
        MediaFrame f;
        int video = 0;
        const int64_t until = cgtest::now_ms() + 800;
        while (cgtest::now_ms() < until) {
            ASSERT_GE(v.next(f), 0);
            ASSERT_TRUE(f.video()) << "an audio frame while audio is disabled";
            ++video;
        }
        EXPECT_GE(video, 5);
    }
    EXPECT_TRUE(cam.daemon().wait_output("stop audio_stream_proc", 3000, 2));
    stop = true;
    writer.join();
}

TEST(LivePreview, TheNinthViewerIsRefusedAndALeavingViewerFreesItsPlace)
{
    cgtest::Camera cam;  // an empty cache: the viewers wait for a first frame
    ASSERT_TRUE(cam.start()) << cam.error();
    ASSERT_EQ(shm_cache_set_media_info(kVideo, CACHE_MEDIA_TYPE_H264, 512, 25, 640, 360), 0);
    std::vector<cgtest::Fd> viewers(8);
    std::vector<uint32_t> slots;
    for (auto &fd : viewers) {
        int32_t sid = 0;
        ASSERT_EQ(cgtest::request_preview(cam.port(), &fd, &sid), 0);
        slots.push_back(static_cast<uint32_t>(sid) >> 24);
    }
    std::sort(slots.begin(), slots.end());
    EXPECT_EQ(slots, (std::vector<uint32_t>{16, 17, 18, 19, 20, 21, 22, 23}));

    cgtest::Fd ninth;
    int32_t sid = 0;
    EXPECT_EQ(cgtest::request_preview(cam.port(), &ninth, &sid), TK_ERR_REFUSED);
    std::vector<uint8_t> rest;
    EXPECT_TRUE(cgtest::wait_peer_closed(ninth.get(), 3000, &rest));
    EXPECT_TRUE(rest.empty());  // a bare 12-byte header, nothing more

    viewers[3].reset();
    EXPECT_TRUE(cgtest::wait_until(
        [&] {
            cgtest::Fd fd;
            return cgtest::request_preview(cam.port(), &fd, &sid) == 0;
        },
        3000, 50));
}

TEST(LivePreview, FramesOfVideoAndAudioStayWholeUnderLoad)
{
    cgtest::CameraOptions opt;
    opt.cache = {1, {4096}, 1, {64}, 1, {64}};
    cgtest::Camera cam(opt);
    ASSERT_TRUE(cam.start()) << cam.error();
    ASSERT_EQ(shm_cache_set_media_info(kVideo, CACHE_MEDIA_TYPE_H264, 4096, 100, 1280, 720), 0);
    const int audio_idx = get_audio_cache_idx(0);
    write_gop(0, 1, 120000);

    // Three viewers, each on a thread of its own, count what they got and what was damaged or out of order.
    struct Result {
        int video = 0, audio = 0, damaged = 0, out_of_order = 0;
        bool ended = false;
    };
    std::vector<Result> results(3);
    std::vector<Viewer> viewers;
    for (int i = 0; i < 3; ++i) viewers.push_back(open_viewer(cam));
    std::atomic<bool> stop{false};
    std::vector<std::thread> readers;
    for (size_t i = 0; i < viewers.size(); ++i) {
        readers.emplace_back([&, i] {
            MediaFrame f;
            int last_video = -1, last_audio = -1;
            while (!stop) {
                const int got = viewers[i].next(f);
                if ((results[i].ended = got == -2)) return;
                int &last = f.video() ? last_video : last_audio;
                if (got < 0) ++results[i].damaged;
                if (got <= last) ++results[i].out_of_order;
                last = got;
                ++(f.video() ? results[i].video : results[i].audio);
            }
        });
    }
    // 100 video frames a second of 10-120 KB and 200 audio frames a second, for 1.5 s.
    for (int s = 1, a = 0; s <= 150; ++s) {
        ASSERT_EQ(write_video(s, s % 25 == 0 ? 120000 : 10000 + (s * 7919) % 30000, s % 25 == 0), 0);
        cgtest::write_tagged(audio_idx, 'A', a++, 320, CACHE_FRAME_TYPE_AUDIO, stamp(s));
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        cgtest::write_tagged(audio_idx, 'A', a++, 320, CACHE_FRAME_TYPE_AUDIO, stamp(s));
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    stop = true;
    for (auto &t : readers) t.join();
    for (const Result &r : results) {
        EXPECT_FALSE(r.ended) << "the stream ended or stalled";
        EXPECT_EQ(r.damaged, 0);
        EXPECT_EQ(r.out_of_order, 0);
        EXPECT_GE(r.video, 50);
        EXPECT_GE(r.audio, 20);
    }
}

TEST(ActivePreview, TheCameraConnectsOutPresentsItselfAndStreams)
{
    cgtest::Camera cam;
    ASSERT_TRUE(cam.start()) << cam.error();
    ASSERT_EQ(shm_cache_set_media_info(kVideo, CACHE_MEDIA_TYPE_H264, 512, 25, 640, 360), 0);
    write_gop(0, 5);
    camgate::client::Session s("127.0.0.1", cam.port(), 3000);
    const int32_t auth = s.login("viewer", "").session_id;
    cgtest::Listener listener;

    // To the address given: a preview request naming the login, then frames once answered.
    ASSERT_EQ(camgate::client::request_active_preview(s, "127.0.0.1", listener.port(), 0, 0), 0);
    cgtest::Fd fd = listener.accept(3000);
    ASSERT_TRUE(fd.valid());
    struct CG_PACKED Hello {
        NEW_PACKET_HEADER head;
        NEW_PP_PERVIEW_REQ req;
    } hello{};
    ASSERT_TRUE(cgtest::recv_exact(fd.get(), &hello, sizeof hello));
    const Hello want{{TK_PROTO_MAGIC, TK_CMD_PREVIEW_START, 16}, {static_cast<TK_U32>(auth), PROTOCOL_TYPE_TCP, 0, 0}};
    EXPECT_EQ(cgtest::bytes_of(hello), cgtest::bytes_of(want));
    const int32_t our_id = 77;
    ASSERT_TRUE(cgtest::send_message(fd.get(), 0, &our_id, sizeof our_id));
    s.logout();  // the stream outlives the request
    Viewer v(std::move(fd));
    MediaFrame f;
    EXPECT_EQ(v.next(f), 0);
    EXPECT_EQ(v.next(f), 1);

    // An empty address: the camera connects back to where the control connection came from.
    camgate::client::Session s2("127.0.0.1", cam.port(), 3000);
    s2.login("viewer", "");
    ASSERT_EQ(camgate::client::request_active_preview(s2, "", listener.port(), 0, 0), 0);
    cgtest::Fd back = listener.accept(3000);
    ASSERT_TRUE(back.valid());
    ASSERT_TRUE(cgtest::recv_exact(back.get(), &hello, sizeof hello));
    EXPECT_EQ(hello.head.cmd, TK_CMD_PREVIEW_START);

    // Refused by the remote side: the camera says so ("romate" is its word) and closes.
    ASSERT_TRUE(cgtest::send_message(back.get(), TK_ERR_REFUSED));
    EXPECT_TRUE(cgtest::wait_peer_closed(back.get(), 3000));
    EXPECT_TRUE(cam.daemon().wait_output("active_tcp_routine:refused by romate!", 3000));

    // Channel 64 lies beyond the rights: no connection at all.
    ASSERT_EQ(camgate::client::request_active_preview(s2, "127.0.0.1", listener.port(), 64, 0), 0);
    EXPECT_TRUE(cam.daemon().wait_output("active_tcp_routine:no rights to preview!", 3000));
    EXPECT_FALSE(listener.accept(300).valid());
    s2.logout();
}

// camgate-load: its figures, and the program against the real daemon fed by
// the encoder simulator.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "camgate-encoder/encoder_sim.h"
#include "load.h"
#include "support/camera_fixture.h"
#include "support/testenv.h"

namespace {

// Run camgate-load to its end: its exit status (-1 when it did not end in time).
int run(cgtest::Process &p, const std::vector<std::string> &args, int timeout_ms = 20000)
{
    return p.run(cgtest::bin_path("camgate-load"), args, timeout_ms);
}

// The number after the first "key": at or after from in a JSON text (-1 when missing).
double json_number(const std::string &json, const std::string &key, size_t from = 0)
{
    const size_t at = json.find("\"" + key + "\": ", from);
    return at == std::string::npos ? -1 : std::atof(json.c_str() + at + key.size() + 4);
}

// The position of "key": in json (npos when missing), to read the fields of a nested object.
size_t json_at(const std::string &json, const std::string &key)
{
    return json.find("\"" + key + "\": ");
}

// A camera whose cache the encoder simulator feeds with a synthetic 25 fps stream and audio.
struct LiveCamera {
    cgtest::Camera cam;
    encoder::EncoderSim enc;

    static cgtest::CameraOptions camera_options()
    {
        cgtest::CameraOptions o;
        o.create_cache = false;
        return o;
    }
    static encoder::Options encoder_options(key_t key, bool paused)
    {
        encoder::Options eo;
        eo.key = key;
        encoder::VideoStream vs;
        vs.gop = 25;
        eo.video = {vs};
        eo.snapshot = false;
        eo.start_paused = paused;
        return eo;
    }
    explicit LiveCamera(bool paused = false) : cam(camera_options()), enc(encoder_options(cam.shm_key(), paused)) {}
};

TEST(LoadFigures, PercentilesAndFrameAges)
{
    std::vector<double> hundred;
    for (int i = 100; i >= 1; --i) hundred.push_back(i);
    load::Summary s = load::summarize(hundred);
    EXPECT_EQ(s.count, 100u);
    EXPECT_DOUBLE_EQ(s.median, 50.5);
    EXPECT_DOUBLE_EQ(s.p99, 99);  // nearest rank: the 99th of 100
    EXPECT_DOUBLE_EQ(s.max, 100);

    s = load::summarize({3, 1, 2});
    EXPECT_DOUBLE_EQ(s.median, 2);
    EXPECT_DOUBLE_EQ(s.p99, 3);  // fewer than 100 samples: the largest
    s = load::summarize({});
    EXPECT_EQ(s.count, 0u);
    EXPECT_DOUBLE_EQ(s.p99, 0);

    // The pts is the capture time in ms cut to 16 bits: ages are taken modulo 65536.
    EXPECT_DOUBLE_EQ(load::frame_age_ms(1000, 1000.0), 0);
    EXPECT_DOUBLE_EQ(load::frame_age_ms(1000, 1020.9), 20);
    EXPECT_DOUBLE_EQ(load::frame_age_ms(65530, 65536.0 * 7 + 5), 11);      // across the wrap
    EXPECT_DOUBLE_EQ(load::frame_age_ms(40, 65536.0 * 3 + 30000), 29960);  // a stale frame, not a wrap
    EXPECT_DOUBLE_EQ(load::frame_age_ms(2000, 1990.0), -1);                // stamped ahead of the clock
}

TEST(LoadFigures, ProcessFiguresAndLoopbackHosts)
{
    load::ProcSample self;
    ASSERT_TRUE(load::read_proc(getpid(), &self));
    EXPECT_GE(self.threads, 1);
    EXPECT_GT(self.rss_kb, 0);
    EXPECT_GT(self.anon_kb, 0);
    EXPECT_GE(self.hwm_kb, self.rss_kb);
    EXPECT_EQ(self.rss_kb, self.anon_kb + self.file_kb + self.shmem_kb);
    load::ProcSample none;
    EXPECT_FALSE(load::read_proc(0x7FFFFFF0, &none));
    EXPECT_EQ(load::find_process("no-such-program-here"), 0);

    // The whole of 127/8 and its name; nothing else (the program test shows a refused host).
    for (const char *host : {"127.200.1.9", "localhost"}) EXPECT_TRUE(load::is_loopback(host)) << host;
    for (const char *host : {"128.0.0.1", "camera.example", "127.0.0"}) EXPECT_FALSE(load::is_loopback(host)) << host;
}

// About 4 s: two 1.5 s runs against the daemon.
TEST(CamgateLoad, ReportsWhatViewersAndClientsSawAndWhatTheDaemonUsed)
{
    LiveCamera live;
    ASSERT_TRUE(live.enc.start()) << live.enc.error();
    ASSERT_TRUE(live.enc.wait_for_video(0, 5, 5000));
    ASSERT_TRUE(live.cam.start()) << live.cam.error();
    const std::string port = std::to_string(live.cam.port());
    const std::string pid = std::to_string(live.cam.daemon().pid());

    cgtest::Process p;
    ASSERT_EQ(run(p, {"--port", port, "--pid", pid, "--viewers", "2", "--controls", "1", "--probes", "3", "--duration",
                      "1.5", "--json"}),
              0)
        << p.out() << p.err();
    const std::string j = p.out();
    EXPECT_NE(j.find("\"ok\": true"), std::string::npos) << j;
    EXPECT_EQ(json_number(j, "count", json_at(j, "probe_first_frame_ms")), 3) << j;
    const double first = json_number(j, "median", json_at(j, "first_frame_ms"));
    EXPECT_GT(first, 0);
    EXPECT_LT(first, 2000);

    // Each viewer: at least the GOP it started with and what followed, an I-frame first.
    for (size_t at = json_at(j, "viewers"), i = 0; i < 2; ++i) {
        at = j.find("{\"started\": true", at);
        ASSERT_NE(at, std::string::npos) << j;
        EXPECT_GE(json_number(j, "video_frames", at), 20) << j;
        EXPECT_GE(json_number(j, "i_frames", at), 1) << j;
        EXPECT_GT(json_number(j, "audio_frames", at), 0) << j;
        EXPECT_EQ(json_number(j, "largest_video", at), 24000) << j;  // the simulator's I-frames
        EXPECT_EQ(json_number(j, "largest_audio", at), 320) << j;
        ++at;
    }
    // Frames arrive no older than the GOP a viewer starts with (1 s) plus the pacing's catching up.
    const double age = json_number(j, "max", json_at(j, "frame_age_ms"));
    EXPECT_GE(age, 0);
    EXPECT_LT(age, 3000);
    EXPECT_GT(json_number(j, "bytes"), 2 * 20 * 3000);

    // The control client went round heartbeat, network and time; all answered.
    const size_t control = json_at(j, "control");
    EXPECT_GT(json_number(j, "requests", control), 9);
    EXPECT_GT(json_number(j, "count", json_at(j, "heartbeat_ms")), 2);
    EXPECT_GT(json_number(j, "count", json_at(j, "get_network_ms")), 2);
    EXPECT_GT(json_number(j, "count", json_at(j, "get_time_ms")), 2);
    EXPECT_NE(j.find("\"errors\": []"), std::string::npos) << j;

    // The daemon's process: sampled at the start, every second and at the end.
    const size_t daemon = json_at(j, "daemon");
    ASSERT_NE(daemon, std::string::npos);
    EXPECT_EQ(json_number(j, "pid", daemon), live.cam.daemon().pid());
    EXPECT_GE(json_number(j, "cpu_s", daemon), 0);
    EXPECT_GT(json_number(j, "rss_kb_end", daemon), 0);
    EXPECT_GT(json_number(j, "vmhwm_kb", daemon), 0);
    EXPECT_GT(json_number(j, "wakeups_per_s", daemon), 25) << j;  // at least one a frame
    // Each viewer is served by a video and an audio thread, the control client by one more.
    EXPECT_GE(json_number(j, "threads_max", daemon), json_number(j, "threads_start", daemon) + 5) << j;
    size_t samples = 0;
    for (size_t at = j.find("{\"t_s\": ", daemon); at != std::string::npos; at = j.find("{\"t_s\": ", at + 1))
        ++samples;
    EXPECT_GE(samples, 3u);

    // The same run for a person.
    cgtest::Process text;
    ASSERT_EQ(run(text, {"--port", port, "--pid", pid, "--viewers", "1", "--duration", "1"}), 0) << text.err();
    const std::string t = text.out();
    for (const std::string &line :
         std::vector<std::string>{"first frame (viewers at start)", "frame age on arrival", "video frames per viewer",
                                  "daemon (pid " + pid + ") CPU", "daemon memory", "daemon threads", "result: ok"})
        EXPECT_NE(t.find(line), std::string::npos) << line << "\n" << t;
}

// About 2 s. The reference program is built with the benchmarks (not in the sanitizer build).
TEST(LiveReference, DeliversEachFrameOnceToEverySocket)
{
    const std::string program = cgtest::bin_path("camgate_live_reference");
    if (access(program.c_str(), X_OK) != 0) GTEST_SKIP() << "camgate_live_reference is not built";
    LiveCamera live;
    ASSERT_TRUE(live.enc.start()) << live.enc.error();
    ASSERT_TRUE(live.enc.wait_for_video(0, 5, 5000));
    cgtest::Process p;
    ASSERT_EQ(
        p.run(program,
              {"--key", std::to_string(live.cam.shm_key()), "--sockets", "3", "--duration", "1.5", "--audio", "--json"},
              10000),
        0)
        << p.out() << p.err();
    const std::string j = p.out().substr(p.out().find("{\"sockets\""));
    EXPECT_NE(j.find("\"ok\": true"), std::string::npos) << j;
    // From the newest GOP's I-frame on: what the encoder wrote in 1.5 s and at most a GOP before.
    const double video = json_number(j, "video_frames");
    EXPECT_GE(video, 30) << j;
    EXPECT_LE(video, 1.5 * 25 + 25 + 3) << j;
    EXPECT_GE(json_number(j, "audio_frames"), 30) << j;
    // Every byte sent was drained, the same to each of the 3 sockets, with the framing.
    const double bytes = json_number(j, "bytes");
    EXPECT_EQ(bytes, json_number(j, "bytes_sent")) << j;
    EXPECT_EQ(static_cast<long long>(bytes) % 3, 0) << j;
    const double audio = json_number(j, "audio_frames");
    const double least = 24024 + (video - 1) * (3000 + 12) + audio * (320 + 12);
    EXPECT_GE(bytes / 3, least) << j;
    EXPECT_LE(bytes / 3, least + 3 * (24000 - 3000)) << j;  // a few more I-frames at most
    EXPECT_GT(json_number(j, "wakeups_per_s"), 0) << j;
}

// About 2 s.
TEST(CamgateLoad, FailsWhenNothingIsServedAndStaysOnLoopback)
{
    // A camera whose encoder has written nothing yet: the viewer waits and gives up at its time-out.
    LiveCamera live(true);
    ASSERT_TRUE(live.enc.start()) << live.enc.error();
    ASSERT_TRUE(live.cam.start()) << live.cam.error();
    const std::string port = std::to_string(live.cam.port());
    cgtest::Process p;
    EXPECT_EQ(
        run(p, {"--port", port, "--no-proc", "--viewers", "1", "--duration", "1", "--timeout-ms", "400", "--json"}), 1);
    EXPECT_NE(p.out().find("\"ok\": false"), std::string::npos) << p.out();
    EXPECT_NE(p.out().find("viewer 0 received no frame"), std::string::npos) << p.out();

    // Nothing listens on the port: the login of the viewers fails at once.
    cgtest::Process closed;
    EXPECT_EQ(run(closed, {"--port", std::to_string(cgtest::free_tcp_port()), "--no-proc", "--viewers", "1"}), 1);
    EXPECT_NE(closed.err().find("camgate-load:"), std::string::npos) << closed.err();

    // A process that is not there: no figures, and the run says so.
    cgtest::Process gone;
    EXPECT_EQ(run(gone, {"--port", port, "--pid", "2147483600", "--viewers", "0", "--duration", "0.2"}), 1);
    EXPECT_NE(gone.out().find("was gone at the end"), std::string::npos) << gone.out();

    // Only this machine, and only sensible numbers.
    for (const std::vector<std::string> &args : {std::vector<std::string>{"--host", "192.0.2.1", "--no-proc"},
                                                 {"--viewers", "-1", "--no-proc"},
                                                 {"--duration", "0", "--no-proc"},
                                                 {"--bogus"}}) {
        cgtest::Process bad;
        EXPECT_EQ(run(bad, args), 2) << args[0];
        EXPECT_NE(bad.err().find("camgate-load --help"), std::string::npos) << bad.err();
    }
}

}  // namespace

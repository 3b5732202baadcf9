// camgate-encoder: the camera's encoder, simulated. Creates the frame cache
// and publishes video, snapshots and audio into it until interrupted.
#include <signal.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/env.h"
#include "common/log.h"
#include "encoder_sim.h"

namespace {

const char kUsage[] =
    "usage: camgate-encoder [options]\n"
    "\n"
    "Creates the camera's shared-memory frame cache and keeps writing into it\n"
    "what the camera's encoder writes: H.264 video streams, a JPEG snapshot and\n"
    "G.711 mu-law audio (8000 Hz), in real time, until SIGINT or SIGTERM; then\n"
    "removes the cache. SIGUSR1 pauses and resumes all writing.\n"
    "\n"
    "  --key KEY               cache key, decimal or 0x-hex (default CAMGATE_SHM_KEY, or 0x888888)\n"
    "  --clip FILE             Annex-B H.264 clip of the next video stream, played in a loop\n"
    "                          (repeat for more streams; default: the 640x360 and 320x180 samples)\n"
    "  --streams N             number of video streams, 1 to 7 (streams without a clip of their\n"
    "                          own play the last clip given, or the main sample)\n"
    "  --synthetic             generated frames instead of clips: not decodable, but each names its\n"
    "                          stream and frame number\n"
    "  --size WxH              picture size of synthetic frames (default 640x360)\n"
    "  --fps N                 frame rate of synthetic frames, and of clips that carry none (default 25)\n"
    "  --gop N                 synthetic frames from one I-frame to the next (default 50)\n"
    "  --kbps N                bit rate of synthetic streams in kbit/s: frames are sized so that a GOP\n"
    "                          carries N kbit/s, an I-frame 8 times a P-frame (default: 24000-byte\n"
    "                          I-frames and 3000-byte P-frames)\n"
    "  --cache-kb K            cache size of every video stream in K (default 2048, sub streams 1024)\n"
    "  --jpeg FILE             snapshot picture (default samples/snapshot-640x360.jpg)\n"
    "  --snapshot-interval MS  time between snapshots (default 1000)\n"
    "  --no-snapshot           no snapshot cache\n"
    "  --no-audio              no audio cache\n"
    "  --tone HZ               frequency of the audio tone (default 1000)\n"
    "  --paused                create the cache, write nothing until SIGUSR1\n"
    "  --frames N              stop writing video after N frames per stream (the cache stays)\n"
    "  --duration S            exit after S seconds\n"
    "  --stats S               print the counters every S seconds (default 10, 0: never)\n"
    "  --help                  this text\n";

[[noreturn]] void usage_error(const std::string &msg)
{
    std::fprintf(stderr, "camgate-encoder: %s\n(camgate-encoder --help lists the options)\n", msg.c_str());
    std::exit(2);
}

long number(const char *opt, const char *text, long min, long max)
{
    char *end = nullptr;
    errno = 0;
    const long v = std::strtol(text, &end, 0);
    if (errno != 0 || end == text || *end != '\0' || v < min || v > max)
        usage_error(std::string(opt) + " wants a number from " + std::to_string(min) + " to " + std::to_string(max) +
                    ", not \"" + text + "\"");
    return v;
}

void print_counters(const encoder::EncoderSim &sim, const encoder::Options &opt, double seconds)
{
    const encoder::Counters c = sim.counters();
    std::string line = "camgate-encoder:";
    char part[160];
    for (size_t i = 0; i < c.video_frames.size(); ++i) {
        std::snprintf(part, sizeof part, " stream %zu %lld frames (%lld I) %.1f fps %.0f kbit/s;", i,
                      static_cast<long long>(c.video_frames[i]), static_cast<long long>(c.video_i_frames[i]),
                      seconds > 0 ? static_cast<double>(c.video_frames[i]) / seconds : 0.0,
                      seconds > 0 ? static_cast<double>(c.video_bytes[i]) * 8.0 / seconds / 1000.0 : 0.0);
        line += part;
    }
    if (opt.audio) {
        std::snprintf(part, sizeof part, " audio %lld frames;", static_cast<long long>(c.audio_frames));
        line += part;
    }
    if (opt.snapshot) {
        std::snprintf(part, sizeof part, " snapshots %lld;", static_cast<long long>(c.snapshots));
        line += part;
    }
    std::snprintf(part, sizeof part, " refused %lld", static_cast<long long>(c.write_errors));
    line += part;
    LOG_BARE("%s", line.c_str());
}

}  // namespace

int main(int argc, char **argv)
{
    log_init_line_buffering();
    encoder::Options opt;
    std::vector<std::string> clips;
    int streams = 0;
    bool synthetic = false;
    int width = 640, height = 360, fps = 25, gop = 50, cache_kb = 0, kbps = 0;
    long duration_s = 0, stats_s = 10;

    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> const char * {
            if (i + 1 >= argc) usage_error(a + " wants a value");
            return argv[++i];
        };
        if (a == "--help" || a == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (a == "--key") {
            opt.key = static_cast<key_t>(number("--key", value(), 1, 0x7FFFFFFF));
        } else if (a == "--clip") {
            clips.push_back(value());
        } else if (a == "--streams") {
            streams = static_cast<int>(number("--streams", value(), 1, 7));
        } else if (a == "--synthetic") {
            synthetic = true;
        } else if (a == "--size") {
            const char *v = value();
            if (std::sscanf(v, "%dx%d", &width, &height) != 2) usage_error(std::string("--size wants WxH, not ") + v);
        } else if (a == "--fps") {
            fps = static_cast<int>(number("--fps", value(), 1, 240));
        } else if (a == "--gop") {
            gop = static_cast<int>(number("--gop", value(), 1, 100000));
        } else if (a == "--kbps") {
            kbps = static_cast<int>(number("--kbps", value(), 16, 1000000));
        } else if (a == "--cache-kb") {
            cache_kb = static_cast<int>(number("--cache-kb", value(), 1, 1 << 20));
        } else if (a == "--jpeg") {
            opt.jpeg = value();
        } else if (a == "--snapshot-interval") {
            opt.snapshot_interval_ms = static_cast<int>(number("--snapshot-interval", value(), 10, 3600000));
        } else if (a == "--no-snapshot") {
            opt.snapshot = false;
        } else if (a == "--no-audio") {
            opt.audio = false;
        } else if (a == "--tone") {
            opt.tone_hz = static_cast<int>(number("--tone", value(), 1, 3999));
        } else if (a == "--paused") {
            opt.start_paused = true;
        } else if (a == "--frames") {
            opt.max_video_frames = number("--frames", value(), 1, 0x7FFFFFFF);
        } else if (a == "--duration") {
            duration_s = number("--duration", value(), 1, 100000000);
        } else if (a == "--stats") {
            stats_s = number("--stats", value(), 0, 86400);
        } else {
            usage_error("unknown option " + a);
        }
    }
    if (synthetic && !clips.empty()) usage_error("--synthetic and --clip exclude each other");

    // Streams: the clips given, or the two samples; --streams adds or drops streams.
    std::vector<encoder::VideoStream> video = encoder::sample_streams();
    if (!clips.empty()) {
        video.clear();
        for (const std::string &clip : clips) {
            encoder::VideoStream vs;
            vs.clip = clip;
            video.push_back(vs);
        }
    }
    if (streams == 0) streams = static_cast<int>(video.size());
    const encoder::VideoStream extra = clips.empty() ? encoder::sample_streams()[0] : video.back();
    while (static_cast<int>(video.size()) < streams) video.push_back(extra);
    video.resize(static_cast<size_t>(streams));
    for (encoder::VideoStream &vs : video) {
        if (synthetic) vs.clip.clear();
        vs.fps = fps;
        if (synthetic) {
            vs.width = width;
            vs.height = height;
            vs.gop = gop;
            if (kbps > 0) encoder::size_for_bitrate(&vs, kbps);
        }
        if (cache_kb > 0) vs.cache_kb = cache_kb;
    }
    opt.video = video;

    // Signals are taken by sigtimedwait in this thread only.
    sigset_t sigs;
    sigemptyset(&sigs);
    sigaddset(&sigs, SIGINT);
    sigaddset(&sigs, SIGTERM);
    sigaddset(&sigs, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &sigs, nullptr);

    encoder::EncoderSim sim(opt);
    if (!sim.start()) {
        std::fprintf(stderr, "camgate-encoder: %s\n", sim.error().c_str());
        return 1;
    }
    for (int i = 0; i < streams; ++i) {
        const encoder::StreamInfo si = sim.stream_info(i);
        const encoder::VideoStream &vs = opt.video[static_cast<size_t>(i)];
        LOG_BARE("camgate-encoder: stream %d: H.264 %dx%d %d fps %d kbit/s, %s, cache %d K", i, si.width, si.height,
                 si.fps, si.kbps, vs.clip.empty() ? "synthetic frames" : vs.clip.c_str(), vs.cache_kb);
    }
    if (opt.snapshot) LOG_BARE("camgate-encoder: snapshot: %s every %d ms", opt.jpeg.c_str(), opt.snapshot_interval_ms);
    if (opt.audio)
        LOG_BARE("camgate-encoder: audio: G.711 mu-law 8000 Hz, %d ms frames, %d Hz tone", opt.audio_frame_ms,
                 opt.tone_hz);
    LOG_BARE("camgate-encoder: cache key 0x%x %s", static_cast<unsigned>(env_shm_key()),
             opt.start_paused ? "created, paused" : "created, writing");

    timespec start{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    auto elapsed = [&start]() {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<double>(now.tv_sec - start.tv_sec) + (now.tv_nsec - start.tv_nsec) / 1e9;
    };
    bool paused = opt.start_paused;
    double next_stats = static_cast<double>(stats_s);
    for (;;) {
        const double now = elapsed();
        if (duration_s > 0 && now >= static_cast<double>(duration_s)) break;
        double wait = 1.0;
        if (duration_s > 0) wait = std::min(wait, static_cast<double>(duration_s) - now);
        if (stats_s > 0) wait = std::min(wait, next_stats - now);
        if (wait < 0.001) wait = 0.001;
        timespec ts{};
        ts.tv_sec = static_cast<time_t>(wait);
        ts.tv_nsec = static_cast<long>((wait - static_cast<double>(ts.tv_sec)) * 1e9);
        const int sig = sigtimedwait(&sigs, nullptr, &ts);
        if (sig == SIGINT || sig == SIGTERM) break;
        if (sig == SIGUSR1) {
            paused = !paused;
            if (paused)
                sim.pause();
            else
                sim.resume();
            LOG_BARE("camgate-encoder: %s", paused ? "paused" : "writing");
        }
        if (stats_s > 0 && elapsed() >= next_stats) {
            print_counters(sim, opt, elapsed());
            next_stats += static_cast<double>(stats_s);
        }
    }
    sim.stop();
    print_counters(sim, opt, elapsed());
    LOG_BARE("camgate-encoder: cache removed");
    return 0;
}

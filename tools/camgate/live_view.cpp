#include "live_view.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <sstream>

#include "output.h"

namespace camgate {
namespace tool {

namespace {

using Clock = std::chrono::steady_clock;

std::atomic<int> g_signal{0};

void on_signal(int sig)
{
    g_signal = sig;
}

}  // namespace

void catch_stop_signals()
{
    g_signal = 0;
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

int stop_signal()
{
    return g_signal;
}

namespace {

double seconds_since(Clock::time_point t)
{
    return std::chrono::duration<double>(Clock::now() - t).count();
}

struct FileCloser {
    void operator()(FILE *f) const
    {
        if (f != nullptr && f != stdout) std::fclose(f);
    }
};
using File = std::unique_ptr<FILE, FileCloser>;

File open_output(const std::string &path)
{
    if (path == "-") return File(stdout);
    return File(std::fopen(path.c_str(), "wb"));
}

struct Counts {
    long video = 0;
    long i_frames = 0;
    long audio = 0;
    long skipped = 0;  // P-frames before the first I-frame
    long long video_bytes = 0;
    long long audio_bytes = 0;
    unsigned width = 0, height = 0, framerate = 0;
    double first_frame_ms = -1;
};

std::string progress_line(const Counts &c, double secs)
{
    char line[160];
    const double fps = secs > 0 ? c.video / secs : 0;
    const double kbps = secs > 0 ? c.video_bytes * 8.0 / secs / 1000.0 : 0;
    std::snprintf(line, sizeof line, "%6.1f s  frames %ld  %.1f fps  %.0f kbit/s  I-frames %ld  audio frames %ld", secs,
                  c.video, fps, kbps, c.i_frames, c.audio);
    return line;
}

}  // namespace

std::vector<OptionDef> stream_option_defs()
{
    return {
        {"stream", "N", "video stream: 0 the main stream, 1 the sub stream (default 0)"},
        {"channel", "N", "channel, 0 to 63 (default 0)"},
    };
}

std::vector<OptionDef> record_option_defs()
{
    return {
        {"output", "FILE", "write the video there as H.264 (Annex-B, plays with ffplay); - for standard output", 'o'},
        {"audio", "FILE", "write the audio there as raw G.711 mu-law, 8000 Hz mono"},
        {"duration", "SECONDS", "stop after this long (default: until interrupted)"},
        {"frames", "N", "stop after N video frames (default: no limit)"},
        {"json", "", "print the summary as one JSON object"},
    };
}

client::PreviewRequest request_from(const Options &opts, int32_t auth_id)
{
    client::PreviewRequest req;
    req.auth_id = auth_id;
    req.channel = static_cast<uint32_t>(opts.integer("channel", 0, 0, 63));
    req.stream_index = static_cast<uint32_t>(opts.integer("stream", 0, 0, 6));
    return req;
}

RecordOptions record_options_from(const Options &opts, const std::string &name)
{
    RecordOptions r;
    r.output = opts.text("output", "");
    r.audio = opts.text("audio", "");
    r.duration = opts.number("duration", 0, 0, 86400 * 365);
    r.frames = opts.integer("frames", 0, 0, 1000000000);
    r.json = opts.has("json");
    r.name = name;
    if (r.audio == "-") throw UsageError("--audio needs a file (standard output can carry the video only)");
    if (!r.output.empty() && r.output == r.audio) throw UsageError("--output and --audio name the same file");
    return r;
}

int record_stream(client::PreviewStream &stream, const RecordOptions &opt, Clock::time_point requested)
{
    const std::string prog = "camgate " + opt.name;
    File video, audio;
    if (!opt.output.empty() && !(video = open_output(opt.output))) {
        std::cerr << prog << ": cannot write " << opt.output << ": " << std::strerror(errno) << std::endl;
        return 1;
    }
    if (!opt.audio.empty() && !(audio = open_output(opt.audio))) {
        std::cerr << prog << ": cannot write " << opt.audio << ": " << std::strerror(errno) << std::endl;
        return 1;
    }
    // The summary goes to standard output unless the video does.
    std::ostream &out = opt.output == "-" ? std::cerr : std::cout;
    const bool tty = isatty(STDERR_FILENO) != 0;
    catch_stop_signals();  // the recording ends at the next frame

    Counts c;
    client::MediaFrame frame;
    std::string ended;   // why the stream ended before the recording did
    std::string failed;  // a file that could not be written
    double next_progress = tty ? 0.5 : 1.0;
    bool progress_shown = false;
    for (;;) {
        if (g_signal != 0) break;
        if (opt.duration > 0 && seconds_since(requested) >= opt.duration) break;
        if (opt.frames > 0 && c.video >= opt.frames) break;
        try {
            stream.next(frame);
        } catch (const client::Error &e) {
            if (g_signal == 0) ended = e.what();
            break;
        }
        if (frame.video()) {
            if (frame.kind == client::MediaFrame::Kind::VideoI) {
                ++c.i_frames;
                if (c.first_frame_ms < 0) {
                    c.first_frame_ms = std::chrono::duration<double, std::milli>(Clock::now() - requested).count();
                    c.width = frame.width;
                    c.height = frame.height;
                    c.framerate = frame.framerate;
                }
            } else if (c.i_frames == 0) {
                ++c.skipped;  // a decoder needs the I-frame first
                continue;
            }
            ++c.video;
            c.video_bytes += static_cast<long long>(frame.data.size());
            if (video && std::fwrite(frame.data.data(), 1, frame.data.size(), video.get()) != frame.data.size()) {
                failed = opt.output;
                break;
            }
        } else {
            ++c.audio;
            c.audio_bytes += static_cast<long long>(frame.data.size());
            if (audio && std::fwrite(frame.data.data(), 1, frame.data.size(), audio.get()) != frame.data.size()) {
                failed = opt.audio;
                break;
            }
        }
        const double secs = seconds_since(requested);
        if (secs >= next_progress) {
            next_progress = secs + (tty ? 0.5 : 1.0);
            if (tty)
                std::cerr << "\r" << progress_line(c, secs) << "\033[K" << std::flush;
            else
                std::cerr << progress_line(c, secs) << std::endl;
            progress_shown = true;
        }
    }
    const double secs = seconds_since(requested);
    if (tty && progress_shown) std::cerr << "\r" << progress_line(c, secs) << "\033[K" << std::endl;
    if (video && std::fflush(video.get()) != 0 && failed.empty()) failed = opt.output;
    if (audio && std::fflush(audio.get()) != 0 && failed.empty()) failed = opt.audio;

    const double fps = secs > 0 ? c.video / secs : 0;
    const double kbps = secs > 0 ? c.video_bytes * 8.0 / secs / 1000.0 : 0;
    const char *why = !failed.empty()       ? "write failed"
                      : !ended.empty()      ? "stream ended"
                      : g_signal == SIGINT  ? "interrupted"
                      : g_signal == SIGTERM ? "terminated"
                                            : "done";
    if (opt.json) {
        JsonObject j;
        j.add("session_id", static_cast<long long>(stream.session_id()))
            .add("stream", static_cast<long long>(stream.camera_request().stream_index))
            .add("seconds", secs)
            .add("frames", static_cast<long long>(c.video))
            .add("i_frames", static_cast<long long>(c.i_frames))
            .add("audio_frames", static_cast<long long>(c.audio))
            .add("video_bytes", c.video_bytes)
            .add("audio_bytes", c.audio_bytes)
            .add("fps", fps)
            .add("kbps", kbps)
            .add("width", static_cast<long long>(c.width))
            .add("height", static_cast<long long>(c.height))
            .add("framerate", static_cast<long long>(c.framerate))
            .add("first_frame_ms", c.first_frame_ms)
            .add("skipped_before_i_frame", static_cast<long long>(c.skipped))
            .add("end", why);
        if (!ended.empty()) j.add("error", ended);
        out << j.str() << std::endl;
    } else {
        char line[200];
        std::snprintf(line, sizeof line,
                      "%ld video frames (%ld I-frames) and %ld audio frames in %.1f s: %.1f fps, %.0f kbit/s", c.video,
                      c.i_frames, c.audio, secs, fps, kbps);
        out << line << "\n";
        if (c.first_frame_ms >= 0) {
            std::snprintf(line, sizeof line, "picture %ux%u at %u fps; first I-frame %.1f ms after the request",
                          c.width, c.height, c.framerate, c.first_frame_ms);
            out << line << "\n";
        } else {
            out << "no I-frame received\n";
        }
        if (video && opt.output != "-") out << "video written to " << opt.output << " (H.264, Annex-B)\n";
        if (audio) out << "audio written to " << opt.audio << " (G.711 mu-law, 8000 Hz)\n";
        out << std::flush;
    }
    if (!failed.empty()) {
        std::cerr << prog << ": cannot write " << failed << ": " << std::strerror(errno) << std::endl;
        return 1;
    }
    if (!ended.empty()) {
        std::cerr << prog << ": the stream ended after " << c.video << " video frames: " << ended << std::endl;
        return 1;
    }
    return 0;
}

}  // namespace tool
}  // namespace camgate

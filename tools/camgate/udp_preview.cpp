// camgate udp-preview: ask for a UDP preview, keep it alive with heartbeats,
// put the key frames together from their chunks and report them.
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "client/client.h"
#include "client/media.h"
#include "command.h"
#include "live_view.h"
#include "output.h"

namespace camgate {
namespace tool {

namespace {

using Clock = std::chrono::steady_clock;

std::vector<OptionDef> udp_preview_options()
{
    std::vector<OptionDef> defs = connection_options();
    for (const OptionDef &d : stream_option_defs()) defs.push_back(d);
    defs.push_back(
        {"output", "FILE", "append each new key frame there (H.264, Annex-B); repeats are not written", 'o'});
    defs.push_back({"duration", "SECONDS", "stop after this long (default: until interrupted)"});
    defs.push_back({"heartbeat", "SECONDS", "time between heartbeats (default 3; the camera waits about 12 s)"});
    defs.push_back({"multicast", "", "ask for a multicast preview (the camera accepts it and sends nothing)"});
    defs.push_back({"json", "", "print the summary as one JSON object"});
    return defs;
}

std::string progress_line(const client::UdpPreview::Stats &s, long distinct, double secs)
{
    char line[160];
    std::snprintf(line, sizeof line, "%6.1f s  datagrams %lld  key frames %lld whole, %lld incomplete, %ld different",
                  secs, static_cast<long long>(s.datagrams), static_cast<long long>(s.whole),
                  static_cast<long long>(s.cut), distinct);
    return line;
}

int run_udp_preview(const Options &opts)
{
    const Target t = target_from(opts);
    const double duration = opts.number("duration", 0, 0, 86400 * 365);
    const double heartbeat_s = opts.number("heartbeat", 3, 0.1, 10);
    const std::string output = opts.text("output", "");
    const bool json = opts.has("json");
    catch_stop_signals();

    client::Session session = login_to(t);
    client::PreviewRequest req = request_from(opts, session.info().session_id);
    req.protocol = opts.has("multicast") ? PROTOCOL_TYPE_MULTICAST : PROTOCOL_TYPE_UDP;
    const auto start = Clock::now();
    client::UdpPreview udp(t.host, t.port, req, t.timeout_ms);
    std::cerr << "UDP preview session " << hex_id(udp.session_id()) << " on " << t.host << ":" << t.port << ", stream "
              << req.stream_index << std::endl;

    FILE *out_file = nullptr;
    if (!output.empty() && (out_file = std::fopen(output.c_str(), "wb")) == nullptr) {
        std::cerr << "camgate udp-preview: cannot write " << output << ": " << std::strerror(errno) << std::endl;
        udp.stop();
        session.logout();
        return 1;
    }
    const bool tty = isatty(STDERR_FILENO) != 0;
    client::UdpFrame frame;
    std::vector<uint8_t> last_saved;
    long distinct = 0;
    size_t frame_size = 0;
    double first_frame_ms = -1;
    auto next_heartbeat =
        start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(heartbeat_s));
    double next_progress = 1.0;
    bool write_failed = false;
    for (;;) {
        const double secs = std::chrono::duration<double>(Clock::now() - start).count();
        if (stop_signal() != 0 || (duration > 0 && secs >= duration)) break;
        if (Clock::now() >= next_heartbeat) {
            udp.heartbeat();
            session.heartbeat();
            next_heartbeat += std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(heartbeat_s));
        }
        if (secs >= next_progress) {
            next_progress = secs + 1.0;
            std::cerr << (tty ? "\r" : "") << progress_line(udp.stats(), distinct, secs) << (tty ? "\033[K" : "\n")
                      << std::flush;
        }
        if (!udp.next(frame, 100) || !frame.whole) continue;
        if (first_frame_ms < 0)
            first_frame_ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
        frame_size = frame.data.size();
        if (frame.data == last_saved) continue;
        ++distinct;
        last_saved = frame.data;
        if (out_file != nullptr && std::fwrite(frame.data.data(), 1, frame.data.size(), out_file) != frame.data.size())
            write_failed = true;
    }
    const double secs = std::chrono::duration<double>(Clock::now() - start).count();
    if (tty) std::cerr << "\r" << progress_line(udp.stats(), distinct, secs) << "\033[K" << std::endl;
    if (out_file != nullptr && std::fclose(out_file) != 0) write_failed = true;
    const int stopped = udp.stop();
    session.logout();

    const client::UdpPreview::Stats &s = udp.stats();
    if (json) {
        std::cout << JsonObject()
                         .add("session_id", static_cast<long long>(udp.session_id()))
                         .add("seconds", secs)
                         .add("datagrams", static_cast<long long>(s.datagrams))
                         .add("whole_frames", static_cast<long long>(s.whole))
                         .add("incomplete_frames", static_cast<long long>(s.cut))
                         .add("different_frames", static_cast<long long>(distinct))
                         .add("frame_bytes", static_cast<long long>(frame_size))
                         .add("first_frame_ms", first_frame_ms)
                         .add("stop_result", static_cast<long long>(stopped))
                         .str()
                  << std::endl;
    } else {
        char line[200];
        std::snprintf(line, sizeof line,
                      "%lld datagrams in %.1f s: %lld whole key frames (%.0f a second), %lld incomplete, %ld different",
                      static_cast<long long>(s.datagrams), secs, static_cast<long long>(s.whole),
                      secs > 0 ? s.whole / secs : 0.0, static_cast<long long>(s.cut), distinct);
        std::cout << line << "\n";
        if (first_frame_ms >= 0) {
            std::snprintf(line, sizeof line, "key frame of %zu bytes; first one whole %.1f ms after the request",
                          frame_size, first_frame_ms);
            std::cout << line << "\n";
        }
        if (out_file != nullptr) std::cout << distinct << " key frames written to " << output << "\n";
        std::cout << "session stopped (" << stopped << ")" << std::endl;
    }
    if (write_failed) {
        std::cerr << "camgate udp-preview: cannot write " << output << std::endl;
        return 1;
    }
    if (s.whole == 0) {
        std::cerr << "camgate udp-preview: no whole key frame arrived"
                  << (udp.session_id() == -1 ? " (a multicast preview is accepted but never sent)" : "") << std::endl;
        return 1;
    }
    return 0;
}

}  // namespace

Command udp_preview_command()
{
    return {"udp-preview",
            "receive the newest key frame over UDP, again and again",
            "camgate udp-preview [options]",
            "Logs in and asks for a UDP preview of --stream: the camera then sends the\n"
            "newest key frame, over and over, in 1 KB datagrams. The key frames are put\n"
            "together and counted; -o appends each new one to a file. Heartbeats keep the\n"
            "preview and the login alive; at the end the preview is stopped and the\n"
            "session logged out. Exits with status 1 when no whole key frame arrived.",
            udp_preview_options,
            run_udp_preview};
}

}  // namespace tool
}  // namespace camgate

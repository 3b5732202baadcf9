// The reports of a load run: lines for a person, or one JSON object.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "load.h"

namespace load {

namespace {

// Figures derived from a run, shared by both reports.
struct Figures {
    Summary first_frame, probes, latency, steady, catch_up, control_latency, heartbeat, network, time;
    int64_t frames_min = 0, frames_max = 0, bytes = 0, video_frames = 0, audio_frames = 0, control_requests = 0;
    double frames_mean = 0, mbit_per_viewer = 0, control_rate = 0;
    bool have_cpu = false;
    double cpu_s = 0, cpu_percent = 0, cpu_ns_per_byte = 0;
    long rss_start = 0, rss_end = 0, rss_max = 0, hwm = 0;
    ProcSample first, last;    // memory at the start and at the end
    double wakeups_per_s = 0;  // voluntary context switches of the daemon's threads, start to stop
    double preempted_per_s = 0;
    int threads_start = 0, threads_max = 0, threads_end = 0;
};

Figures figures(const Result &r)
{
    Figures f;
    std::vector<double> first, latency, steady, catch_up, control, heartbeat, network, time;
    for (const ViewerResult &v : r.viewers) {
        if (v.started && v.video_frames > 0) first.push_back(v.first_frame_ms);
        latency.insert(latency.end(), v.latency_ms.begin(), v.latency_ms.end());
        steady.insert(steady.end(), v.steady_latency_ms.begin(), v.steady_latency_ms.end());
        if (v.caught_up_ms >= 0) catch_up.push_back(v.caught_up_ms);
        f.bytes += v.bytes;
        f.video_frames += v.video_frames;
        f.audio_frames += v.audio_frames;
    }
    if (!r.viewers.empty()) {
        auto by_frames = [](const ViewerResult &a, const ViewerResult &b) { return a.video_frames < b.video_frames; };
        f.frames_min = std::min_element(r.viewers.begin(), r.viewers.end(), by_frames)->video_frames;
        f.frames_max = std::max_element(r.viewers.begin(), r.viewers.end(), by_frames)->video_frames;
        f.frames_mean = static_cast<double>(f.video_frames) / static_cast<double>(r.viewers.size());
        if (r.elapsed_s > 0)
            f.mbit_per_viewer =
                static_cast<double>(f.bytes) * 8 / 1e6 / r.elapsed_s / static_cast<double>(r.viewers.size());
    }
    for (const ControlResult &c : r.controls) {
        control.insert(control.end(), c.latency_ms.begin(), c.latency_ms.end());
        heartbeat.insert(heartbeat.end(), c.heartbeat_ms.begin(), c.heartbeat_ms.end());
        network.insert(network.end(), c.network_ms.begin(), c.network_ms.end());
        time.insert(time.end(), c.time_ms.begin(), c.time_ms.end());
        f.control_requests += c.requests;
    }
    if (r.elapsed_s > 0) f.control_rate = static_cast<double>(f.control_requests) / r.elapsed_s;
    f.first_frame = summarize(first);
    f.probes = summarize(r.probe_ms);
    f.latency = summarize(latency);
    f.steady = summarize(steady);
    f.catch_up = summarize(catch_up);
    f.control_latency = summarize(control);
    f.heartbeat = summarize(heartbeat);
    f.network = summarize(network);
    f.time = summarize(time);
    if (r.proc.size() >= 2) {
        const ProcSample &a = r.proc.front();
        const ProcSample &b = r.proc.back();
        f.have_cpu = true;
        f.cpu_s = b.cpu_s - a.cpu_s;
        const double span = b.t_s - a.t_s;
        f.cpu_percent = span > 0 ? 100.0 * f.cpu_s / span : 0;
        f.cpu_ns_per_byte = f.bytes > 0 ? f.cpu_s * 1e9 / static_cast<double>(f.bytes) : 0;
        f.first = a;
        f.last = b;
        const double run_s = r.at_stop.t_s - a.t_s;
        if (run_s > 0) {
            f.wakeups_per_s = static_cast<double>(r.at_stop.voluntary_switches - a.voluntary_switches) / run_s;
            f.preempted_per_s = static_cast<double>(r.at_stop.involuntary_switches - a.involuntary_switches) / run_s;
        }
        f.rss_start = a.rss_kb;
        f.rss_end = b.rss_kb;
        f.hwm = b.hwm_kb;
        f.threads_start = a.threads;
        f.threads_end = b.threads;
        for (const ProcSample &s : r.proc) {
            f.rss_max = std::max(f.rss_max, s.rss_kb);
            f.threads_max = std::max(f.threads_max, s.threads);
        }
    }
    return f;
}

std::string fmt(const char *format, double v)
{
    char buf[64];
    std::snprintf(buf, sizeof buf, format, v);
    return buf;
}

std::string summary_text(const Summary &s, const char *unit = "ms")
{
    if (s.count == 0) return "-";
    return "median " + fmt("%.2f", s.median) + " " + unit + ", p99 " + fmt("%.2f", s.p99) + " " + unit + ", max " +
           fmt("%.2f", s.max) + " " + unit + " (" + std::to_string(s.count) + ")";
}

std::string json_string(const std::string &s)
{
    std::string out = "\"";
    for (const char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\u%04x", static_cast<unsigned char>(c));
            out += esc;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string json_number(double v)
{
    return fmt("%.6g", v);
}

std::string json_summary(const Summary &s)
{
    return "{\"count\": " + std::to_string(s.count) + ", \"median\": " + json_number(s.median) +
           ", \"p99\": " + json_number(s.p99) + ", \"max\": " + json_number(s.max) + "}";
}

}  // namespace

std::string text_report(const Result &r)
{
    const Config &c = r.config;
    const Figures f = figures(r);
    std::string out;
    out += "camgate-load: " + std::to_string(c.viewers) + " viewer(s) of stream " + std::to_string(c.stream) + ", " +
           std::to_string(c.controls) + " control client(s), " + fmt("%.1f", r.elapsed_s) + " s against " + c.host +
           ":" + std::to_string(c.port) + "\n";
    if (c.probes > 0) out += "first frame (probes, one at a time)  " + summary_text(f.probes) + "\n";
    if (c.viewers > 0) {
        out += "first frame (viewers at start)      " + summary_text(f.first_frame) + "\n";
        out += "frame age on arrival, all frames    " + summary_text(f.latency) + "\n";
        out += "  after catching up                 " + summary_text(f.steady) + "\n";
        out += "  caught up after                   " + summary_text(f.catch_up) + "\n";
        out += "video frames per viewer             mean " + fmt("%.1f", f.frames_mean) + " (min " +
               std::to_string(f.frames_min) + ", max " + std::to_string(f.frames_max) + "), audio frames " +
               std::to_string(f.audio_frames) + " in all\n";
        out += "bytes delivered                     " + fmt("%.2f", static_cast<double>(f.bytes) / 1e6) + " MB, " +
               fmt("%.2f", f.mbit_per_viewer) + " Mbit/s per viewer\n";
        for (size_t i = 0; i < r.viewers.size(); ++i)
            if (!r.viewers[i].error.empty())
                out += "  viewer " + std::to_string(i) + " ended early: " + r.viewers[i].error + "\n";
    }
    if (c.controls > 0) {
        out += "control requests                    " + fmt("%.1f", f.control_rate) + " per s, latency " +
               summary_text(f.control_latency) + "\n";
        out += "  heartbeat                         " + summary_text(f.heartbeat) + "\n";
        out += "  get network                       " + summary_text(f.network) + "\n";
        out += "  get time                          " + summary_text(f.time) + "\n";
        for (size_t i = 0; i < r.controls.size(); ++i)
            if (!r.controls[i].error.empty())
                out += "  control client " + std::to_string(i) + ": " + r.controls[i].error + "\n";
    }
    if (f.have_cpu) {
        out += "daemon (pid " + std::to_string(c.pid) + ") CPU " + fmt("%.2f", f.cpu_s) + " s, " +
               fmt("%.2f", f.cpu_percent) + " % of a core";
        if (f.bytes > 0) out += ", " + fmt("%.2f", f.cpu_ns_per_byte) + " ns per byte delivered";
        out += "\n";
        out += "daemon memory                       RSS " + std::to_string(f.rss_start) + " KB at start, " +
               std::to_string(f.rss_end) + " KB at end, " + std::to_string(f.rss_max) + " KB sampled peak; VmHWM " +
               std::to_string(f.hwm) + " KB (peak of its whole life)\n";
        out += "  own (RssAnon)                     " + std::to_string(f.first.anon_kb) + " KB at start, " +
               std::to_string(f.last.anon_kb) + " KB at end\n";
        out += "  program and libraries (RssFile)   " + std::to_string(f.first.file_kb) + " KB at start, " +
               std::to_string(f.last.file_kb) + " KB at end\n";
        out += "  frame cache read (RssShmem)       " + std::to_string(f.first.shmem_kb) + " KB at start, " +
               std::to_string(f.last.shmem_kb) + " KB at end\n";
        out += "daemon threads                      " + std::to_string(f.threads_start) + " at start, " +
               std::to_string(f.threads_max) + " at most, " + std::to_string(f.threads_end) + " at end; " +
               fmt("%.0f", f.wakeups_per_s) + " wake-ups a second (voluntary context switches), " +
               fmt("%.0f", f.preempted_per_s) + " preemptions\n";
    } else if (c.pid > 0) {
        out += "daemon (pid " + std::to_string(c.pid) + "): no figures, the process was not readable\n";
    }
    std::string why;
    out += run_ok(r, &why) ? "result: ok\n" : "result: FAILED: " + why + "\n";
    return out;
}

std::string json_report(const Result &r)
{
    const Config &c = r.config;
    const Figures f = figures(r);
    std::string why;
    const bool ok = run_ok(r, &why);
    std::string o = "{";
    o += "\"host\": " + json_string(c.host) + ", \"port\": " + std::to_string(c.port);
    o += ", \"stream\": " + std::to_string(c.stream) + ", \"viewers_requested\": " + std::to_string(c.viewers);
    o += ", \"controls_requested\": " + std::to_string(c.controls) +
         ", \"probes_requested\": " + std::to_string(c.probes);
    o += ", \"duration_s\": " + json_number(c.duration_s) + ", \"elapsed_s\": " + json_number(r.elapsed_s);
    o += ", \"ok\": " + std::string(ok ? "true" : "false") + ", \"problem\": " + json_string(ok ? "" : why);
    o += ",\n \"probe_first_frame_ms\": " + json_summary(f.probes);
    o += ",\n \"first_frame_ms\": " + json_summary(f.first_frame);
    o += ",\n \"frame_age_ms\": " + json_summary(f.latency);
    o += ",\n \"steady_frame_age_ms\": " + json_summary(f.steady);
    o += ",\n \"catch_up_ms\": " + json_summary(f.catch_up);
    o += ",\n \"video_frames\": " + std::to_string(f.video_frames) +
         ", \"audio_frames\": " + std::to_string(f.audio_frames) + ", \"bytes\": " + std::to_string(f.bytes);
    o += ", \"video_frames_per_viewer\": {\"mean\": " + json_number(f.frames_mean) +
         ", \"min\": " + std::to_string(f.frames_min) + ", \"max\": " + std::to_string(f.frames_max) + "}";
    o += ", \"mbit_per_s_per_viewer\": " + json_number(f.mbit_per_viewer);
    o += ",\n \"viewers\": [";
    for (size_t i = 0; i < r.viewers.size(); ++i) {
        const ViewerResult &v = r.viewers[i];
        o += std::string(i ? ",\n  " : "\n  ") + "{\"started\": " + (v.started ? "true" : "false") +
             ", \"first_frame_ms\": " + json_number(v.first_frame_ms) +
             ", \"video_frames\": " + std::to_string(v.video_frames) + ", \"i_frames\": " + std::to_string(v.i_frames) +
             ", \"audio_frames\": " + std::to_string(v.audio_frames) + ", \"bytes\": " + std::to_string(v.bytes) +
             ", \"largest_video\": " + std::to_string(v.largest_video) +
             ", \"largest_audio\": " + std::to_string(v.largest_audio) +
             ", \"caught_up_ms\": " + json_number(v.caught_up_ms) +
             ", \"bad_stamps\": " + std::to_string(v.bad_stamps) + ", \"error\": " + json_string(v.error) + "}";
    }
    o += "]";
    o += ",\n \"control\": {\"clients\": " + std::to_string(r.controls.size()) +
         ", \"requests\": " + std::to_string(f.control_requests) +
         ", \"requests_per_s\": " + json_number(f.control_rate) +
         ", \"latency_ms\": " + json_summary(f.control_latency) +
         ",\n  \"heartbeat_ms\": " + json_summary(f.heartbeat) + ", \"get_network_ms\": " + json_summary(f.network) +
         ", \"get_time_ms\": " + json_summary(f.time) + ", \"errors\": [";
    bool first = true;
    for (const ControlResult &cr : r.controls) {
        if (cr.error.empty()) continue;
        o += (first ? "" : ", ") + json_string(cr.error);
        first = false;
    }
    o += "]}";
    o += ",\n \"daemon\": ";
    if (!f.have_cpu) {
        o += "null";
    } else {
        o += "{\"pid\": " + std::to_string(c.pid) + ", \"cpu_s\": " + json_number(f.cpu_s) +
             ", \"cpu_percent\": " + json_number(f.cpu_percent) +
             ", \"cpu_ns_per_byte\": " + json_number(f.cpu_ns_per_byte) +
             ", \"rss_kb_start\": " + std::to_string(f.rss_start) + ", \"rss_kb_end\": " + std::to_string(f.rss_end) +
             ", \"rss_kb_max\": " + std::to_string(f.rss_max) + ", \"vmhwm_kb\": " + std::to_string(f.hwm) +
             ", \"anon_kb_start\": " + std::to_string(f.first.anon_kb) +
             ", \"anon_kb_end\": " + std::to_string(f.last.anon_kb) +
             ", \"file_kb_start\": " + std::to_string(f.first.file_kb) +
             ", \"file_kb_end\": " + std::to_string(f.last.file_kb) +
             ", \"shmem_kb_start\": " + std::to_string(f.first.shmem_kb) +
             ", \"shmem_kb_end\": " + std::to_string(f.last.shmem_kb) +
             ", \"threads_start\": " + std::to_string(f.threads_start) +
             ", \"wakeups_per_s\": " + json_number(f.wakeups_per_s) +
             ", \"preempted_per_s\": " + json_number(f.preempted_per_s) +
             ", \"threads_max\": " + std::to_string(f.threads_max) +
             ", \"threads_end\": " + std::to_string(f.threads_end) + ",\n  \"samples\": [";
        for (size_t i = 0; i < r.proc.size(); ++i) {
            const ProcSample &s = r.proc[i];
            o += std::string(i ? ", " : "") + "{\"t_s\": " + json_number(s.t_s) +
                 ", \"cpu_s\": " + json_number(s.cpu_s) + ", \"rss_kb\": " + std::to_string(s.rss_kb) +
                 ", \"anon_kb\": " + std::to_string(s.anon_kb) + ", \"threads\": " + std::to_string(s.threads) + "}";
        }
        o += "]}";
    }
    o += "}\n";
    return o;
}

}  // namespace load

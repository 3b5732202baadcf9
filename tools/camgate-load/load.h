// A load run against a running camera daemon: N live viewers (TCP preview)
// and M control clients for a fixed time, with what the viewers and the
// clients saw and what the daemon's process used meanwhile (/proc/<pid>).
//
// Every wait is bounded: connections and reads by the time-out, the run by
// its duration. The camera must be on this machine (a loopback address).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace load {

struct Config {
    std::string host = "127.0.0.1";
    int port = 6258;
    std::string user = "admin";
    std::string password;
    int viewers = 1;
    int stream = 0;    // stream index of every viewer
    int controls = 0;  // control clients
    int probes = 0;    // first-frame probes before the run: open a stream, read its first I-frame, close
    double duration_s = 10;
    int timeout_ms = 3000;  // connection and every read
    pid_t pid = 0;          // the daemon's process (0: none, no process figures)
};

// Median and 99th percentile (nearest rank) of a set of samples, in ms.
struct Summary {
    size_t count = 0;
    double median = 0;
    double p99 = 0;
    double max = 0;
};
Summary summarize(std::vector<double> samples);

struct ViewerResult {
    bool started = false;       // the stream was granted
    double first_frame_ms = 0;  // request sent -> last byte of the first I-frame
    int64_t video_frames = 0;
    int64_t i_frames = 0;
    int64_t audio_frames = 0;
    int64_t bytes = 0;                      // everything received after the request's answer
    int64_t largest_video = 0;              // data bytes of the largest video frame (pages its buffer needs)
    int64_t largest_audio = 0;              // data bytes of the largest audio frame
    double caught_up_ms = -1;               // request -> first frame no older than two frame periods; -1: never
    std::vector<double> latency_ms;         // per video frame: its capture time -> received
    std::vector<double> steady_latency_ms;  // the same, from catching up on
    int64_t bad_stamps = 0;                 // frames stamped in the future (not counted above)
    std::string error;                      // why the stream ended before the run did
};

struct ControlResult {
    bool logged_in = false;
    int64_t requests = 0;
    std::vector<double> latency_ms;  // per request: sent -> whole reply received
    // The same by kind: heartbeat (0x20003), get network (0x30010), get time (0x30001).
    std::vector<double> heartbeat_ms, network_ms, time_ms;
    std::string error;
};

// What /proc says about the daemon; sizes in KB.
struct ProcSample {
    double t_s = 0;  // since the start of the run
    double cpu_s = 0;
    long rss_kb = 0;    // VmRSS: the three below
    long anon_kb = 0;   // RssAnon: the process's own memory (heap, stacks, buffers)
    long file_kb = 0;   // RssFile: program and library pages, shared with other processes
    long shmem_kb = 0;  // RssShmem: pages of the frame cache read so far, shared with the encoder
    long hwm_kb = 0;
    int threads = 0;
    // Context switches of the threads alive now, since each started: a thread
    // gives up the CPU voluntarily each time it sleeps or waits.
    long long voluntary_switches = 0;
    long long involuntary_switches = 0;
};

struct Result {
    Config config;
    double elapsed_s = 0;
    std::vector<double> probe_ms;  // first-frame probes
    std::string probe_error;
    std::vector<ViewerResult> viewers;
    std::vector<ControlResult> controls;
    bool have_proc = false;
    std::string daemon_name;
    std::vector<ProcSample> proc;  // at the start, every second, at the end
    ProcSample at_stop;            // the last sample before the viewers were stopped
};

// The age in ms of a video frame whose pts (capture time in ms on the
// monotonic clock, cut to 16 bits) is pts, received at now_ms on the same
// clock: the 16-bit difference, so valid across the wrap of the pts; -1 for
// a stamp ahead of the clock.
double frame_age_ms(uint16_t pts, double now_ms);

// Read /proc/<pid>/stat and /proc/<pid>/status; false when the process is gone.
bool read_proc(pid_t pid, ProcSample *out);

// The one process whose command name is name; 0 when there is none, -1 when there are several.
pid_t find_process(const std::string &name);

// True for a dotted IPv4 loopback address (127.x.x.x) or "localhost".
bool is_loopback(const std::string &host);

// Run the load; throws camgate::client::Error when the login needed for the
// viewers fails. Viewers and control clients that fail record their error
// and the run goes on.
Result run(const Config &cfg);

// The report, for a person, or as one JSON object.
std::string text_report(const Result &r);
std::string json_report(const Result &r);

// Whether the run did what it was asked: every viewer was granted and
// received at least one frame, every control client logged in and was
// answered at least once, and the daemon was still there at the end.
bool run_ok(const Result &r, std::string *why);

}  // namespace load

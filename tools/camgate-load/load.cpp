#include "load.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include "client/client.h"
#include "client/control.h"
#include "client/media.h"

namespace load {

namespace {

using camgate::client::Connection;
using camgate::client::Error;
using camgate::client::ErrorKind;
using camgate::client::MediaFrame;

constexpr int kRetryMs = 50;         // between attempts of a viewer refused for a full session table
constexpr int kProbeSettleMs = 300;  // after the probes, before the run

double mono_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
}

void sleep_ms(double ms)
{
    if (ms <= 0) return;
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(ms / 1000);
    ts.tv_nsec = static_cast<long>(std::fmod(ms, 1000.0) * 1e6);
    nanosleep(&ts, nullptr);
}

size_t frame_wire_bytes(const MediaFrame &f);

// Count a frame received by viewer v (null for a probe).
void count_frame(const MediaFrame &f, ViewerResult *v)
{
    if (v == nullptr) return;
    v->bytes += static_cast<int64_t>(frame_wire_bytes(f));
    const auto size = static_cast<int64_t>(f.data.size());
    if (f.kind == MediaFrame::Kind::Audio) {
        ++v->audio_frames;
        v->largest_audio = std::max(v->largest_audio, size);
    } else {
        v->largest_video = std::max(v->largest_video, size);
    }
}

size_t frame_wire_bytes(const MediaFrame &f)
{
    switch (f.kind) {
        case MediaFrame::Kind::VideoI:
            return 24 + f.data.size();
        case MediaFrame::Kind::VideoP:
        case MediaFrame::Kind::Audio:
            return 12 + f.data.size();
    }
    return f.data.size();
}

// Ask for a live stream on a new connection; the request's answer read.
// *requested is when the request was sent.
Connection open_stream(const Config &cfg, int32_t auth_id, double *requested)
{
    Connection conn(cfg.host, cfg.port, cfg.timeout_ms);
    const NEW_PP_PERVIEW_REQ req{static_cast<TK_U32>(auth_id), PROTOCOL_TYPE_TCP, 0, static_cast<TK_U32>(cfg.stream)};
    *requested = mono_ms();
    conn.send(TK_CMD_PREVIEW_START, &req, sizeof req);
    NEW_PACKET_HEADER head{};
    conn.receive_exact(&head, sizeof head);
    if (head.magic != TK_PROTO_MAGIC) throw Error(ErrorKind::Protocol, "the answer to a preview request has no magic");
    if (head.cmd != 0)
        throw Error(ErrorKind::Refused, "the preview request was refused (" + std::to_string(head.cmd) + ")", head.cmd);
    int32_t session_id = 0;
    if (head.len != sizeof session_id)
        throw Error(ErrorKind::Protocol, "the answer to a preview request has " + std::to_string(head.len) + " bytes");
    conn.receive_exact(&session_id, sizeof session_id);
    return conn;
}

// open_stream, again every kRetryMs while the camera answers -6 (its 8
// preview sessions are taken, by streams that are just ending) and the
// time-out has not passed.
Connection open_stream_retrying(const Config &cfg, int32_t auth_id, double *requested, const std::atomic<bool> &stop)
{
    const double give_up = mono_ms() + cfg.timeout_ms;
    for (;;) {
        try {
            return open_stream(cfg, auth_id, requested);
        } catch (const Error &e) {
            if (e.kind() != ErrorKind::Refused || e.code() != TK_ERR_REFUSED || mono_ms() >= give_up || stop) throw;
        }
        sleep_ms(kRetryMs);
    }
}

// Read frames until the first I-frame; the time from the request to its last byte.
double read_first_i_frame(Connection &conn, double requested, MediaFrame &f, ViewerResult *v)
{
    for (;;) {
        camgate::client::read_frame(conn, f);
        count_frame(f, v);
        if (f.kind == MediaFrame::Kind::VideoI) return mono_ms() - requested;
    }
}

struct Viewer {
    std::thread thread;
    std::atomic<int> fd{-1};  // shut down by the run to end the stream
    ViewerResult result;
};

void run_viewer(const Config &cfg, int32_t auth_id, Viewer *self, const std::atomic<bool> &stop)
{
    ViewerResult &v = self->result;
    const double frame_period_ms = 1000.0 / 25;
    try {
        double requested = 0;
        Connection conn = open_stream_retrying(cfg, auth_id, &requested, stop);
        self->fd = conn.fd();
        v.started = true;
        if (stop) return;
        MediaFrame f;
        v.first_frame_ms = read_first_i_frame(conn, requested, f, &v);
        double period = frame_period_ms;
        if (f.framerate > 0) period = 1000.0 / f.framerate;
        for (;;) {
            if (f.video()) {
                const double now = mono_ms();
                ++v.video_frames;
                if (f.kind == MediaFrame::Kind::VideoI) ++v.i_frames;
                const double age = frame_age_ms(f.pts_msec, now);
                if (age < 0) {
                    ++v.bad_stamps;
                } else {
                    v.latency_ms.push_back(age);
                    if (v.caught_up_ms < 0 && age <= 2 * period) v.caught_up_ms = now - requested;
                    if (v.caught_up_ms >= 0) v.steady_latency_ms.push_back(age);
                }
            }
            if (stop) break;
            camgate::client::read_frame(conn, f);
            count_frame(f, &v);
        }
    } catch (const Error &e) {
        if (!stop) v.error = e.what();
    }
    self->fd = -1;
}

void run_control(const Config &cfg, ControlResult *c, const std::atomic<bool> &stop)
{
    try {
        camgate::client::Session s(cfg.host, cfg.port, cfg.timeout_ms);
        s.login(cfg.user, cfg.password);
        c->logged_in = true;
        camgate::client::Control ctl(s);
        auto timed = [&](std::vector<double> &kind, auto &&request) {
            const double t0 = mono_ms();
            request();
            const double ms = mono_ms() - t0;
            c->latency_ms.push_back(ms);
            kind.push_back(ms);
            ++c->requests;
        };
        while (!stop) {
            timed(c->heartbeat_ms, [&] { s.heartbeat(); });
            if (stop) break;
            timed(c->network_ms, [&] { ctl.get_network(); });
            if (stop) break;
            timed(c->time_ms, [&] { ctl.get_time(); });
        }
        s.logout();
    } catch (const Error &e) {
        c->error = e.what();
    }
}

// First-frame probes, one after the other, each at another point of the frame schedule.
void run_probes(const Config &cfg, int32_t auth_id, Result *r)
{
    const std::atomic<bool> never{false};
    MediaFrame f;
    for (int i = 0; i < cfg.probes; ++i) {
        sleep_ms((i * 17) % 40);
        try {
            double requested = 0;
            Connection conn = open_stream_retrying(cfg, auth_id, &requested, never);
            r->probe_ms.push_back(read_first_i_frame(conn, requested, f, nullptr));
        } catch (const Error &e) {
            r->probe_error = e.what();
            return;
        }
    }
}

bool read_text(const std::string &path, std::string *out)
{
    std::ifstream in(path);
    if (!in) return false;
    std::ostringstream ss;
    ss << in.rdbuf();
    *out = ss.str();
    return true;
}

long status_field(const std::string &status, const char *field)
{
    const size_t at = status.find(std::string("\n") + field + ":");
    if (at == std::string::npos) return 0;
    return std::strtol(status.c_str() + at + std::strlen(field) + 2, nullptr, 10);
}

}  // namespace

double frame_age_ms(uint16_t pts, double now_ms)
{
    const auto now16 = static_cast<uint16_t>(static_cast<uint64_t>(now_ms) & 0xFFFF);
    const auto age = static_cast<uint16_t>(now16 - pts);
    return age >= 0x8000 ? -1.0 : static_cast<double>(age);
}

Summary summarize(std::vector<double> samples)
{
    Summary s;
    s.count = samples.size();
    if (samples.empty()) return s;
    std::sort(samples.begin(), samples.end());
    const size_t n = samples.size();
    s.median = n % 2 ? samples[n / 2] : (samples[n / 2 - 1] + samples[n / 2]) / 2;
    // Nearest rank: the smallest sample with at least 99 % of the samples at or below it.
    const auto rank = static_cast<size_t>(std::ceil(0.99 * static_cast<double>(n)));
    s.p99 = samples[std::max<size_t>(rank, 1) - 1];
    s.max = samples.back();
    return s;
}

bool read_proc(pid_t pid, ProcSample *out)
{
    const std::string dir = "/proc/" + std::to_string(pid);
    std::string stat, status;
    if (!read_text(dir + "/stat", &stat) || !read_text(dir + "/status", &status)) return false;
    // The command name may hold blanks and parentheses: the fields start after the last ')'.
    const size_t close = stat.rfind(')');
    if (close == std::string::npos) return false;
    std::istringstream fields(stat.substr(close + 2));
    std::vector<std::string> f;
    for (std::string w; fields >> w;) f.push_back(w);
    // f[0] is field 3 (state): utime is field 14, stime 15, num_threads 20.
    if (f.size() < 18 || f[0] == "Z") return false;
    const double tick = static_cast<double>(sysconf(_SC_CLK_TCK));
    out->cpu_s = (std::stod(f[11]) + std::stod(f[12])) / tick;
    out->threads = std::stoi(f[17]);
    out->voluntary_switches = out->involuntary_switches = 0;
    if (DIR *tasks = opendir((dir + "/task").c_str())) {
        while (dirent *e = readdir(tasks)) {
            std::string task;
            if (e->d_name[0] == '.' || !read_text(dir + "/task/" + e->d_name + "/status", &task)) continue;
            out->voluntary_switches += status_field(task, "voluntary_ctxt_switches");
            out->involuntary_switches += status_field(task, "nonvoluntary_ctxt_switches");
        }
        closedir(tasks);
    }
    out->rss_kb = status_field(status, "VmRSS");
    out->anon_kb = status_field(status, "RssAnon");
    out->file_kb = status_field(status, "RssFile");
    out->shmem_kb = status_field(status, "RssShmem");
    out->hwm_kb = status_field(status, "VmHWM");
    return true;
}

pid_t find_process(const std::string &name)
{
    DIR *d = opendir("/proc");
    if (d == nullptr) return 0;
    pid_t found = 0;
    while (dirent *e = readdir(d)) {
        char *end = nullptr;
        const long pid = std::strtol(e->d_name, &end, 10);
        if (end == e->d_name || *end != '\0' || pid <= 0) continue;
        std::string comm;
        if (!read_text(std::string("/proc/") + e->d_name + "/comm", &comm)) continue;
        if (!comm.empty() && comm.back() == '\n') comm.pop_back();
        if (comm != name) continue;
        if (found != 0) {
            found = -1;
            break;
        }
        found = static_cast<pid_t>(pid);
    }
    closedir(d);
    return found;
}

bool is_loopback(const std::string &host)
{
    if (host == "localhost") return true;
    in_addr a{};
    return inet_pton(AF_INET, host.c_str(), &a) == 1 && (ntohl(a.s_addr) >> 24) == 127;
}

Result run(const Config &cfg)
{
    Result r;
    r.config = cfg;
    const double t0 = mono_ms();
    auto sample = [&](bool force) {
        if (cfg.pid <= 0) return;
        ProcSample s;
        if (read_proc(cfg.pid, &s)) {
            s.t_s = (mono_ms() - t0) / 1000.0;
            r.proc.push_back(s);
            r.have_proc = true;
        } else if (force) {
            r.have_proc = false;  // gone by the end
        }
    };

    // The viewers' requests name a login, as a client's do; the stream does not depend on it afterwards.
    int32_t auth_id = 0;
    if (cfg.viewers > 0 || cfg.probes > 0) {
        camgate::client::Session s(cfg.host, cfg.port, cfg.timeout_ms);
        auth_id = s.login(cfg.user, cfg.password).session_id;
        s.logout();
    }
    if (cfg.probes > 0) {
        run_probes(cfg, auth_id, &r);
        // The daemon ends a probe's stream at its next send (within a frame
        // period or two): let it, so the run starts from a daemon at rest.
        sleep_ms(kProbeSettleMs);
    }

    std::atomic<bool> stop{false};
    const double start = mono_ms();
    sample(true);
    std::vector<std::unique_ptr<Viewer>> viewers;
    for (int i = 0; i < cfg.viewers; ++i) {
        viewers.push_back(std::make_unique<Viewer>());
        Viewer *v = viewers.back().get();
        v->thread = std::thread([&cfg, auth_id, v, &stop] { run_viewer(cfg, auth_id, v, stop); });
    }
    r.controls.resize(static_cast<size_t>(cfg.controls));
    std::vector<std::thread> controls;
    for (ControlResult &c : r.controls) controls.emplace_back([&cfg, &c, &stop] { run_control(cfg, &c, stop); });

    const double end = start + cfg.duration_s * 1000.0;
    for (int second = 1;; ++second) {
        const double next = std::min(end, start + second * 1000.0);
        sleep_ms(next - mono_ms());
        sample(false);
        if (mono_ms() >= end) {
            if (!r.proc.empty()) r.at_stop = r.proc.back();
            break;
        }
    }
    stop = true;
    // A viewer blocked in a read ends when its socket is shut down; control clients finish their request.
    for (auto &v : viewers) {
        const int fd = v->fd.load();
        if (fd >= 0) shutdown(fd, SHUT_RDWR);
    }
    for (auto &v : viewers) v->thread.join();
    for (std::thread &t : controls) t.join();
    r.elapsed_s = (mono_ms() - start) / 1000.0;
    sample(true);
    for (auto &v : viewers) r.viewers.push_back(std::move(v->result));
    return r;
}

bool run_ok(const Result &r, std::string *why)
{
    for (size_t i = 0; i < r.viewers.size(); ++i) {
        const ViewerResult &v = r.viewers[i];
        if (!v.started || v.video_frames == 0) {
            *why = "viewer " + std::to_string(i) + " received no frame" + (v.error.empty() ? "" : ": " + v.error);
            return false;
        }
        if (!v.error.empty()) {
            *why = "the stream of viewer " + std::to_string(i) + " ended before the run: " + v.error;
            return false;
        }
    }
    for (size_t i = 0; i < r.controls.size(); ++i) {
        const ControlResult &c = r.controls[i];
        if (!c.logged_in || c.requests == 0) {
            *why =
                "control client " + std::to_string(i) + " was not answered" + (c.error.empty() ? "" : ": " + c.error);
            return false;
        }
    }
    if (static_cast<int>(r.probe_ms.size()) < r.config.probes) {
        *why = "a first-frame probe failed: " + r.probe_error;
        return false;
    }
    if (r.config.pid > 0 && !r.have_proc) {
        *why = "the daemon (pid " + std::to_string(r.config.pid) + ") was gone at the end";
        return false;
    }
    return true;
}

}  // namespace load

// camgate_live_reference: the least work a live path can do, as a yardstick
// for the daemon's CPU per delivered byte. It attaches to the same frame
// cache as the daemon, reads each new frame of a video stream once
// (shm_cache_read_frame, walking the serials from the I-frame that opens the
// newest GOP, as the daemon's video loop does) and writes it, behind the
// same 24- or 12-byte header, to N loopback TCP connections, whose other
// ends a drain thread reads and throws away. With --audio the audio cache is
// walked likewise (12-byte headers). No pacing: a frame goes out as soon as
// it is read, and the sender sleeps until the next frame is due (its
// timestamp is on the monotonic clock) instead of polling.
//
// It reports the bytes delivered and the CPU time of the sending thread
// alone (CLOCK_THREAD_CPUTIME_ID; the drain stands for the viewers, whose
// cost the daemon's figure does not include either).
//
//   camgate_live_reference --key 0x43470001 --sockets 8 --duration 30 [--audio] [--json]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "common/tk_proto.h"
#include "media/frame_buffer.h"
#include "media/shm_cache.h"

namespace {

constexpr int kBufSize = 3145728;
constexpr int kHeaderRoom = 24;

[[noreturn]] void usage(const std::string &msg)
{
    std::fprintf(stderr,
                 "camgate_live_reference: %s\n"
                 "usage: camgate_live_reference --key KEY [--stream I] [--sockets N] [--duration S] [--audio] "
                 "[--json]\n",
                 msg.c_str());
    std::exit(2);
}

// Voluntary context switches of the calling thread: each sleep or wait is one.
long voluntary_switches()
{
    rusage ru{};
    getrusage(RUSAGE_THREAD, &ru);
    return ru.ru_nvcsw;
}

double clock_s(clockid_t id)
{
    timespec ts{};
    clock_gettime(id, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

void sleep_until(double mono_s)
{
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(mono_s);
    ts.tv_nsec = static_cast<long>((mono_s - static_cast<double>(ts.tv_sec)) * 1e9);
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr);
}

bool send_all(int fd, const char *p, size_t n)
{
    while (n > 0) {
        const ssize_t w = send(fd, p, n, MSG_NOSIGNAL);
        if (w <= 0) {
            if (w < 0 && errno == EINTR) continue;
            return false;
        }
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

uint16_t pts_of(double timestamp)
{
    const double ms = timestamp * 1000.0;
    return ms >= 0 && ms < 1.8e19 ? static_cast<uint16_t>(static_cast<unsigned long long>(ms) & 0xFFFF) : 0;
}

// The daemon's framing in front of data: returns the header length (24, 12 or 4).
int put_header(char *data, int type, int fps, int width, int height, double ts, int length)
{
    FRAME_HDR hdr{{0x00, 0x00, 0x01}, TK_FRAME_OTHER};
    if (type == CACHE_FRAME_TYPE_I) {
        IFRAME_INFO info{};
        hdr.type = TK_FRAME_VIDEO_I;
        info.framerate = static_cast<TK_U8>(fps & 0xFF);
        info.pts_msec = pts_of(ts);
        info.pic_width = static_cast<TK_U16>(width);
        info.pic_height = static_cast<TK_U16>(height);
        info.length = static_cast<TK_U32>(length);
        std::memcpy(data - sizeof info, &info, sizeof info);
        std::memcpy(data - sizeof info - sizeof hdr, &hdr, sizeof hdr);
        return static_cast<int>(sizeof hdr + sizeof info);
    }
    if (type == CACHE_FRAME_TYPE_P || type == CACHE_FRAME_TYPE_AUDIO) {
        hdr.type = type == CACHE_FRAME_TYPE_P ? TK_FRAME_VIDEO_P : TK_FRAME_AUDIO;
        PFRAME_INFO info{};
        info.pts_msec = pts_of(ts);
        info.length = static_cast<TK_U32>(length);
        std::memcpy(data - sizeof info, &info, sizeof info);
        std::memcpy(data - sizeof info - sizeof hdr, &hdr, sizeof hdr);
        return static_cast<int>(sizeof hdr + sizeof info);
    }
    std::memcpy(data - sizeof hdr, &hdr, sizeof hdr);
    return static_cast<int>(sizeof hdr);
}

// One cache walked serial by serial.
struct Walk {
    int idx = -1;
    int cur = CACHE_SEL_NEWEST_GOP;  // the serial (or selector) to read next
    int last = -2;                   // the serial sent last
    int start_selector = CACHE_SEL_NEWEST_GOP;
    double period_s = 0.04;
    double next_due = 0;  // monotonic seconds when the next frame should be there
    int64_t frames = 0;
};

}  // namespace

int main(int argc, char **argv)
{
    std::string key;
    int stream = 0, sockets = 8;
    double duration = 10;
    bool audio = false, json = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> const char * {
            if (i + 1 >= argc) usage(a + " wants a value");
            return argv[++i];
        };
        if (a == "--key")
            key = value();
        else if (a == "--stream")
            stream = std::atoi(value());
        else if (a == "--sockets")
            sockets = std::atoi(value());
        else if (a == "--duration")
            duration = std::atof(value());
        else if (a == "--audio")
            audio = true;
        else if (a == "--json")
            json = true;
        else
            usage("unknown option " + a);
    }
    if (key.empty()) usage("--key is needed");
    if (sockets < 1 || sockets > 64) usage("--sockets from 1 to 64");
    if (!(duration > 0 && duration <= 3600)) usage("--duration from 0 to 3600 s");
    setenv("CAMGATE_SHM_KEY", key.c_str(), 1);

    // The cache's writer may still be starting: try for at most 5 s.
    int ret = -1;
    for (int i = 0; i < 50 && (ret = shm_cache_reader_init()) != 0; ++i) usleep(100000);
    if (ret != 0) {
        std::fprintf(stderr, "camgate_live_reference: no frame cache under key %s\n", key.c_str());
        return 1;
    }
    int mediatype = 0, bps = 0, fps = 0, width = 0, height = 0;
    if (shm_cache_get_media_info(stream, &mediatype, &bps, &fps, &width, &height) != 0) {
        std::fprintf(stderr, "camgate_live_reference: stream %d is not in the cache\n", stream);
        return 1;
    }
    if (fps <= 0) fps = 25;

    // N loopback connections: the accepted ends are sent to, the connecting ends drained.
    const int lfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t alen = sizeof addr;
    if (lfd < 0 || bind(lfd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(lfd, 64) != 0 ||
        getsockname(lfd, reinterpret_cast<sockaddr *>(&addr), &alen) != 0) {
        std::perror("camgate_live_reference: listen");
        return 1;
    }
    std::vector<int> out, in;
    for (int i = 0; i < sockets; ++i) {
        const int c = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (c < 0 || connect(c, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
            std::perror("camgate_live_reference: connect");
            return 1;
        }
        const int s = accept(lfd, nullptr, nullptr);
        if (s < 0) {
            std::perror("camgate_live_reference: accept");
            return 1;
        }
        in.push_back(c);
        out.push_back(s);
    }
    close(lfd);

    std::atomic<int64_t> drained{0};
    std::thread drain([&in, &drained] {
        std::vector<pollfd> pfd;
        for (int fd : in) pfd.push_back({fd, POLLIN, 0});
        std::vector<char> sink(1 << 18);
        size_t open = pfd.size();
        while (open > 0) {
            if (poll(pfd.data(), pfd.size(), 1000) < 0 && errno != EINTR) break;
            for (pollfd &p : pfd) {
                if (p.fd < 0 || !(p.revents & (POLLIN | POLLHUP | POLLERR))) continue;
                const ssize_t n = recv(p.fd, sink.data(), sink.size(), MSG_DONTWAIT);
                if (n > 0) {
                    drained += n;
                } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
                    p.fd = -1;
                    --open;
                }
            }
        }
    });

    const FrameBuffer buf(kHeaderRoom + kBufSize);
    if (!buf) return 1;
    char *const data = buf.data() + kHeaderRoom;
    std::vector<Walk> walks(1);
    walks[0].idx = stream;
    walks[0].period_s = 1.0 / fps;
    if (audio && get_audio_cache_idx(0) >= 0) {
        Walk a;
        a.idx = get_audio_cache_idx(0);
        // The audio cache has no GOPs: start at its newest frame.
        a.cur = a.start_selector = CACHE_SEL_NEWEST;
        a.period_s = 0.04;
        walks.push_back(a);
    }

    int64_t sent = 0, reads = 0;
    bool failed = false;
    const double cpu0 = clock_s(CLOCK_THREAD_CPUTIME_ID);
    const long switches0 = voluntary_switches();
    const double t0 = clock_s(CLOCK_MONOTONIC);
    const double end = t0 + duration;
    while (!failed) {
        const double now = clock_s(CLOCK_MONOTONIC);
        if (now >= end) break;
        double wake = end;
        for (Walk &w : walks) {
            if (w.next_due > now) {
                wake = std::min(wake, w.next_due);
                continue;
            }
            int serial = w.cur, length = 0, type = 0;
            double ts = 0;
            ++reads;
            const int r = shm_cache_read_frame(w.idx, &serial, data, kBufSize, &length, &type, &ts);
            if (r == CACHE_RET_OK && serial > w.last) {
                const int hlen = put_header(data, type, fps, width, height, ts, length);
                for (int fd : out)
                    if (!send_all(fd, data - hlen, static_cast<size_t>(hlen + length))) failed = true;
                sent += static_cast<int64_t>(out.size()) * (hlen + length);
                ++w.frames;
                w.last = serial;
                w.cur = serial + 1;
                // Behind the encoder: read on at once; otherwise sleep until the next frame is due.
                w.next_due = std::max(ts + w.period_s, 0.0);
                wake = std::min(wake, w.next_due);
            } else if (r == CACHE_RET_OVER_WRITE) {
                w.cur = w.start_selector;
                w.last = -2;
                w.next_due = now + 0.001;
                wake = std::min(wake, w.next_due);
            } else {
                // Not written yet (or the start selector found nothing new): look again in 1 ms.
                if (r == CACHE_RET_OK) w.cur = w.last + 1 > 0 ? w.last + 1 : w.start_selector;
                w.next_due = now + 0.001;
                wake = std::min(wake, w.next_due);
            }
        }
        sleep_until(wake);
    }
    const double cpu = clock_s(CLOCK_THREAD_CPUTIME_ID) - cpu0;
    const double elapsed = clock_s(CLOCK_MONOTONIC) - t0;
    const double wakeups = static_cast<double>(voluntary_switches() - switches0) / elapsed;
    for (int fd : out) shutdown(fd, SHUT_WR);
    drain.join();
    for (int fd : out) close(fd);
    for (int fd : in) close(fd);
    shm_cache_reader_uninit();

    const double ns_per_byte = drained > 0 ? cpu * 1e9 / static_cast<double>(drained.load()) : 0;
    if (json) {
        std::printf(
            "{\"sockets\": %d, \"audio\": %s, \"elapsed_s\": %.3f, \"bytes\": %lld, \"bytes_sent\": %lld, "
            "\"video_frames\": %lld, \"audio_frames\": %lld, \"reads\": %lld, \"sender_cpu_s\": %.4f, "
            "\"cpu_percent\": %.3f, \"cpu_ns_per_byte\": %.4f, \"wakeups_per_s\": %.1f, \"ok\": %s}\n",
            sockets, audio ? "true" : "false", elapsed, static_cast<long long>(drained.load()),
            static_cast<long long>(sent), static_cast<long long>(walks[0].frames),
            static_cast<long long>(walks.size() > 1 ? walks[1].frames : 0), static_cast<long long>(reads), cpu,
            100.0 * cpu / elapsed, ns_per_byte, wakeups, failed ? "false" : "true");
    } else {
        std::printf(
            "camgate_live_reference: %d sockets, %.1f s: %lld video frames, %lld audio frames, %.2f MB "
            "delivered; sender CPU %.3f s (%.2f %% of a core), %.2f ns per byte, %.0f wake-ups a second\n",
            sockets, elapsed, static_cast<long long>(walks[0].frames),
            static_cast<long long>(walks.size() > 1 ? walks[1].frames : 0), static_cast<double>(drained.load()) / 1e6,
            cpu, 100.0 * cpu / elapsed, ns_per_byte, wakeups);
    }
    return failed ? 1 : 0;
}

// Cost of the request path over a socketpair, with the daemon's own code on
// the far end:
//
// - the first-message dispatch of a new connection: the magic read by the
//   connection thread, then edci_parse_protocol up to the service routine
//   (an unknown command, so no service runs), beside the bare reads;
// - a control request and its reply with control_routine serving the other
//   end: a heartbeat, a get answered without the settings server (the
//   daylight-saving record, 0x30005) and an unknown command.
//
// control_routine pauses 2000 us after every reply. Requests sent back to
// back therefore run at one per pause plus the work: that pause bounds the
// rate of one control connection (BM_ControlBackToBack, beside pause_us, the
// measured length of usleep(2000) here). The work without the pause is
// measured two ways: server_cpu_us is the CPU time of the serving thread per
// request (its sleep costs none), and BM_ControlAfterPause sends each request
// only once the pause of the previous one is over and times the request and
// its reply, the latency a client sees. BM_SocketRoundTrip is the floor: the
// same bytes echoed by a bare thread, timed the same way.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <pthread.h>
#include <time.h>

#include <array>
#include <chrono>
#include <thread>
#include <vector>

#include "bench_console.h"
#include "common/tk_proto.h"
#include "control/control.h"
#include "main/tcl_hook.h"
#include "net/edci_protocol.h"
#include "net/net_comm.h"
#include "net/netuser.h"

namespace {

constexpr int32_t kUnknownCmd = 0x00010000;  // outside every range
constexpr useconds_t kPauseUs = 2000;        // the dispatcher's pause after a reply

double now_ns()
{
    return static_cast<double>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

// Two connected stream sockets, closed on destruction.
struct Pair {
    std::array<int, 2> fd{-1, -1};
    Pair() { socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fd.data()); }
    ~Pair() { close_all(); }
    void close_all()
    {
        for (int &f : fd) {
            if (f >= 0) close(f);
            f = -1;
        }
    }
    bool ok() const { return fd[0] >= 0 && fd[1] >= 0; }
};

NEW_PACKET_HEADER header(int32_t cmd)
{
    NEW_PACKET_HEADER h{};
    h.magic = TK_PROTO_MAGIC;
    h.cmd = cmd;
    h.len = 0;
    return h;
}

// Send a request and read its whole reply; false when the reply is not the expected result.
bool round_trip(int fd, const NEW_PACKET_HEADER &req, std::vector<char> &body)
{
    if (writen(fd, &req, sizeof req) != static_cast<int>(sizeof req)) return false;
    NEW_PACKET_HEADER reply{};
    if (readn(fd, &reply, sizeof reply) != static_cast<int>(sizeof reply)) return false;
    if (reply.len > body.size()) return false;
    if (reply.len > 0 && readn(fd, body.data(), static_cast<int>(reply.len)) != static_cast<int>(reply.len))
        return false;
    return true;
}

// CPU time used so far by thread t, in nanoseconds.
double thread_cpu_ns(std::thread &t)
{
    clockid_t clock;
    timespec ts{};
    if (pthread_getcpuclockid(t.native_handle(), &clock) != 0 || clock_gettime(clock, &ts) != 0) return 0;
    return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

// Mean length of usleep(kPauseUs) on this machine, in microseconds.
double measured_pause_us()
{
    static const double us = [] {
        constexpr int n = 200;
        const double t0 = now_ns();
        for (int i = 0; i < n; ++i) usleep(kPauseUs);
        return (now_ns() - t0) / n / 1000.0;
    }();
    return us;
}

// control_routine on one end of a socketpair in its own thread, with every right.
class ControlServer {
  public:
    ControlServer()
    {
        netuser_init();
        for (auto &r : priv_.opt_rights) r = 1;
        if (!pair_.ok()) return;
        thread_ = std::thread([this] {
            std::vector<char> buf(CONTROL_BUF_SIZE);
            control_routine(pair_.fd[1], buf.data(), trans_index_to_session_id(0, CTRL_SESSION_TYPE), &priv_, 0);
        });
    }
    ~ControlServer()
    {
        if (pair_.fd[0] >= 0) shutdown(pair_.fd[0], SHUT_RDWR);
        if (thread_.joinable()) thread_.join();
    }
    int fd() const { return pair_.fd[0]; }
    bool ok() const { return pair_.ok(); }
    double cpu_ns() { return thread_cpu_ns(thread_); }

  private:
    Pair pair_;
    USER_PRIVILEGE priv_{};
    std::thread thread_;
};

// --- first-message dispatch ---------------------------------------------------

// What the connection thread and edci_parse_protocol read, without the dispatch.
void BM_FirstMessageReadsOnly(benchmark::State &state)
{
    Pair p;
    if (!p.ok()) return state.SkipWithError("no socketpair");
    const NEW_PACKET_HEADER h = header(kUnknownCmd);
    for (auto _ : state) {
        writen(p.fd[0], &h, sizeof h);
        char magic[4];
        char rest[8];
        if (readn(p.fd[1], magic, 4) != 4 || readn(p.fd[1], rest, 8) != 8) return state.SkipWithError("short read");
        benchmark::DoNotOptimize(rest);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FirstMessageReadsOnly);

// The magic check and edci_parse_protocol of an unknown command (-4, no reply).
void BM_FirstMessageDispatch(benchmark::State &state)
{
    Pair p;
    if (!p.ok()) return state.SkipWithError("no socketpair");
    tcl_info *tcl = get_g_tcl_info();
    tcl->tcl_enable = 1;
    tcl->tcl_st = con_suc;
    const NEW_PACKET_HEADER h = header(kUnknownCmd);
    for (auto _ : state) {
        writen(p.fd[0], &h, sizeof h);
        char magic[4];
        if (readn(p.fd[1], magic, 4) != 4 || !edci_is_magic(magic)) return state.SkipWithError("no magic");
        if (edci_parse_protocol(p.fd[1]) != TK_ERR_UNSUPPORTED) return state.SkipWithError("not dispatched as unknown");
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FirstMessageDispatch);

// --- control requests ---------------------------------------------------------

void BM_SocketRoundTrip(benchmark::State &state)
{
    Pair p;
    if (!p.ok()) return state.SkipWithError("no socketpair");
    std::thread echo([&p] {
        NEW_PACKET_HEADER h{};
        while (readn(p.fd[1], &h, sizeof h) == static_cast<int>(sizeof h)) {
            h.cmd = 0;
            writen(p.fd[1], &h, sizeof h);
        }
    });
    std::vector<char> body(64);
    const NEW_PACKET_HEADER h = header(kUnknownCmd);
    for (auto _ : state) {
        usleep(kPauseUs + 1000);  // as BM_ControlAfterPause: the far end is asleep in its read
        const double t0 = now_ns();
        if (!round_trip(p.fd[0], h, body)) {
            state.SkipWithError("echo failed");
            break;
        }
        state.SetIterationTime((now_ns() - t0) / 1e9);
    }
    shutdown(p.fd[0], SHUT_RDWR);
    echo.join();
}
BENCHMARK(BM_SocketRoundTrip)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(300);

void BM_ControlBackToBack(benchmark::State &state)
{
    ControlServer server;
    if (!server.ok()) return state.SkipWithError("no socketpair");
    const NEW_PACKET_HEADER h = header(static_cast<int32_t>(state.range(0)));
    std::vector<char> body(CONTROL_BUF_SIZE);
    const double pause_us = measured_pause_us();
    const double cpu0 = server.cpu_ns();
    for (auto _ : state) {
        if (!round_trip(server.fd(), h, body)) return state.SkipWithError("no reply");
    }
    state.counters["pause_us"] = pause_us;
    state.counters["server_cpu_us"] = (server.cpu_ns() - cpu0) / 1000.0 / static_cast<double>(state.iterations());
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ControlBackToBack)
    ->Arg(TK_CMD_HEARTBEAT)
    ->Arg(TK_CMD_GET_DST_CFG)
    ->Arg(kUnknownCmd)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime()
    ->Iterations(400);

void BM_ControlAfterPause(benchmark::State &state)
{
    ControlServer server;
    if (!server.ok()) return state.SkipWithError("no socketpair");
    const NEW_PACKET_HEADER h = header(static_cast<int32_t>(state.range(0)));
    std::vector<char> body(CONTROL_BUF_SIZE);
    const double cpu0 = server.cpu_ns();
    for (auto _ : state) {
        // Let the server's pause after the previous reply run out first.
        usleep(kPauseUs + 1000);
        const double t0 = now_ns();
        if (!round_trip(server.fd(), h, body)) return state.SkipWithError("no reply");
        state.SetIterationTime((now_ns() - t0) / 1e9);
    }
    state.counters["server_cpu_us"] = (server.cpu_ns() - cpu0) / 1000.0 / static_cast<double>(state.iterations());
}
BENCHMARK(BM_ControlAfterPause)
    ->Arg(TK_CMD_HEARTBEAT)
    ->Arg(TK_CMD_GET_DST_CFG)
    ->Arg(kUnknownCmd)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond)
    ->Iterations(300);

// --- the price of sleeping --------------------------------------------------

// One timer sleep and the wake-up after it (usleep(1000)): the CPU time the
// sleeping thread is charged for it (cpu_us), the unit of cost of every
// polling loop of the daemon (the dispatcher's pause, the live loops' waits).
void BM_TimerSleepWake(benchmark::State &state)
{
    timespec a{}, b{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &a);
    for (auto _ : state) usleep(1000);
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &b);
    const double ns = static_cast<double>(b.tv_sec - a.tv_sec) * 1e9 + static_cast<double>(b.tv_nsec - a.tv_nsec);
    state.counters["cpu_us"] = ns / 1000.0 / static_cast<double>(state.iterations());
}
BENCHMARK(BM_TimerSleepWake)->Unit(benchmark::kMicrosecond)->UseRealTime()->Iterations(500);

}  // namespace

CAMGATE_BENCHMARK_MAIN();

// Cost of publishing and reading one frame through the shared frame cache
// (semaphore, bookkeeping and one copy) for frames of 1 KB, 64 KB and 512 KB,
// beside the two things a frame-cache operation cannot do without: a plain
// memcpy of the same size and one semop pair (take and give back). Each
// cache benchmark reports its time per frame as a ratio to that limit
// (counter x_limit) and to the memcpy alone (x_memcpy).
//
// The cache lives under a key made from the process id and is removed at the end.
#include <benchmark/benchmark.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "bench_console.h"
#include "media/sem_util.h"
#include "media/shm_cache.h"

namespace {

constexpr int kCacheKb = 8192;  // holds 16 frames of 512 KB
constexpr int kReadBuf = 3 << 20;

double now_ns()
{
    return static_cast<double>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

// A fresh cache with one video stream; removed on destruction.
class Cache {
  public:
    Cache()
    {
        const key_t key = static_cast<key_t>(0x7e500000 | (getpid() & 0xFFFF));
        setenv("CAMGATE_SHM_KEY", std::to_string(key).c_str(), 1);
        shm_cache_info_t info{};
        info.video_buf_cnt = 1;
        info.video_buf_size[0] = kCacheKb;
        ok_ = shm_cache_writer_init(&info) == 0 &&
              shm_cache_set_media_info(0, CACHE_MEDIA_TYPE_H264, 4000, 25, 640, 360) == 0;
    }
    ~Cache() { shm_cache_writer_uninit(); }
    bool ok() const { return ok_; }

  private:
    bool ok_ = false;
};

// A private semaphore set of one semaphore at 1, removed on destruction.
class Semaphore {
  public:
    Semaphore() : id_(semget(IPC_PRIVATE, 1, IPC_CREAT | 0600))
    {
        if (id_ >= 0) semctl(id_, 0, SETVAL, 1);
    }
    ~Semaphore()
    {
        if (id_ >= 0) sem_kill(id_);
    }
    int id() const { return id_; }

  private:
    int id_;
};

// Nanoseconds of one memcpy of size bytes (source and destination hot in the
// cache, as they are for a frame read right after it was written) and of one
// semop pair, measured once per size in this process.
struct Limit {
    double memcpy_ns = 0;
    double semop_pair_ns = 0;
};

double time_memcpy(size_t size)
{
    std::vector<char> src(size, '\x5a'), dst(size);
    const int n = static_cast<int>(std::max<size_t>(200, (256u << 20) / size));
    for (int i = 0; i < n / 10; ++i) std::memcpy(dst.data(), src.data(), size);  // warm
    const double t0 = now_ns();
    for (int i = 0; i < n; ++i) {
        std::memcpy(dst.data(), src.data(), size);
        benchmark::ClobberMemory();
    }
    return (now_ns() - t0) / n;
}

double time_semop_pair()
{
    Semaphore sem;
    if (sem.id() < 0) return 0;
    constexpr int n = 200000;
    const double t0 = now_ns();
    for (int i = 0; i < n; ++i) {
        sem_op(sem.id(), 0, -1);
        sem_op(sem.id(), 0, 1);
    }
    return (now_ns() - t0) / n;
}

const Limit &limit_for(size_t size)
{
    static std::map<size_t, Limit> limits;
    auto it = limits.find(size);
    if (it == limits.end()) {
        Limit l;
        l.memcpy_ns = time_memcpy(size);
        l.semop_pair_ns = time_semop_pair();
        it = limits.emplace(size, l).first;
    }
    return it->second;
}

void report_ratio(benchmark::State &state, double elapsed_ns, size_t size)
{
    const Limit &l = limit_for(size);
    const double per_frame = elapsed_ns / static_cast<double>(state.iterations());
    state.counters["limit_ns"] = l.memcpy_ns + l.semop_pair_ns;
    state.counters["x_limit"] = per_frame / (l.memcpy_ns + l.semop_pair_ns);
    state.counters["x_memcpy"] = per_frame / l.memcpy_ns;
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

// --- the limits themselves --------------------------------------------------

void BM_Memcpy(benchmark::State &state)
{
    const size_t size = static_cast<size_t>(state.range(0));
    std::vector<char> src(size, '\x5a'), dst(size);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), size);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Memcpy)->Arg(1024)->Arg(64 * 1024)->Arg(512 * 1024);

void BM_SemopPair(benchmark::State &state)
{
    Semaphore sem;
    if (sem.id() < 0) return state.SkipWithError("no semaphore");
    for (auto _ : state) {
        sem_op(sem.id(), 0, -1);
        sem_op(sem.id(), 0, 1);
    }
}
BENCHMARK(BM_SemopPair);

// --- the frame cache ----------------------------------------------------------

// The encoder's side: I-frames every 25 frames, evicting the oldest as the cache fills.
void BM_WriteFrame(benchmark::State &state)
{
    Cache cache;
    if (!cache.ok()) return state.SkipWithError("cannot create the cache");
    const size_t size = static_cast<size_t>(state.range(0));
    std::vector<char> frame(size, '\x5a');
    limit_for(size);
    int n = 0;
    const double t0 = now_ns();
    for (auto _ : state) {
        const int type = (n++ % 25 == 0) ? CACHE_FRAME_TYPE_I : CACHE_FRAME_TYPE_P;
        if (shm_cache_write_frame(0, frame.data(), static_cast<int>(size), type, n * 0.04) != 0)
            return state.SkipWithError("write refused");
    }
    report_ratio(state, now_ns() - t0, size);
}
BENCHMARK(BM_WriteFrame)->Arg(1024)->Arg(64 * 1024)->Arg(512 * 1024);

// The daemon's side: one frame by serial, copied out under the semaphore.
void BM_ReadFrame(benchmark::State &state)
{
    Cache cache;
    if (!cache.ok()) return state.SkipWithError("cannot create the cache");
    const size_t size = static_cast<size_t>(state.range(0));
    std::vector<char> frame(size, '\x5a');
    for (int i = 0; i < 10; ++i) shm_cache_write_frame(0, frame.data(), static_cast<int>(size), CACHE_FRAME_TYPE_I, i);
    std::vector<char> buf(kReadBuf);
    limit_for(size);
    const double t0 = now_ns();
    for (auto _ : state) {
        int serial = 5, got = 0, type = 0;
        double ts = 0;
        if (shm_cache_read_frame(0, &serial, buf.data(), kReadBuf, &got, &type, &ts) != 0)
            return state.SkipWithError("read failed");
        benchmark::ClobberMemory();
    }
    report_ratio(state, now_ns() - t0, size);
}
BENCHMARK(BM_ReadFrame)->Arg(1024)->Arg(64 * 1024)->Arg(512 * 1024);

// The lookup alone: a serial not written yet is answered -20 without a copy.
void BM_ReadNotYetWritten(benchmark::State &state)
{
    Cache cache;
    if (!cache.ok()) return state.SkipWithError("cannot create the cache");
    char frame[100] = {};
    shm_cache_write_frame(0, frame, sizeof frame, CACHE_FRAME_TYPE_I, 0);
    char buf[128];
    for (auto _ : state) {
        int serial = 1, size = 0, type = 0;
        double ts = 0;
        benchmark::DoNotOptimize(shm_cache_read_frame(0, &serial, buf, sizeof buf, &size, &type, &ts));
    }
}
BENCHMARK(BM_ReadNotYetWritten);

}  // namespace

CAMGATE_BENCHMARK_MAIN();

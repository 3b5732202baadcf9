// Cost of publishing and reading one frame through the shared frame cache
// (semaphore, bookkeeping and one copy), for frame sizes of audio, P-frames
// and key frames. The cache lives under a key made from the process id and is
// removed at the end.
#include <benchmark/benchmark.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "media/shm_cache.h"

namespace {

constexpr int kCacheKb = 4096;

// A fresh cache with one video stream for each benchmark; removed on destruction.
class Cache {
  public:
    Cache()
    {
        key_ = static_cast<key_t>(0x7e500000 | (getpid() & 0xFFFF));
        setenv("CAMGATE_SHM_KEY", std::to_string(key_).c_str(), 1);
        shm_cache_info_t info{};
        info.video_buf_cnt = 1;
        info.video_buf_size[0] = kCacheKb;
        ok_ = shm_cache_writer_init(&info) == 0 &&
              shm_cache_set_media_info(0, CACHE_MEDIA_TYPE_H264, 2000, 25, 1280, 720) == 0;
    }
    ~Cache() { shm_cache_writer_uninit(); }
    bool ok() const { return ok_; }

  private:
    key_t key_ = 0;
    bool ok_ = false;
};

void BM_WriteFrame(benchmark::State &state)
{
    Cache cache;
    if (!cache.ok()) return state.SkipWithError("cannot create the cache");
    std::vector<char> frame(static_cast<size_t>(state.range(0)), '\x5a');
    int n = 0;
    for (auto _ : state) {
        const int type = (n++ % 50 == 0) ? CACHE_FRAME_TYPE_I : CACHE_FRAME_TYPE_P;
        if (shm_cache_write_frame(0, frame.data(), static_cast<int>(frame.size()), type, n * 0.04) != 0)
            return state.SkipWithError("write refused");
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_WriteFrame)->Arg(320)->Arg(4 * 1024)->Arg(32 * 1024)->Arg(256 * 1024);

void BM_ReadFrame(benchmark::State &state)
{
    Cache cache;
    if (!cache.ok()) return state.SkipWithError("cannot create the cache");
    std::vector<char> frame(static_cast<size_t>(state.range(0)), '\x5a');
    for (int i = 0; i < 10; ++i)
        shm_cache_write_frame(0, frame.data(), static_cast<int>(frame.size()), CACHE_FRAME_TYPE_I, i);
    std::vector<char> buf(3 << 20);
    for (auto _ : state) {
        int serial = 5, size = 0, type = 0;
        double ts = 0;
        if (shm_cache_read_frame(0, &serial, buf.data(), static_cast<int>(buf.size()), &size, &type, &ts) != 0)
            return state.SkipWithError("read failed");
        benchmark::DoNotOptimize(buf.data());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ReadFrame)->Arg(320)->Arg(4 * 1024)->Arg(32 * 1024)->Arg(256 * 1024);

// The lookup alone: a selector answered without a copy (-20 for the next serial).
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

BENCHMARK_MAIN();

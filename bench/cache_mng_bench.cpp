// Finding a frame in a full cache: by serial (one index lookup) and by the
// selectors of a new or lagging viewer (0 the newest frame, -1 the I-frame
// opening the newest GOP, -2 the I-frame of the oldest GOP held). The cache
// is laid out in process memory exactly as in the shared segment, without
// the semaphore, so only the bookkeeping is timed.
#include <benchmark/benchmark.h>

#include <vector>

#include "media/cache_mng.h"
#include "media/shm_cache.h"

namespace {

constexpr int kGop = 25;
constexpr int kBufKb = 2048;

// One cache in a segment-shaped block: header, one control slot, the data.
class FullCache {
  public:
    explicit FullCache(int frame_bytes) : mem_(static_cast<size_t>(CACHE_INFO_SIZE + CACHE_STRUCT_SIZE + kBufKb * 1024))
    {
        cache_ = reinterpret_cast<CacheMng *>(mem_.data() + CACHE_INFO_SIZE);
        cache_->media_idx = 0;
        cache_->cache_buf_offset = CACHE_INFO_SIZE + CACHE_STRUCT_SIZE;
        cache_->cache_buf_size = kBufKb * 1024;
        cache_mng_reset(cache_);
        cache_->media_type = CACHE_MEDIA_TYPE_H264;
        // Three times round the frame ring: every frame slot and every GOP slot in use.
        std::vector<char> frame(static_cast<size_t>(frame_bytes), '\x11');
        for (int n = 0; n < 3 * CACHE_FRAME_NUMS; ++n) {
            const int type = n % kGop == 0 ? CACHE_FRAME_TYPE_I : CACHE_FRAME_TYPE_P;
            write_cache_frame(cache_, frame.data(), frame_bytes, type, n * 0.04);
        }
    }
    CacheMng *get() { return cache_; }

  private:
    std::vector<char> mem_;
    CacheMng *cache_;
};

// Serials held: 600..899; walk them like a viewer does.
void BM_FindBySerial(benchmark::State &state)
{
    FullCache cache(1024);
    const int newest = cache.get()->cur_serial;
    int serial = newest - CACHE_FRAME_NUMS + 1;
    for (auto _ : state) {
        int s = serial;
        CacheFrame *f = read_cache_frame(cache.get(), &s);
        if (f == nullptr) return state.SkipWithError("a held serial was not found");
        benchmark::DoNotOptimize(f);
        if (++serial > newest) serial = newest - CACHE_FRAME_NUMS + 1;
    }
}
BENCHMARK(BM_FindBySerial);

void BM_FindBySelector(benchmark::State &state)
{
    FullCache cache(1024);
    const int selector = static_cast<int>(state.range(0));
    for (auto _ : state) {
        int s = selector;
        CacheFrame *f = read_cache_frame(cache.get(), &s);
        if (f == nullptr) return state.SkipWithError("the selector found nothing");
        benchmark::DoNotOptimize(f);
    }
}
BENCHMARK(BM_FindBySelector)->Arg(CACHE_SEL_NEWEST)->Arg(CACHE_SEL_NEWEST_GOP)->Arg(CACHE_SEL_OLDEST_GOP);

// A serial not written yet (-20 for the reader): the lookup a caught-up viewer makes between frames.
void BM_FindNotYetWritten(benchmark::State &state)
{
    FullCache cache(1024);
    const int next = cache.get()->cur_serial + 1;
    for (auto _ : state) {
        int s = next;
        benchmark::DoNotOptimize(read_cache_frame(cache.get(), &s));
    }
}
BENCHMARK(BM_FindNotYetWritten);

}  // namespace

BENCHMARK_MAIN();

#include "encoder_sim.h"

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>

#include "common/env.h"
#include "h264_stream.h"
#include "media/shm_cache.h"
#include "media_util.h"

#ifndef CAMGATE_SAMPLES_DIR
#define CAMGATE_SAMPLES_DIR "samples"
#endif

namespace encoder {

std::string sample_path(const std::string &name)
{
    return std::string(CAMGATE_SAMPLES_DIR) + "/" + name;
}

void size_for_bitrate(VideoStream *vs, int kbps)
{
    constexpr int64_t kIWeight = 8;  // an I-frame weighs this many P-frames
    const int64_t fps = vs->fps > 0 ? vs->fps : 25;
    const int64_t gop = vs->gop > 0 ? vs->gop : 1;
    const int64_t gop_bytes = static_cast<int64_t>(kbps) * 1000 / 8 * gop / fps;
    const int64_t p = std::max<int64_t>(64, gop_bytes / (kIWeight + gop - 1));
    vs->p_frame_bytes = static_cast<int>(std::min<int64_t>(p, 8 << 20));
    vs->i_frame_bytes = static_cast<int>(std::max<int64_t>(128, std::min<int64_t>(p * kIWeight, 64 << 20)));
}

std::vector<VideoStream> sample_streams()
{
    VideoStream main_stream;
    main_stream.clip = sample_path("clip-640x360-25fps.h264");
    main_stream.cache_kb = 2048;
    VideoStream sub_stream;
    sub_stream.clip = sample_path("clip-320x180-25fps.h264");
    sub_stream.cache_kb = 1024;
    sub_stream.width = 320;
    sub_stream.height = 180;
    return {main_stream, sub_stream};
}

namespace {

const char kSyntheticMark[] = "camgate synthetic stream ";
constexpr int64_t kSecond = 1000000000;
// A source more than this late (the machine stalled) skips what it missed instead of bursting.
constexpr int64_t kMaxLateNs = kSecond;

int64_t mono_ns()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * kSecond + ts.tv_nsec;
}

const uint8_t kStartCode[4] = {0, 0, 0, 1};

void append_nal(std::vector<uint8_t> &out, const std::vector<uint8_t> &nal)
{
    out.insert(out.end(), kStartCode, kStartCode + 4);
    out.insert(out.end(), nal.begin(), nal.end());
}

struct Source {
    enum Kind { VIDEO, SNAPSHOT, AUDIO } kind = VIDEO;
    int cache = 0;
    int stream = 0;
    int64_t period_ns = 0;
    int64_t next_due = 0;
    bool done = false;
    // Video: the clip's access units, played in a loop.
    std::vector<AccessUnit> clip;
    size_t pos = 0;
    // Synthetic video.
    VideoStream synth;
    std::vector<uint8_t> sps, pps;
    // Snapshot.
    std::vector<uint8_t> jpeg;
};

int cache_frame_type(AccessUnit::Kind kind)
{
    switch (kind) {
        case AccessUnit::I:
            return CACHE_FRAME_TYPE_I;
        case AccessUnit::B:
            return CACHE_FRAME_TYPE_B;
        default:
            return CACHE_FRAME_TYPE_P;
    }
}

}  // namespace

bool parse_synthetic_frame(const char *data, size_t size, SyntheticFrame *out)
{
    if (data == nullptr || out == nullptr) return false;
    const char *end = data + std::min<size_t>(size, 512);
    const char *mark = std::search(data, end, kSyntheticMark, kSyntheticMark + sizeof kSyntheticMark - 1);
    if (mark == end) return false;
    char text[80] = {};
    std::memcpy(text, mark, std::min<size_t>(static_cast<size_t>(end - mark), sizeof text - 1));
    SyntheticFrame f;
    long long frame = -1;
    if (std::sscanf(text + sizeof kSyntheticMark - 1, "%d frame %lld", &f.stream, &frame) != 2) return false;
    f.frame = frame;
    static const char idr[5] = {0, 0, 0, 1, 0x65};
    f.key = std::search(data, end, idr, idr + 5) != end;
    *out = f;
    return true;
}

struct EncoderSim::Impl {
    Options opt;
    std::string error;
    std::vector<Source> sources;
    std::vector<StreamInfo> info;

    mutable std::mutex mu;
    std::condition_variable wake;              // the writer: stop, pause, resume
    mutable std::condition_variable progress;  // waiters: something was written
    Counters counters;
    bool paused = false;
    bool stopping = false;
    bool running = false;
    std::thread writer;
    ToneGenerator tone{1000};
    std::vector<uint8_t> frame;  // synthetic frames are built here

    bool fail(const std::string &why)
    {
        error = why;
        return false;
    }
    bool load_video(int idx, const VideoStream &vs, Source *src, StreamInfo *si);
    bool load();
    void restart_schedules(int64_t now)
    {
        for (Source &s : sources) s.next_due = now;
    }
    void run();
    void write_one(Source &s, int64_t due);
    bool wait_counter(const std::function<int64_t(const Counters &)> &get, int64_t n, int timeout_ms) const
    {
        std::unique_lock<std::mutex> lk(mu);
        return progress.wait_for(lk, std::chrono::milliseconds(timeout_ms), [&] { return get(counters) >= n; });
    }
};

bool EncoderSim::Impl::load_video(int idx, const VideoStream &vs, Source *src, StreamInfo *si)
{
    const std::string name = "stream " + std::to_string(idx);
    if (vs.cache_kb < 1) return fail(name + ": a cache of " + std::to_string(vs.cache_kb) + " K");
    const size_t cache_bytes = static_cast<size_t>(vs.cache_kb) * 1024;
    if (!vs.clip.empty()) {
        std::vector<uint8_t> data;
        std::string err;
        if (!read_whole_file(vs.clip, &data, &err)) return fail(name + ": " + err);
        src->clip = group_access_units(data.data(), data.size());
        if (src->clip.empty()) return fail(name + ": " + vs.clip + " holds no H.264 IDR picture (Annex-B expected)");
        SpsInfo sps;
        const std::vector<NalUnit> first = split_nal_units(src->clip[0].bytes.data(), src->clip[0].bytes.size());
        if (first.empty() || !parse_sps(first[0].data, first[0].size, &sps))
            return fail(name + ": " + vs.clip + " has no readable sequence parameter set");
        si->width = sps.width;
        si->height = sps.height;
        si->fps = sps.fps > 0 ? static_cast<int>(std::lround(sps.fps)) : vs.fps;
        if (si->fps < 1 || si->fps > 240) return fail(name + ": frame rate " + std::to_string(si->fps));
        size_t total = 0;
        for (const AccessUnit &au : src->clip) {
            total += au.bytes.size();
            si->largest_frame = std::max(si->largest_frame, au.bytes.size());
        }
        si->loop_frames = static_cast<int>(src->clip.size());
        si->kbps = static_cast<int>(
            static_cast<double>(total) * 8.0 * si->fps / static_cast<double>(src->clip.size()) / 1000.0 + 0.5);
    } else {
        if (vs.width < 16 || vs.height < 16 || vs.width > 4096 || vs.height > 4096 || vs.width % 2 || vs.height % 2)
            return fail(name + ": synthetic picture size " + std::to_string(vs.width) + "x" +
                        std::to_string(vs.height) + " (even, 16 to 4096)");
        if (vs.fps < 1 || vs.fps > 240) return fail(name + ": frame rate " + std::to_string(vs.fps));
        if (vs.gop < 1) return fail(name + ": GOP of " + std::to_string(vs.gop) + " frames");
        if (vs.i_frame_bytes < 128 || vs.p_frame_bytes < 64)
            return fail(name + ": synthetic frames need at least 128 (I) and 64 (P) bytes");
        src->synth = vs;
        src->sps = build_sps(vs.width, vs.height, vs.fps);
        src->pps = build_pps();
        si->width = vs.width;
        si->height = vs.height;
        si->fps = vs.fps;
        si->loop_frames = vs.gop;
        si->largest_frame = static_cast<size_t>(std::max(vs.i_frame_bytes, vs.p_frame_bytes));
        si->kbps = static_cast<int>(
            (static_cast<int64_t>(vs.i_frame_bytes) + static_cast<int64_t>(vs.p_frame_bytes) * (vs.gop - 1)) * 8 *
            vs.fps / vs.gop / 1000);
    }
    if (si->largest_frame > cache_bytes)
        return fail(name + ": a cache of " + std::to_string(vs.cache_kb) + " K cannot hold its largest frame (" +
                    std::to_string(si->largest_frame) + " bytes)");
    src->kind = Source::VIDEO;
    src->stream = idx;
    src->cache = idx;
    src->period_ns = kSecond / si->fps;
    return true;
}

bool EncoderSim::Impl::load()
{
    const int nvideo = static_cast<int>(opt.video.size());
    if (nvideo < 1 || nvideo > 7) return fail(std::to_string(nvideo) + " video streams (1 to 7)");
    for (int i = 0; i < nvideo; ++i) {
        Source src;
        StreamInfo si;
        if (!load_video(i, opt.video[static_cast<size_t>(i)], &src, &si)) return false;
        sources.push_back(std::move(src));
        info.push_back(si);
    }
    int next_cache = nvideo;
    if (opt.snapshot) {
        Source src;
        std::string err;
        int w = 0, h = 0;
        if (!read_whole_file(opt.jpeg, &src.jpeg, &err)) return fail("snapshot: " + err);
        if (!jpeg_size(src.jpeg.data(), src.jpeg.size(), &w, &h))
            return fail("snapshot: " + opt.jpeg + " is no JPEG picture");
        if (opt.snapshot_cache_kb < 1 || src.jpeg.size() > static_cast<size_t>(opt.snapshot_cache_kb) * 1024)
            return fail("snapshot: a cache of " + std::to_string(opt.snapshot_cache_kb) + " K cannot hold the picture");
        if (opt.snapshot_interval_ms < 10) return fail("snapshot: interval below 10 ms");
        src.kind = Source::SNAPSHOT;
        src.cache = next_cache++;
        src.period_ns = static_cast<int64_t>(opt.snapshot_interval_ms) * 1000000;
        sources.push_back(std::move(src));
    }
    if (opt.audio) {
        if (opt.audio_frame_ms < 1 || opt.audio_frame_ms > 1000) return fail("audio: frames of 1 to 1000 ms");
        if (opt.audio_cache_kb < 1 || opt.audio_frame_ms * 8 > opt.audio_cache_kb * 1024)
            return fail("audio: a cache of " + std::to_string(opt.audio_cache_kb) + " K cannot hold one frame");
        if (opt.tone_hz < 1 || opt.tone_hz >= 4000) return fail("audio: tone of 1 to 3999 Hz");
        Source src;
        src.kind = Source::AUDIO;
        src.cache = next_cache++;
        src.period_ns = static_cast<int64_t>(opt.audio_frame_ms) * 1000000;
        sources.push_back(std::move(src));
        tone = ToneGenerator(opt.tone_hz);
    }
    counters.video_frames.assign(static_cast<size_t>(nvideo), 0);
    counters.video_i_frames.assign(static_cast<size_t>(nvideo), 0);
    counters.video_bytes.assign(static_cast<size_t>(nvideo), 0);
    return true;
}

void EncoderSim::Impl::write_one(Source &s, int64_t due)
{
    const double ts = static_cast<double>(due) / 1e9;
    int ret = 0;
    int type = CACHE_FRAME_TYPE_P;
    size_t bytes = 0;
    switch (s.kind) {
        case Source::VIDEO: {
            if (!s.clip.empty()) {
                AccessUnit &au = s.clip[s.pos];
                s.pos = (s.pos + 1) % s.clip.size();
                type = cache_frame_type(au.kind);
                bytes = au.bytes.size();
                ret = shm_cache_write_frame(s.cache, reinterpret_cast<char *>(au.bytes.data()), static_cast<int>(bytes),
                                            type, ts);
            } else {
                int64_t n = 0;
                {
                    std::lock_guard<std::mutex> lk(mu);
                    n = counters.video_frames[static_cast<size_t>(s.stream)];
                }
                const bool key = n % s.synth.gop == 0;
                type = key ? CACHE_FRAME_TYPE_I : CACHE_FRAME_TYPE_P;
                const size_t target = static_cast<size_t>(key ? s.synth.i_frame_bytes : s.synth.p_frame_bytes);
                char text[96];
                std::snprintf(text, sizeof text, "%s%d frame %" PRId64 "\n", kSyntheticMark, s.stream, n);
                frame.clear();
                if (key) {
                    append_nal(frame, s.sps);
                    append_nal(frame, s.pps);
                }
                // The payload is text and fill bytes without zeros: nothing is escaped, so the
                // slice is its bare header plus the payload, and the frame gets its size exactly.
                const int slice_type = key ? 7 : 5;
                std::string payload(text);
                const size_t fixed = frame.size() + 4 + build_slice(key, slice_type, "").size();
                for (size_t i = 0; fixed + payload.size() < target; ++i)
                    payload.push_back(static_cast<char>(1 + (static_cast<size_t>(n) + i) % 255));
                append_nal(frame, build_slice(key, slice_type, payload));
                bytes = frame.size();
                ret = shm_cache_write_frame(s.cache, reinterpret_cast<char *>(frame.data()), static_cast<int>(bytes),
                                            type, ts);
            }
            break;
        }
        case Source::SNAPSHOT:
            bytes = s.jpeg.size();
            type = CACHE_FRAME_TYPE_I;
            ret = shm_cache_write_frame(s.cache, reinterpret_cast<char *>(s.jpeg.data()), static_cast<int>(bytes), type,
                                        ts);
            break;
        case Source::AUDIO: {
            std::vector<uint8_t> samples = tone.next(static_cast<size_t>(opt.audio_frame_ms) * 8);
            bytes = samples.size();
            type = CACHE_FRAME_TYPE_AUDIO;
            ret = shm_cache_write_frame(s.cache, reinterpret_cast<char *>(samples.data()), static_cast<int>(bytes),
                                        type, ts);
            break;
        }
    }

    std::lock_guard<std::mutex> lk(mu);
    if (ret != 0) {
        ++counters.write_errors;
    } else if (s.kind == Source::VIDEO) {
        const size_t i = static_cast<size_t>(s.stream);
        ++counters.video_frames[i];
        if (type == CACHE_FRAME_TYPE_I) ++counters.video_i_frames[i];
        counters.video_bytes[i] += static_cast<int64_t>(bytes);
        if (opt.max_video_frames > 0 && counters.video_frames[i] >= opt.max_video_frames) s.done = true;
    } else if (s.kind == Source::SNAPSHOT) {
        ++counters.snapshots;
    } else {
        ++counters.audio_frames;
    }
    progress.notify_all();
}

void EncoderSim::Impl::run()
{
    std::unique_lock<std::mutex> lk(mu);
    while (!stopping) {
        Source *next = nullptr;
        for (Source &s : sources) {
            if (!s.done && (next == nullptr || s.next_due < next->next_due)) next = &s;
        }
        if (paused || next == nullptr) {
            wake.wait(lk);
            continue;
        }
        const int64_t now = mono_ns();
        if (next->next_due > now) {
            wake.wait_for(lk, std::chrono::nanoseconds(next->next_due - now));
            continue;  // look again: stop, pause or another source may have come first
        }
        if (now - next->next_due > kMaxLateNs) next->next_due = now;
        const int64_t due = next->next_due;
        next->next_due += next->period_ns;
        lk.unlock();
        write_one(*next, due);
        lk.lock();
    }
}

EncoderSim::EncoderSim(Options opt) : impl_(std::make_unique<Impl>())
{
    impl_->opt = std::move(opt);
}

EncoderSim::~EncoderSim()
{
    stop();
}

bool EncoderSim::start()
{
    Impl &d = *impl_;
    if (d.running) return d.fail("already running");
    d.sources.clear();
    d.info.clear();
    d.error.clear();
    d.counters = Counters();
    if (!d.load()) return false;

    if (d.opt.key != 0) {
        char key[32];
        std::snprintf(key, sizeof key, "0x%x", static_cast<unsigned>(d.opt.key));
        setenv("CAMGATE_SHM_KEY", key, 1);
    }
    shm_cache_info_t cfg{};
    cfg.video_buf_cnt = static_cast<int>(d.opt.video.size());
    for (size_t i = 0; i < d.opt.video.size(); ++i) cfg.video_buf_size[i] = d.opt.video[i].cache_kb;
    cfg.snap_buf_cnt = d.opt.snapshot ? 1 : 0;
    cfg.snap_buf_size[0] = d.opt.snapshot_cache_kb;
    cfg.audio_buf_cnt = d.opt.audio ? 1 : 0;
    cfg.audio_buf_size[0] = d.opt.audio_cache_kb;
    if (shm_cache_writer_init(&cfg) != 0) {
        char msg[200];
        std::snprintf(msg, sizeof msg,
                      "cannot create the frame cache under key 0x%x (a smaller segment of an earlier run in the way? "
                      "ipcrm -M 0x%x -S 0x%x removes it)",
                      static_cast<unsigned>(env_shm_key()), static_cast<unsigned>(env_shm_key()),
                      static_cast<unsigned>(env_shm_key()));
        return d.fail(msg);
    }
    for (const Source &s : d.sources) {
        int ret = 0;
        if (s.kind == Source::VIDEO) {
            const StreamInfo &si = d.info[static_cast<size_t>(s.stream)];
            ret = shm_cache_set_media_info(s.cache, CACHE_MEDIA_TYPE_H264, si.kbps, si.fps, si.width, si.height);
        } else if (s.kind == Source::SNAPSHOT) {
            int w = 0, h = 0;
            jpeg_size(s.jpeg.data(), s.jpeg.size(), &w, &h);
            const int fps = std::max(1, 1000 / d.opt.snapshot_interval_ms);
            const int kbps = static_cast<int>(static_cast<int64_t>(s.jpeg.size()) * 8 / d.opt.snapshot_interval_ms);
            ret = shm_cache_set_media_info(s.cache, CACHE_MEDIA_TYPE_MJPG, kbps, fps, w, h);
        } else {
            ret = shm_cache_set_media_info(s.cache, CACHE_MEDIA_TYPE_G711_ULAW, 64, 1000 / d.opt.audio_frame_ms, 0, 0);
        }
        if (ret != 0) {
            shm_cache_writer_uninit();
            return d.fail("cannot set the media information of cache " + std::to_string(s.cache));
        }
    }

    d.paused = d.opt.start_paused;
    d.stopping = false;
    d.restart_schedules(mono_ns());
    d.running = true;
    d.writer = std::thread([&d] { d.run(); });
    return true;
}

void EncoderSim::stop()
{
    Impl &d = *impl_;
    if (!d.running) return;
    {
        std::lock_guard<std::mutex> lk(d.mu);
        d.stopping = true;
    }
    d.wake.notify_all();
    d.writer.join();
    d.running = false;
    shm_cache_writer_uninit();
}

const std::string &EncoderSim::error() const
{
    return impl_->error;
}

void EncoderSim::pause()
{
    std::lock_guard<std::mutex> lk(impl_->mu);
    impl_->paused = true;
    impl_->wake.notify_all();
}

void EncoderSim::resume()
{
    {
        std::lock_guard<std::mutex> lk(impl_->mu);
        impl_->paused = false;
        impl_->restart_schedules(mono_ns());
    }
    impl_->wake.notify_all();
}

StreamInfo EncoderSim::stream_info(int stream) const
{
    if (stream < 0 || static_cast<size_t>(stream) >= impl_->info.size()) return StreamInfo();
    return impl_->info[static_cast<size_t>(stream)];
}

Counters EncoderSim::counters() const
{
    std::lock_guard<std::mutex> lk(impl_->mu);
    return impl_->counters;
}

bool EncoderSim::wait_for_video(int stream, int64_t n, int timeout_ms) const
{
    return impl_->wait_counter(
        [stream](const Counters &c) {
            return (stream >= 0 && static_cast<size_t>(stream) < c.video_frames.size())
                       ? c.video_frames[static_cast<size_t>(stream)]
                       : -1;
        },
        n, timeout_ms);
}

bool EncoderSim::wait_for_audio(int64_t n, int timeout_ms) const
{
    return impl_->wait_counter([](const Counters &c) { return c.audio_frames; }, n, timeout_ms);
}

bool EncoderSim::wait_for_snapshots(int64_t n, int timeout_ms) const
{
    return impl_->wait_counter([](const Counters &c) { return c.snapshots; }, n, timeout_ms);
}

}  // namespace encoder

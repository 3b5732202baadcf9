// The encoder simulator in-process: what reaches the frame cache, and when.
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "camgate-encoder/encoder_sim.h"
#include "camgate-encoder/h264_stream.h"
#include "camgate-encoder/media_util.h"
#include "media/shm_cache.h"
#include "support/media_frames.h"
#include "support/testenv.h"

namespace {

using Frame = cgtest::CachedFrame;
using cgtest::read_cached;
using cgtest::read_when_written;

std::string file_text(const std::vector<uint8_t> &v)
{
    return std::string(v.begin(), v.end());
}

class EncoderSimTest : public ::testing::Test {
  protected:
    encoder::Options options() const
    {
        encoder::Options o;
        o.key = key_;
        return o;
    }
    static encoder::VideoStream synthetic(int w, int h, int fps, int gop, int cache_kb)
    {
        encoder::VideoStream vs;
        vs.width = w;
        vs.height = h;
        vs.fps = fps;
        vs.gop = gop;
        vs.cache_kb = cache_kb;
        vs.i_frame_bytes = 8000;
        vs.p_frame_bytes = 1000;
        return vs;
    }
    bool start(const encoder::Options &o)
    {
        sim_ = std::make_unique<encoder::EncoderSim>(o);
        return sim_->start();
    }
    bool segment_exists() const { return shmget(key_, 0, 0) >= 0; }

    const cgtest::CacheKey cache_;
    const key_t key_ = cache_.key();
    std::unique_ptr<encoder::EncoderSim> sim_;  // stopped before the cache key goes
};

TEST_F(EncoderSimTest, SyntheticStreamsAudioAndSnapshotReachTheCache)
{
    encoder::Options o = options();
    o.video = {synthetic(320, 240, 50, 10, 256), synthetic(176, 144, 25, 5, 64)};
    o.audio_frame_ms = 20;
    o.audio_cache_kb = 16;
    o.snapshot_interval_ms = 100;
    o.snapshot_cache_kb = 64;
    ASSERT_TRUE(start(o)) << sim_->error();
    ASSERT_TRUE(sim_->wait_for_video(0, 5, 5000));

    EXPECT_EQ(get_snap_cache_idx(0), 2);
    EXPECT_EQ(get_audio_cache_idx(0), 3);
    int type = 0, kbps = 0, fps = 0, w = 0, h = 0;
    ASSERT_EQ(shm_cache_get_media_info(0, &type, &kbps, &fps, &w, &h), 0);
    EXPECT_EQ(type, CACHE_MEDIA_TYPE_H264);
    EXPECT_EQ(fps, 50);
    EXPECT_EQ(w, 320);
    EXPECT_EQ(h, 240);
    ASSERT_EQ(shm_cache_get_media_info(1, &type, &kbps, &fps, &w, &h), 0);
    EXPECT_EQ(w, 176);
    EXPECT_EQ(fps, 25);

    // The SPS the cache captured from the key frames describes the stream.
    unsigned profile_level = 0;
    char sps[1024], pps[1024];
    int sps_size = 0, pps_size = 0;
    ASSERT_EQ(shm_cache_get_sps_pps_data(0, &profile_level, sps, &sps_size, pps, &pps_size), 0);
    ASSERT_GT(sps_size, 4);
    ASSERT_GT(pps_size, 4);
    encoder::SpsInfo info;
    ASSERT_TRUE(
        encoder::parse_sps(reinterpret_cast<const uint8_t *>(sps) + 4, static_cast<size_t>(sps_size) - 4, &info));
    EXPECT_EQ(info.width, 320);
    EXPECT_EQ(info.height, 240);
    EXPECT_DOUBLE_EQ(info.fps, 50.0);
    EXPECT_EQ(profile_level >> 16, 66u);

    // Walk stream 0 from its newest key frame, as a viewer does: each frame
    // names its serial, key frames come every 10, and timestamps are 20 ms apart.
    Frame f = read_when_written(0, CACHE_SEL_NEWEST_GOP);
    ASSERT_EQ(f.ret, 0);
    for (int n = 0; n < 20; ++n) {
        encoder::SyntheticFrame sf;
        ASSERT_TRUE(encoder::parse_synthetic_frame(f.data.data(), f.data.size(), &sf)) << f.serial;
        EXPECT_EQ(sf.stream, 0);
        EXPECT_EQ(sf.frame, f.serial);
        EXPECT_EQ(sf.key, f.serial % 10 == 0) << f.serial;
        EXPECT_EQ(f.type, f.serial % 10 == 0 ? CACHE_FRAME_TYPE_I : CACHE_FRAME_TYPE_P) << f.serial;
        EXPECT_EQ(f.size, f.serial % 10 == 0 ? 8000 : 1000) << "frames come at the configured size";
        const Frame next = read_when_written(0, f.serial + 1);
        ASSERT_EQ(next.ret, 0) << next.serial;
        EXPECT_NEAR(next.ts - f.ts, 0.02, 1e-6);
        f = next;
    }
    Frame sub = read_when_written(1, CACHE_SEL_NEWEST_GOP);
    encoder::SyntheticFrame sf;
    ASSERT_TRUE(encoder::parse_synthetic_frame(sub.data.data(), sub.data.size(), &sf));
    EXPECT_EQ(sf.stream, 1);
    EXPECT_TRUE(sf.key);
    EXPECT_EQ(sf.frame % 5, 0);

    // Audio: 20 ms of mu-law tone per frame on the same clock as the video.
    ASSERT_TRUE(sim_->wait_for_audio(3, 3000));
    const Frame a = read_cached(3, CACHE_SEL_NEWEST);
    ASSERT_EQ(a.ret, 0);
    EXPECT_EQ(a.type, CACHE_FRAME_TYPE_AUDIO);
    EXPECT_EQ(a.size, 160);
    int peak = 0;
    for (char c : a.data) peak = std::max(peak, std::abs(encoder::ulaw_decode(static_cast<uint8_t>(c))));
    EXPECT_GT(peak, 7000);
    const Frame a_prev = read_cached(3, a.serial - 1);
    ASSERT_EQ(a_prev.ret, 0);
    EXPECT_NEAR(a.ts - a_prev.ts, 0.02, 1e-6);
    EXPECT_LT(std::fabs(a.ts - f.ts), 1.0) << "audio and video share one clock";
    ASSERT_EQ(shm_cache_get_media_info(3, &type, &kbps, &fps, &w, &h), 0);
    EXPECT_EQ(type, CACHE_MEDIA_TYPE_G711_ULAW);

    // Real time: 50 more frames at 50 fps take about a second, not less.
    const int64_t from = sim_->counters().video_frames[0];
    const int64_t t0 = cgtest::now_ms();
    ASSERT_TRUE(sim_->wait_for_video(0, from + 50, 5000));
    const int64_t took = cgtest::now_ms() - t0;
    EXPECT_GE(took, 900);
    EXPECT_LE(took, 3000);
    EXPECT_EQ(sim_->counters().write_errors, 0);
}

TEST_F(EncoderSimTest, PauseAndFrameLimit)
{
    encoder::Options o = options();
    o.video = {synthetic(64, 64, 100, 4, 64)};
    o.audio = false;
    o.snapshot = false;
    o.start_paused = true;
    o.max_video_frames = 12;
    ASSERT_TRUE(start(o)) << sim_->error();
    EXPECT_EQ(read_cached(0, CACHE_SEL_NEWEST).ret, CACHE_RET_NO_FRAME) << "the cache exists but is empty";
    EXPECT_FALSE(sim_->wait_for_video(0, 1, 200)) << "paused from the start";

    sim_->resume();
    ASSERT_TRUE(sim_->wait_for_video(0, 3, 3000));
    sim_->pause();
    const int64_t held = sim_->counters().video_frames[0];
    EXPECT_FALSE(sim_->wait_for_video(0, held + 2, 200)) << "a frame in flight at most";
    sim_->resume();
    ASSERT_TRUE(sim_->wait_for_video(0, 12, 3000));
    EXPECT_FALSE(sim_->wait_for_video(0, 13, 200)) << "the limit holds";
    const Frame first = read_cached(0, CACHE_SEL_OLDEST_GOP);
    ASSERT_EQ(first.ret, 0);
    EXPECT_EQ(first.serial, 0);
    EXPECT_EQ(first.type, CACHE_FRAME_TYPE_I) << "the first frame written is a key frame";
    EXPECT_EQ(read_cached(0, CACHE_SEL_NEWEST).serial, 11);
}

TEST_F(EncoderSimTest, ClipPlaysInALoop)
{
    // A clip of the first ten frames of the main sample: one key frame, nine P-frames.
    std::vector<uint8_t> sample;
    std::string err;
    ASSERT_TRUE(encoder::read_whole_file(encoder::sample_path("clip-640x360-25fps.h264"), &sample, &err));
    const std::vector<encoder::AccessUnit> aus = encoder::group_access_units(sample.data(), sample.size());
    ASSERT_GE(aus.size(), 10u);
    std::string clip;
    for (size_t i = 0; i < 10; ++i) clip += file_text(aus[i].bytes);
    cgtest::TempDir dir;
    ASSERT_TRUE(cgtest::write_file(dir.file("ten.h264"), clip));

    encoder::Options o = options();
    o.video.resize(1);
    o.video[0].clip = dir.file("ten.h264");
    o.video[0].cache_kb = 512;
    o.audio = false;
    o.snapshot = false;
    ASSERT_TRUE(start(o)) << sim_->error();
    const encoder::StreamInfo si = sim_->stream_info(0);
    EXPECT_EQ(si.width, 640);
    EXPECT_EQ(si.height, 360);
    EXPECT_EQ(si.fps, 25);
    EXPECT_EQ(si.loop_frames, 10);

    ASSERT_TRUE(sim_->wait_for_video(0, 14, 5000));
    for (int s = 1; s <= 13; ++s) {
        const Frame f = read_cached(0, s);
        ASSERT_EQ(f.ret, 0) << s;
        EXPECT_EQ(f.data, file_text(aus[static_cast<size_t>(s % 10)].bytes)) << "serial " << s;
        EXPECT_EQ(f.type, s % 10 == 0 ? CACHE_FRAME_TYPE_I : CACHE_FRAME_TYPE_P) << s;
    }
    EXPECT_EQ(read_cached(0, CACHE_SEL_NEWEST_GOP).serial, 10) << "the loop starts again at its key frame";
    unsigned profile_level = 0;
    char sps[1024], pps[1024];
    int sps_size = 0, pps_size = 0;
    ASSERT_EQ(shm_cache_get_sps_pps_data(0, &profile_level, sps, &sps_size, pps, &pps_size), 0);
    EXPECT_EQ(profile_level, 0x4d401eu) << "Main profile, level 3.0";
    const std::vector<encoder::NalUnit> nals = encoder::split_nal_units(aus[0].bytes.data(), aus[0].bytes.size());
    EXPECT_EQ(std::string(sps + 4, static_cast<size_t>(sps_size - 4)),
              std::string(reinterpret_cast<const char *>(nals[0].data), nals[0].size));
    EXPECT_EQ(std::string(pps + 4, static_cast<size_t>(pps_size - 4)),
              std::string(reinterpret_cast<const char *>(nals[1].data), nals[1].size))
        << "the PPS ends where the slice begins";
}

TEST_F(EncoderSimTest, RefusesWhatItCannotPlay)
{
    cgtest::TempDir dir;
    ASSERT_TRUE(cgtest::write_file(dir.file("p-only.h264"), std::string("\x00\x00\x00\x01\x41\x9a\x22", 7)));
    ASSERT_TRUE(cgtest::write_file(dir.file("text.jpg"), "hello"));
    struct Case {
        const char *what;
        std::function<void(encoder::Options &)> change;
        const char *error;
    };
    const Case cases[] = {
        {"no key frame", [&](encoder::Options &o) { o.video[0].clip = dir.file("p-only.h264"); }, "no H.264 IDR"},
        {"not a JPEG", [&](encoder::Options &o) { o.jpeg = dir.file("text.jpg"); }, "no JPEG"},
        {"eight streams", [](encoder::Options &o) { o.video.resize(8, o.video[0]); }, "8 video streams"},
        {"odd size",
         [](encoder::Options &o) {
             o.video[0].clip.clear();
             o.video[0].width = 321;
         },
         "even"},
        {"cache too small", [](encoder::Options &o) { o.video[0].cache_kb = 4; }, "cannot hold its largest frame"},
        {"audio cache too small",
         [](encoder::Options &o) {
             o.audio_cache_kb = 1;
             o.audio_frame_ms = 200;
         },
         "cannot hold one frame"},
    };
    for (const Case &c : cases) {
        encoder::Options o = options();
        c.change(o);
        EXPECT_FALSE(start(o)) << c.what;
        EXPECT_NE(sim_->error().find(c.error), std::string::npos) << c.what << ": " << sim_->error();
        EXPECT_FALSE(segment_exists()) << c.what << ": nothing is created";
    }
}

TEST_F(EncoderSimTest, StopRemovesTheCacheAndStartBeginsAnew)
{
    encoder::Options o = options();
    o.video = {synthetic(64, 64, 50, 5, 32)};
    o.max_video_frames = 3;
    ASSERT_TRUE(start(o)) << sim_->error();
    ASSERT_TRUE(sim_->wait_for_video(0, 3, 3000));
    EXPECT_TRUE(segment_exists());
    sim_->stop();
    EXPECT_FALSE(segment_exists());
    EXPECT_LT(semget(key_, 0, 0), 0);
    EXPECT_EQ(read_cached(0, CACHE_SEL_NEWEST).ret, CACHE_RET_NOT_INIT);
    sim_->stop();  // twice is harmless

    // Started again: a fresh cache, and the frame limit counts from zero again.
    ASSERT_TRUE(sim_->start()) << sim_->error();
    const Frame third = read_when_written(0, 2);
    ASSERT_EQ(third.ret, 0);
    EXPECT_EQ(third.serial, 2);
}

// Bits a second of a synthetic stream with the frame sizes of vs.
double stream_kbps(const encoder::VideoStream &vs)
{
    return (static_cast<double>(vs.i_frame_bytes) + static_cast<double>(vs.p_frame_bytes) * (vs.gop - 1)) * 8.0 *
           vs.fps / vs.gop / 1000.0;
}

TEST(EncoderBitrate, FramesAreSizedForTheAskedRate)
{
    struct Case {
        int kbps, fps, gop;
    } cases[] = {{4000, 25, 25}, {16000, 25, 25}, {2000, 30, 60}, {512, 15, 1}};
    for (const Case &c : cases) {
        encoder::VideoStream vs;
        vs.fps = c.fps;
        vs.gop = c.gop;
        encoder::size_for_bitrate(&vs, c.kbps);
        SCOPED_TRACE(std::to_string(c.kbps) + " kbit/s, GOP " + std::to_string(c.gop));
        EXPECT_NEAR(stream_kbps(vs), c.kbps, c.kbps * 0.01);
        EXPECT_EQ(vs.i_frame_bytes, 8 * vs.p_frame_bytes);
    }
    // Below what the smallest frames carry, the frames keep their smallest sizes.
    encoder::VideoStream tiny;
    encoder::size_for_bitrate(&tiny, 16);
    EXPECT_GE(tiny.p_frame_bytes, 64);
    EXPECT_GE(tiny.i_frame_bytes, 128);
}

}  // namespace

// Frame bookkeeping inside one cache, on a segment-shaped buffer in memory.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "media/cache_mng.h"
#include "media/shm_cache.h"

namespace {

// A segment with one cache of `blocks` data blocks, laid out as the writer lays it out.
class MemCache {
  public:
    explicit MemCache(int blocks, int media_type = CACHE_MEDIA_TYPE_H264)
        : seg_(static_cast<size_t>(CACHE_INFO_SIZE + CACHE_STRUCT_SIZE + blocks * CACHE_BLK_BUF_SIZE))
    {
        c = reinterpret_cast<CacheMng *>(seg_.data() + CACHE_INFO_SIZE);
        c->media_idx = 0;
        c->cache_buf_offset = CACHE_INFO_SIZE + CACHE_STRUCT_SIZE;
        c->cache_buf_size = blocks * CACHE_BLK_BUF_SIZE;
        cache_mng_reset(c);
        c->media_type = media_type;
    }
    // Bytes of frame `f` as they lie in the data buffer.
    std::string data_of(const CacheFrame *f) const
    {
        return std::string(seg_.data() + c->cache_buf_offset + f->blkindex * CACHE_BLK_BUF_SIZE,
                           static_cast<size_t>(f->framesize));
    }
    int write(const std::string &bytes, int type, double ts = 0.0)
    {
        std::string copy = bytes;
        return write_cache_frame(c, copy.data(), static_cast<int>(copy.size()), type, ts);
    }
    CacheFrame *read(int selector) { return read_cache_frame(c, &selector); }

    CacheMng *c = nullptr;

  private:
    std::vector<char> seg_;
};

// Frame bytes that name their serial, so a frame overwritten by another shows.
std::string frame_bytes(int serial, int size)
{
    std::string s(static_cast<size_t>(size), '\0');
    for (int i = 0; i < size; ++i) s[static_cast<size_t>(i)] = static_cast<char>((serial * 31 + i * 7) & 0xFF);
    return s;
}

// Every invariant of the rings; returns a description of the first one broken ("" when all hold).
std::string check_invariants(const MemCache &m, bool check_data)
{
    const CacheMng *c = m.c;
    std::vector<int> owner(static_cast<size_t>(c->blk_total_nums), -1);
    int held = 0;
    for (int slot = 0; slot < CACHE_FRAME_NUMS; ++slot) {
        const CacheFrame &f = c->cache_frame[slot];
        if (f.frametype == CACHE_FRAME_TYPE_EMPTY) {
            if (f.blknums != 0) return "empty slot " + std::to_string(slot) + " holds blocks";
            continue;
        }
        if (f.blkindex < 0 || f.blkindex + f.blknums > c->blk_total_nums)
            return "slot " + std::to_string(slot) + " wraps or leaves the block ring";
        if (f.framesize > f.blknums * CACHE_BLK_BUF_SIZE) return "slot " + std::to_string(slot) + " overflows";
        for (int b = f.blkindex; b < f.blkindex + f.blknums; ++b) {
            if (owner[static_cast<size_t>(b)] >= 0)
                return "block " + std::to_string(b) + " held by slots " +
                       std::to_string(owner[static_cast<size_t>(b)]) + " and " + std::to_string(slot);
            owner[static_cast<size_t>(b)] = slot;
        }
        held += f.blknums;
        if (f.frametype == CACHE_FRAME_TYPE_DUMMY) continue;
        if (c->serial_to_frame[f.serial % CACHE_FRAME_NUMS] != slot)
            return "serial " + std::to_string(f.serial) + " not indexed";
        if (check_data && m.data_of(&f) != frame_bytes(f.serial, f.framesize))
            return "data of serial " + std::to_string(f.serial) + " overwritten";
    }
    if (c->blk_free_nums != c->blk_total_nums - held)
        return "blk_free_nums " + std::to_string(c->blk_free_nums) + " but " + std::to_string(held) + " held of " +
               std::to_string(c->blk_total_nums);
    // Serials rise along the ring from the oldest slot to the newest.
    int last = -1;
    for (int k = 1; k <= CACHE_FRAME_NUMS; ++k) {
        const CacheFrame &f = c->cache_frame[(c->cur_frame + k) % CACHE_FRAME_NUMS];
        if (f.frametype == CACHE_FRAME_TYPE_EMPTY || f.frametype == CACHE_FRAME_TYPE_DUMMY) continue;
        if (f.serial <= last) return "serials out of ring order";
        last = f.serial;
    }
    if (last != c->cur_serial) return "newest serial is not cur_serial";
    return "";
}

TEST(CacheMng, SerialsGopsAndSelectors)
{
    MemCache m(64);
    const int types[] = {CACHE_FRAME_TYPE_I, CACHE_FRAME_TYPE_P, CACHE_FRAME_TYPE_P,
                         CACHE_FRAME_TYPE_I, CACHE_FRAME_TYPE_P, CACHE_FRAME_TYPE_B};
    for (int s = 0; s < 6; ++s) ASSERT_EQ(m.write(frame_bytes(s, 1500), types[s], s * 0.04), 0);
    EXPECT_EQ(check_invariants(m, true), "");
    EXPECT_EQ(m.c->cur_serial, 5);
    EXPECT_EQ(m.c->cur_frame, 5);
    EXPECT_EQ(m.c->cur_blk_index, 11) << "six frames of two blocks";

    for (int s = 1; s <= 5; ++s) {
        CacheFrame *f = m.read(s);
        ASSERT_NE(f, nullptr) << s;
        EXPECT_EQ(f->serial, s);
        EXPECT_EQ(f->frametype, types[s]);
        EXPECT_DOUBLE_EQ(f->timestamp, s * 0.04);
        EXPECT_EQ(m.data_of(f), frame_bytes(s, 1500));
    }
    EXPECT_EQ(m.read(6), nullptr) << "not written yet";
    EXPECT_EQ(m.read(CACHE_SEL_NEWEST)->serial, 5);
    EXPECT_EQ(m.read(CACHE_SEL_NEWEST_GOP)->serial, 3);
    EXPECT_EQ(m.read(CACHE_SEL_OLDEST_GOP)->serial, 0) << "serial 0 is reachable only through a GOP selector";
    EXPECT_EQ(m.read(-3), nullptr);

    // The first GOP was closed by the second I-frame; the open one has no end yet.
    EXPECT_EQ(m.c->cur_gop, 1);
    EXPECT_EQ(m.c->cache_gop[0].start_I_serial, 0);
    EXPECT_EQ(m.c->cache_gop[0].end_P_serial, 2);
    EXPECT_EQ(m.c->cache_gop[0].end_P_frame_idx, 2);
    EXPECT_EQ(m.c->cache_gop[1].start_I_serial, 3);
    EXPECT_EQ(m.c->cache_gop[1].start_I_frame_idx, 3);
    EXPECT_EQ(m.c->cache_gop[1].end_P_serial, -1);
}

TEST(CacheMng, GopClosedInSlotOneRecordsSlot299)
{
    MemCache m(8);
    ASSERT_EQ(m.write("a", CACHE_FRAME_TYPE_I), 0);
    ASSERT_EQ(m.write("b", CACHE_FRAME_TYPE_I), 0);  // lands in slot 1
    EXPECT_EQ(m.c->cache_gop[0].end_P_serial, 0);
    EXPECT_EQ(m.c->cache_gop[0].end_P_frame_idx, 299);
}

TEST(CacheMng, FrameSizeLimits)
{
    MemCache m(10);
    ASSERT_EQ(m.write(frame_bytes(0, 3000), CACHE_FRAME_TYPE_I), 0);
    ASSERT_EQ(m.write(frame_bytes(1, 3000), CACHE_FRAME_TYPE_P), 0);

    // One block more than the buffer: refused, and nothing at all changes.
    std::vector<char> before(reinterpret_cast<char *>(m.c), reinterpret_cast<char *>(m.c) + sizeof(CacheMng));
    EXPECT_EQ(m.write(std::string(10 * 1024 + 1, 'x'), CACHE_FRAME_TYPE_I), CACHE_RET_FRAME_TOO_BIG);
    EXPECT_EQ(std::memcmp(before.data(), m.c, sizeof(CacheMng)), 0);

    // Exactly the whole buffer: accepted, evicting everything else.
    ASSERT_EQ(m.write(frame_bytes(2, 10 * 1024), CACHE_FRAME_TYPE_I), 0);
    EXPECT_EQ(m.c->blk_free_nums, 0);
    EXPECT_EQ(m.read(1), nullptr);
    EXPECT_EQ(m.read(CACHE_SEL_NEWEST)->serial, 2);
    EXPECT_EQ(check_invariants(m, true), "");

    // A frame with no data is a frame: it takes a serial and no block.
    ASSERT_EQ(m.write("", CACHE_FRAME_TYPE_P), 0);
    EXPECT_EQ(m.read(3)->framesize, 0);
    EXPECT_EQ(m.read(2)->serial, 2) << "an empty frame evicts nothing";
    EXPECT_EQ(check_invariants(m, true), "");
    EXPECT_EQ(write_cache_frame(m.c, nullptr, -1, CACHE_FRAME_TYPE_P, 0), CACHE_RET_NOT_INIT);

    // A cache without blocks takes no frame at all, not even an empty one.
    MemCache none(0);
    EXPECT_EQ(none.write("", CACHE_FRAME_TYPE_P), CACHE_RET_FRAME_TOO_BIG);
    EXPECT_EQ(insert_cache_frame(none.c, nullptr, 0, CACHE_FRAME_TYPE_P, 0, 0), CACHE_RET_NOT_INIT);
    EXPECT_EQ(none.c->cur_serial, -1);
}

TEST(CacheMng, DataThatWouldWrapStartsAtBlockZeroAfterADummy)
{
    MemCache m(10);
    for (int s = 0; s < 3; ++s) ASSERT_EQ(m.write(frame_bytes(s, 3 * 1024), CACHE_FRAME_TYPE_P, s), 0);
    ASSERT_EQ(m.c->cur_blk_index, 8);

    // Four blocks: serial 0 is evicted, the dummy takes block 9, and the scan
    // restarts behind the dummy, passes the empty slots and evicts serial 1.
    ASSERT_EQ(m.write(frame_bytes(3, 4 * 1024), CACHE_FRAME_TYPE_P, 3.5), 0);
    const CacheFrame &dummy = m.c->cache_frame[3];
    EXPECT_EQ(dummy.frametype, CACHE_FRAME_TYPE_DUMMY);
    EXPECT_EQ(dummy.serial, 2) << "the dummy carries the serial before it";
    EXPECT_EQ(dummy.blkindex, 9);
    EXPECT_EQ(dummy.blknums, 1);
    EXPECT_EQ(dummy.framesize, 0);
    EXPECT_DOUBLE_EQ(dummy.timestamp, 3.5);

    const CacheFrame *f = m.read(3);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f - m.c->cache_frame, 4);
    EXPECT_EQ(f->blkindex, 0);
    EXPECT_EQ(f->blknums, 4);
    EXPECT_EQ(m.c->cur_serial, 3) << "the dummy did not count";
    EXPECT_EQ(m.read(1), nullptr);
    EXPECT_EQ(m.c->last_free_serial, 1);
    EXPECT_EQ(m.read(2)->serial, 2);
    EXPECT_EQ(check_invariants(m, true), "");
    for (int s = 0; s < CACHE_FRAME_NUMS; ++s) EXPECT_NE(m.c->serial_to_frame[s], 3) << "dummy indexed";
}

TEST(CacheMng, FrameSlotRingWrapsAfter300Frames)
{
    MemCache m(512);
    for (int s = 0; s < 301; ++s)
        ASSERT_EQ(m.write(frame_bytes(s, 100), s ? CACHE_FRAME_TYPE_P : CACHE_FRAME_TYPE_I), 0);
    EXPECT_EQ(m.c->cur_frame, 0) << "serial 300 reuses the first slot";
    EXPECT_EQ(m.c->cache_frame[0].serial, 300);
    // The slot of the I-frame now holds a P-frame: the GOP selectors look at the slot's type, not its serial.
    EXPECT_EQ(m.read(CACHE_SEL_NEWEST_GOP)->serial, 300);
    EXPECT_EQ(m.read(CACHE_SEL_OLDEST_GOP)->serial, 300);
    EXPECT_EQ(m.read(300)->serial, 300);
    EXPECT_EQ(m.read(1)->serial, 1) << "slot 1 still holds serial 1";
    EXPECT_EQ(m.c->last_free_serial, -1) << "a reused slot is overwritten, not evicted";

    ASSERT_EQ(m.write(frame_bytes(301, 100), CACHE_FRAME_TYPE_P), 0);
    EXPECT_EQ(m.read(1), nullptr) << "serial 301 took the index entry and the slot of serial 1";
    EXPECT_EQ(m.read(301)->serial, 301);
    EXPECT_EQ(check_invariants(m, true), "");
}

TEST(CacheMng, GopSelectorsAfterTheKeyFrameIsGone)
{
    // The I-frame is evicted for its blocks and its slot stays EMPTY: the newest-GOP selector
    // finds nothing, the oldest-GOP selector still hands out that empty slot.
    MemCache small(4);
    ASSERT_EQ(small.write(std::string(2048, 'I'), CACHE_FRAME_TYPE_I), 0);
    ASSERT_EQ(small.write(std::string(2048, 'P'), CACHE_FRAME_TYPE_P), 0);
    ASSERT_EQ(small.write(std::string(2048, 'P'), CACHE_FRAME_TYPE_P), 0);
    EXPECT_EQ(small.c->cache_frame[0].frametype, CACHE_FRAME_TYPE_EMPTY);
    EXPECT_EQ(small.read(CACHE_SEL_NEWEST_GOP), nullptr);
    const CacheFrame *f = small.read(CACHE_SEL_OLDEST_GOP);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f, &small.c->cache_frame[0]);
    EXPECT_EQ(f->framesize, 0);

    // With two GOPs the oldest one whose I-frame survives wins.
    MemCache two(64);
    for (int s = 0; s < 4; ++s) ASSERT_EQ(two.write("x", s % 2 ? CACHE_FRAME_TYPE_P : CACHE_FRAME_TYPE_I), 0);
    EXPECT_EQ(two.read(CACHE_SEL_OLDEST_GOP)->serial, 0);
    free_cache_frame(two.c, 0);
    EXPECT_EQ(two.read(CACHE_SEL_OLDEST_GOP)->serial, 2);
}

TEST(CacheMng, EvictionFreesBlocksAndIndex)
{
    MemCache m(16);
    ASSERT_EQ(m.write(frame_bytes(0, 2048), CACHE_FRAME_TYPE_I), 0);
    ASSERT_EQ(m.write(frame_bytes(1, 1024), CACHE_FRAME_TYPE_P), 0);
    free_cache_frame(m.c, 1);
    EXPECT_EQ(m.c->blk_free_nums, 14);
    EXPECT_EQ(m.c->last_free_serial, 1);
    EXPECT_EQ(m.c->serial_to_frame[1], -1);
    EXPECT_EQ(m.c->cache_frame[1].frametype, CACHE_FRAME_TYPE_EMPTY);
    free_cache_frame(m.c, 1);  // already empty: nothing happens
    free_cache_frame(m.c, 300);
    free_cache_frame(m.c, -1);
    EXPECT_EQ(m.c->blk_free_nums, 14);

    // A dummy gives its blocks back but leaves last_free_serial alone.
    ASSERT_EQ(insert_cache_frame(m.c, nullptr, 0, CACHE_FRAME_TYPE_DUMMY, 0, 3), 0);
    EXPECT_EQ(m.c->blk_free_nums, 11);
    free_cache_frame(m.c, m.c->cur_frame);
    EXPECT_EQ(m.c->blk_free_nums, 14);
    EXPECT_EQ(m.c->last_free_serial, 1);
}

TEST(CacheMng, RandomTrafficKeepsEveryInvariant)
{
    // Frames of random sizes (up to a third of the buffer) with periodic I-frames, checked after every write.
    std::mt19937 rng(20240601);
    for (int blocks : {7, 40, 333}) {
        MemCache m(blocks);
        std::uniform_int_distribution<int> size(0, blocks * CACHE_BLK_BUF_SIZE / 3);
        int newest_i = -1;
        for (int s = 0; s < 2000; ++s) {
            const int type = (s % 25 == 0) ? CACHE_FRAME_TYPE_I : CACHE_FRAME_TYPE_P;
            ASSERT_EQ(m.write(frame_bytes(s, size(rng)), type, s / 25.0), 0);
            if (type == CACHE_FRAME_TYPE_I) newest_i = s;
            const std::string broken = check_invariants(m, true);
            ASSERT_EQ(broken, "") << "after serial " << s << " in " << blocks << " blocks";
            ASSERT_EQ(m.read(CACHE_SEL_NEWEST)->serial, s);
            const CacheFrame *gop = m.read(CACHE_SEL_NEWEST_GOP);
            if (gop != nullptr && gop->frametype == CACHE_FRAME_TYPE_I) {
                ASSERT_EQ(gop->serial, newest_i);
            }
        }
        ASSERT_GT(m.c->last_free_serial, 0);
        EXPECT_EQ(m.read(m.c->last_free_serial), nullptr) << "the most recently evicted serial is gone";
    }
}

TEST(CacheMng, AudioMatchedToVideoByTime)
{
    // Timestamps a quarter second apart, exact in binary, so ties and the one-second limit are exact.
    MemCache m(64, CACHE_MEDIA_TYPE_G711_ULAW);
    for (int s = 0; s < 10; ++s) ASSERT_EQ(m.write(std::string(320, 'a'), CACHE_FRAME_TYPE_AUDIO, 100.0 + s * 0.25), 0);
    EXPECT_EQ(get_sync_audio_frame(m.c, 100.8)->serial, 3);
    EXPECT_EQ(get_sync_audio_frame(m.c, 100.125)->serial, 1) << "a tie goes to the later slot";
    EXPECT_EQ(get_sync_audio_frame(m.c, 103.25)->serial, 9) << "exactly one second away still counts";
    EXPECT_EQ(get_sync_audio_frame(m.c, 99.0)->serial, 0);
    EXPECT_EQ(get_sync_audio_frame(m.c, 103.26), nullptr);
    EXPECT_EQ(get_sync_audio_frame(m.c, 98.99), nullptr);

    // Dummies and empty slots never match, whatever their timestamp.
    ASSERT_EQ(insert_cache_frame(m.c, nullptr, 0, CACHE_FRAME_TYPE_DUMMY, 200.0, 1), 0);
    EXPECT_EQ(get_sync_audio_frame(m.c, 200.0), nullptr);
}

// ---------------------------------------------------------------------------
// Codec configuration captured from the stream.

std::string nal(const std::string &start, unsigned char header, const std::string &body)
{
    return start + std::string(1, static_cast<char>(header)) + body;
}
const std::string SC4("\x00\x00\x00\x01", 4);
const std::string SC3("\x00\x00\x01", 3);

TEST(CacheMng, H264ParameterSetsFromEveryKeyFrame)
{
    MemCache m(64);
    const std::string sps1 = nal(SC4, 0x67, std::string("\x4d\x40\x1e\x95\xa8\x28", 6));
    const std::string pps1 = nal(SC4, 0x68, std::string("\xee\x3c\x80", 3));
    const std::string sei = nal(SC4, 0x06, "sei");
    const std::string idr = nal(SC4, 0x65, std::string(500, '\x11'));

    // Parameter sets in a P-frame are not looked at.
    ASSERT_EQ(m.write(sps1 + pps1 + idr, CACHE_FRAME_TYPE_P), 0);
    EXPECT_EQ(m.c->sps_data_size, 0);

    ASSERT_EQ(m.write(sei + sps1 + sei + pps1 + idr, CACHE_FRAME_TYPE_I), 0);
    EXPECT_EQ(m.c->profile_level, 0x4d401eu);
    EXPECT_EQ(std::string(m.c->sps_data, static_cast<size_t>(m.c->sps_data_size)), sps1);
    EXPECT_EQ(std::string(m.c->pps_data, static_cast<size_t>(m.c->pps_data_size)), pps1);

    // A later key frame refreshes them; one whose PPS is missing (or behind a
    // three-byte start code) keeps the previous PPS but takes the new SPS.
    const std::string sps2 = nal(SC4, 0x27, std::string("\x42\xc0\x28\xda", 4));
    ASSERT_EQ(m.write(sps2 + nal(SC3, 0x68, "xyz") + idr, CACHE_FRAME_TYPE_I), 0);
    EXPECT_EQ(m.c->profile_level, 0x42c028u);
    EXPECT_EQ(std::string(m.c->sps_data, static_cast<size_t>(m.c->sps_data_size)), sps2 + nal(SC3, 0x68, "xyz"))
        << "the SPS runs to the next 4-byte start code";
    EXPECT_EQ(std::string(m.c->pps_data, static_cast<size_t>(m.c->pps_data_size)), pps1);

    // Only three-byte start codes: nothing is recognised.
    ASSERT_EQ(m.write(nal(SC3, 0x67, "\x64\x00\x33") + idr, CACHE_FRAME_TYPE_I), 0);
    EXPECT_EQ(m.c->profile_level, 0x42c028u);

    // A parameter set longer than the field is cut to 1024 bytes.
    const std::string long_sps = nal(SC4, 0x67, std::string(3000, '\x55'));
    ASSERT_EQ(m.write(long_sps + pps1, CACHE_FRAME_TYPE_I), 0);
    EXPECT_EQ(m.c->sps_data_size, CACHE_CONFIG_DATA_SIZE);
    EXPECT_EQ(std::string(m.c->pps_data, static_cast<size_t>(m.c->pps_data_size)), pps1);

    // An SPS cut off before its profile bytes changes nothing.
    ASSERT_EQ(m.write(idr + SC4 + "\x67\x4d", CACHE_FRAME_TYPE_I), 0);
    EXPECT_EQ(m.c->sps_data_size, CACHE_CONFIG_DATA_SIZE);
}

TEST(CacheMng, Mpeg4VolCapturedOnce)
{
    MemCache m(64, CACHE_MEDIA_TYPE_MPEG4);
    const std::string first("\x00\x00\x01\x20\x00\x84\x5d\x4c\x28\x50\x20\xf0\xa2\x1f\x00\x00\x01\xb6\x10\x60", 20);
    ASSERT_EQ(m.write(first, CACHE_FRAME_TYPE_P), 0);
    const std::string expected = std::string("\x00\x00\x01\xb0\x01\x00\x00\x01\xb5\x09", 10) + first.substr(0, 18);
    EXPECT_EQ(std::string(m.c->vol_data, static_cast<size_t>(m.c->vol_data_size)), expected);
    ASSERT_EQ(m.write(std::string(40, '\x77'), CACHE_FRAME_TYPE_I), 0);
    EXPECT_EQ(std::string(m.c->vol_data, static_cast<size_t>(m.c->vol_data_size)), expected);

    MemCache tiny(4, CACHE_MEDIA_TYPE_MPEG4);
    ASSERT_EQ(tiny.write("abc", CACHE_FRAME_TYPE_I), 0);
    EXPECT_EQ(tiny.c->vol_data_size, 13) << "a frame shorter than 18 bytes is not read past";
}

TEST(CacheMng, AacConfigurationFromTheAdtsHeader)
{
    struct Case {
        std::string frame;
        const char *config;  // nullptr: refused
    };
    const Case cases[] = {
        {std::string("\xff\xf1\x50\x80...", 7), "1210"},   // LC, 44100 Hz, 2 channels
        {std::string("\xff\xf1\x4c\x40...", 7), "1188"},   // LC, 48000 Hz, 1 channel
        {std::string("\xff\xf9\x15\x00...", 7), "0Aa0"},   // Main, 32000 Hz, 4 channels: upper then lower case
        {std::string("\xff\xe1\x50\x80...", 7), nullptr},  // sync word
        {std::string("\xff\xf1\xd0\x80...", 7), nullptr},  // profile 3
        {std::string("\xff\xf1\x74\x80...", 7), nullptr},  // sampling index 13
        {std::string("\xff\xf1\x50", 3), nullptr},         // too short for a header
    };
    for (const Case &c : cases) {
        MemCache m(8, CACHE_MEDIA_TYPE_AAC);
        ASSERT_EQ(m.write(c.frame, CACHE_FRAME_TYPE_AUDIO), 0);
        if (c.config == nullptr) {
            EXPECT_EQ(m.c->vol_data_size, 0);
            // A refused header leaves the capture open: the next frame is examined again.
            ASSERT_EQ(m.write(std::string("\xff\xf1\x50\x80", 4), CACHE_FRAME_TYPE_AUDIO), 0);
            EXPECT_EQ(std::string(m.c->vol_data, 4), "1210");
        } else {
            EXPECT_EQ(m.c->vol_data_size, 4);
            EXPECT_EQ(std::string(m.c->vol_data, 4), c.config);
            ASSERT_EQ(m.write(std::string("\xff\xf1\x4c\x40", 4), CACHE_FRAME_TYPE_AUDIO), 0);
            EXPECT_EQ(std::string(m.c->vol_data, 4), c.config) << "captured once";
        }
    }
}

TEST(CacheMng, FirstParameterSetsAreDumpedToTheLog)
{
    MemCache m(8);
    const std::string sps = nal(SC4, 0x67, std::string("\x4d\x40\x1e", 3)) + std::string(12, '\x01');
    ::testing::internal::CaptureStdout();
    ASSERT_EQ(m.write(sps, CACHE_FRAME_TYPE_I), 0);
    ASSERT_EQ(m.write(sps, CACHE_FRAME_TYPE_I), 0);
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("profile level:0x4d401e\n"), std::string::npos) << out;
    EXPECT_NE(out.find("sps data size : 20 media_idx : 0 \n"), std::string::npos) << out;
    EXPECT_NE(out.find("\n0x00 0x00 0x00 0x01 0x67 0x4d 0x40 0x1e 0x01 0x01 0x01 0x01 0x01 0x01 0x01 0x01 \n"
                       "0x01 0x01 0x01 0x01 \n"),
              std::string::npos)
        << out;
    EXPECT_EQ(out.find("sps data size", out.find("sps data size") + 1), std::string::npos) << "only the first time";
    EXPECT_EQ(cache_dump_raw_data(nullptr, 4), -1);
    EXPECT_EQ(cache_get_rtsp_data(nullptr, nullptr, 0, 0), -2);
}

}  // namespace

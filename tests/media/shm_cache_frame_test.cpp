// Writing and reading frames through the shared segment, within a process and across two.
#include <gtest/gtest.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "media/cache_mng.h"
#include "media/shm_cache.h"
#include "support/media_frames.h"
#include "support/testenv.h"
#include "support/text.h"

namespace {

// Frame bytes that carry their serial: 4 bytes of serial, then a pattern from it.
std::string frame_bytes(int serial, int size)
{
    std::string s(static_cast<size_t>(size < 4 ? 4 : size), '\0');
    std::memcpy(&s[0], &serial, 4);
    for (size_t i = 4; i < s.size(); ++i) s[i] = static_cast<char>((serial + static_cast<int>(i)) & 0xFF);
    return s;
}

int write(int idx, const std::string &bytes, int type, double ts = 0.0)
{
    std::string copy = bytes;
    return shm_cache_write_frame(idx, copy.data(), static_cast<int>(copy.size()), type, ts);
}

using cgtest::read_cached;

class ShmCacheFrames : public ::testing::Test {
  protected:
    // One video cache of video_k K, a snapshot cache and, when asked, an audio cache.
    void create(int video_k, int audio_caches = 1)
    {
        shm_cache_info_t info{1, {video_k}, 1, {64}, audio_caches, {16}};
        ASSERT_EQ(shm_cache_writer_init(&info), 0);
    }
    const cgtest::CacheKey cache_;
    const key_t key_ = cache_.key();
};

TEST_F(ShmCacheFrames, ReadResults)
{
    create(8);
    for (int sel : {0, int(CACHE_SEL_NEWEST_GOP), int(CACHE_SEL_OLDEST_GOP), 1})
        EXPECT_EQ(read_cached(0, sel).ret, CACHE_RET_NO_FRAME) << "empty cache, selector " << sel;

    for (int s = 0; s < 6; ++s)
        ASSERT_EQ(write(0, frame_bytes(s, 2000), s % 3 ? CACHE_FRAME_TYPE_P : CACHE_FRAME_TYPE_I, s), 0);
    // Eight blocks hold four two-block frames: serials 2..5.
    auto r = read_cached(0, 4);
    ASSERT_EQ(r.ret, 0);
    EXPECT_EQ(r.serial, 4);
    EXPECT_EQ(r.size, 2000);
    EXPECT_EQ(r.type, CACHE_FRAME_TYPE_P);
    EXPECT_DOUBLE_EQ(r.ts, 4.0);
    EXPECT_EQ(r.data, frame_bytes(4, 2000));

    r = read_cached(0, CACHE_SEL_NEWEST_GOP);
    EXPECT_EQ(r.ret, 0);
    EXPECT_EQ(r.serial, 3) << "the selector is replaced by the serial found";
    EXPECT_EQ(r.data, frame_bytes(3, 2000));
    EXPECT_EQ(read_cached(0, CACHE_SEL_OLDEST_GOP).serial, 3) << "the first GOP's I-frame is gone";
    EXPECT_EQ(read_cached(0, CACHE_SEL_NEWEST).serial, 5);

    EXPECT_EQ(read_cached(0, 6).ret, CACHE_RET_NO_FRAME) << "the next serial: wait";
    EXPECT_EQ(read_cached(0, 1000).ret, CACHE_RET_NO_FRAME);
    EXPECT_EQ(read_cached(0, 1).ret, CACHE_RET_OVER_WRITE) << "evicted: start again from a key frame";
    EXPECT_EQ(read_cached(0, -3).ret, CACHE_RET_OVER_WRITE);

    // Too small a buffer: the frame is described but nothing is copied.
    r = read_cached(0, 5, 1999);
    EXPECT_EQ(r.ret, CACHE_RET_BUF_TOO_SMALL);
    EXPECT_EQ(r.serial, 5);
    EXPECT_EQ(r.size, 2000);
    EXPECT_EQ(r.type, CACHE_FRAME_TYPE_P);
    EXPECT_DOUBLE_EQ(r.ts, 5.0);
    EXPECT_EQ(r.data, "");
    EXPECT_EQ(read_cached(0, 5, 2000).ret, 0);

    // An audio cache has no GOPs: the key-frame selector finds nothing once audio flows.
    const int audio = get_audio_cache_idx(0);
    ASSERT_EQ(write(audio, std::string(320, 'u'), CACHE_FRAME_TYPE_AUDIO), 0);
    EXPECT_EQ(read_cached(audio, CACHE_SEL_NEWEST_GOP).ret, CACHE_RET_OVER_WRITE);
    EXPECT_EQ(read_cached(audio, CACHE_SEL_NEWEST).serial, 0);

    // Reset empties the cache.
    ASSERT_EQ(shm_cache_reset(0), 0);
    EXPECT_EQ(read_cached(0, 5).ret, CACHE_RET_NO_FRAME);
}

TEST_F(ShmCacheFrames, ArgumentsAndAttachment)
{
    char buf[16];
    int serial = 0, size = 0, type = 0;
    double ts = 0;
    EXPECT_EQ(shm_cache_read_frame(0, &serial, buf, 16, &size, &type, &ts), CACHE_RET_NOT_INIT) << "not attached";
    EXPECT_EQ(shm_cache_write_frame(0, buf, 16, CACHE_FRAME_TYPE_I, 0), CACHE_RET_NOT_INIT);
    EXPECT_EQ(shm_cache_sync_audio(&serial, 0), CACHE_RET_NOT_INIT);

    create(4);
    EXPECT_EQ(shm_cache_read_frame(3, &serial, buf, 16, &size, &type, &ts), CACHE_RET_BAD_IDX);
    EXPECT_EQ(shm_cache_read_frame(-1, &serial, buf, 16, &size, &type, &ts), CACHE_RET_BAD_IDX);
    EXPECT_EQ(shm_cache_read_frame(0, nullptr, buf, 16, &size, &type, &ts), CACHE_RET_NOT_INIT);
    EXPECT_EQ(shm_cache_read_frame(0, &serial, nullptr, 16, &size, &type, &ts), CACHE_RET_NOT_INIT);
    EXPECT_EQ(shm_cache_read_frame(0, &serial, buf, 16, &size, nullptr, &ts), CACHE_RET_NOT_INIT);

    EXPECT_EQ(shm_cache_write_frame(3, buf, 16, CACHE_FRAME_TYPE_I, 0), CACHE_RET_BAD_IDX);
    EXPECT_EQ(shm_cache_write_frame(0, nullptr, 16, CACHE_FRAME_TYPE_I, 0), CACHE_RET_NOT_INIT);
    EXPECT_EQ(shm_cache_write_frame(0, buf, -1, CACHE_FRAME_TYPE_I, 0), CACHE_RET_NOT_INIT);
    for (int bad : {int(CACHE_FRAME_TYPE_EMPTY), int(CACHE_FRAME_TYPE_END), 7, -2})
        EXPECT_EQ(shm_cache_write_frame(0, buf, 16, bad, 0), CACHE_RET_NOT_INIT) << bad;
    EXPECT_EQ(write(0, std::string(4 * 1024 + 1, 'x'), CACHE_FRAME_TYPE_I), CACHE_RET_FRAME_TOO_BIG);
    EXPECT_EQ(write(0, std::string(4 * 1024, 'x'), CACHE_FRAME_TYPE_I), 0);
    EXPECT_EQ(shm_cache_write_frame(0, nullptr, 0, CACHE_FRAME_TYPE_P, 0), 0) << "no data, no pointer needed";
    EXPECT_EQ(shm_cache_sync_audio(nullptr, 0), CACHE_RET_BAD_PARAM);
}

TEST_F(ShmCacheFrames, AudioSynchronisation)
{
    create(4, 0);
    int serial = 77;
    EXPECT_EQ(shm_cache_sync_audio(&serial, 1.0), CACHE_RET_BAD_IDX) << "no audio cache";
    shm_cache_writer_uninit();

    create(4);
    const int audio = get_audio_cache_idx(0);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(shm_cache_sync_audio(&serial, 10.0), 0);
    EXPECT_EQ(serial, 0) << "no audio yet";
    for (int s = 0; s < 8; ++s)
        ASSERT_EQ(write(audio, std::string(320, 'u'), CACHE_FRAME_TYPE_AUDIO, 10.0 + s * 0.25), 0);
    EXPECT_EQ(shm_cache_sync_audio(&serial, 11.1), 0);
    EXPECT_EQ(serial, 4);
    serial = 77;
    EXPECT_EQ(shm_cache_sync_audio(&serial, 20.0), 0);
    EXPECT_EQ(serial, 0) << "nothing within a second";
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("sync audo done : audio serial 4 video timestamp 11.100000 frame info[4 1 320 11.000000]\n"),
              std::string::npos)
        << out;
    EXPECT_EQ(cgtest::count_lines(out, "sync audio fail..."), 2) << out;
}

TEST_F(ShmCacheFrames, DamagedFrameRecordIsNeverCopied)
{
    create(4);
    ASSERT_EQ(write(0, frame_bytes(0, 3000), CACHE_FRAME_TYPE_I), 0);
    // Another process scribbles over the frame's description.
    char *seg = static_cast<char *>(shmat(shmget(key_, 0, 0), nullptr, 0));
    ASSERT_NE(seg, reinterpret_cast<char *>(-1));
    CacheMng *c = reinterpret_cast<CacheMng *>(seg + CACHE_INFO_SIZE);
    c->cache_frame[0].blkindex = 3;  // 3000 bytes from block 3 run past the 4-block buffer
    EXPECT_EQ(read_cached(0, CACHE_SEL_NEWEST).ret, CACHE_RET_OVER_WRITE);
    c->cache_frame[0].blkindex = -5;
    EXPECT_EQ(read_cached(0, CACHE_SEL_NEWEST).ret, CACHE_RET_OVER_WRITE);
    c->cache_frame[0].blkindex = 0;
    c->cache_frame[0].framesize = -1;
    EXPECT_EQ(read_cached(0, CACHE_SEL_NEWEST).ret, CACHE_RET_OVER_WRITE);
    c->serial_to_frame[7] = 5000;  // an index entry outside the slot ring
    EXPECT_EQ(read_cached(0, 7).ret, CACHE_RET_NO_FRAME);
    c->cache_frame[0].framesize = 3000;
    EXPECT_EQ(read_cached(0, CACHE_SEL_NEWEST).data, frame_bytes(0, 3000));
    shmdt(seg);
}

// The encoder in one process writes while the daemon in another walks the
// stream by serial, as a viewer does: every frame it gets must be whole and
// the serials must only rise, with a jump to a key frame after -21.
TEST_F(ShmCacheFrames, ReaderInAnotherProcessFollowsTheWriter)
{
    create(256);  // room for about two GOPs
    constexpr int kFrames = 3000;
    pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
        for (int s = 0; s < kFrames; ++s) {
            const int type = s % 30 == 0 ? CACHE_FRAME_TYPE_I : CACHE_FRAME_TYPE_P;
            if (write(0, frame_bytes(s, type == CACHE_FRAME_TYPE_I ? 20000 : 500 + (s * 37) % 6000), type, s) != 0)
                _exit(2);
            usleep(200);
        }
        _exit(0);
    }

    shm_cache_reader_uninit();  // only detach: the child keeps writing into the segment
    ASSERT_EQ(shm_cache_reader_init(), 0);
    int serial = CACHE_SEL_NEWEST_GOP, last = -1, delivered = 0, restarts = 0;
    const int64_t deadline = cgtest::now_ms() + 20000;
    bool torn = false, restart_not_key = false;
    while (last < kFrames - 1 && cgtest::now_ms() < deadline) {
        const cgtest::CachedFrame r = read_cached(0, serial, 1 << 16);
        if (r.ret == CACHE_RET_NO_FRAME) {
            usleep(100);
            continue;
        }
        if (r.ret == CACHE_RET_OVER_WRITE) {
            serial = CACHE_SEL_NEWEST_GOP;
            ++restarts;
            continue;
        }
        ASSERT_EQ(r.ret, 0);
        const int s = r.serial;
        if (s <= last) continue;  // a key-frame selector handed back an older frame
        if (serial < 0 && r.type != CACHE_FRAME_TYPE_I) restart_not_key = true;
        if (r.data != frame_bytes(s, r.size) || r.ts != s) torn = true;
        last = s;
        serial = s + 1;
        ++delivered;
        if (delivered % 500 == 0) usleep(50000);  // now and then fall further behind than the cache holds
    }
    int status = 0;
    ASSERT_EQ(waitpid(writer, &status, 0), writer);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(last, kFrames - 1);
    EXPECT_FALSE(torn) << "a frame changed while it was copied";
    EXPECT_FALSE(restart_not_key) << "a restart began on a frame that is not a key frame";
    EXPECT_GT(delivered, kFrames / 10);
    RecordProperty("restarts", restarts);
}

}  // namespace

// Creating the frame cache and attaching to it.
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <vector>

#include "media/cache_mng.h"
#include "media/shm_cache.h"
#include "support/media_frames.h"

namespace {

class ShmCacheAttach : public ::testing::Test {
  protected:
    const cgtest::CacheKey cache_;
    const key_t key_ = cache_.key();
};

TEST_F(ShmCacheAttach, WriterLaysOutHeaderControlSlotsAndBuffers)
{
    shm_cache_info_t info{2, {64, 32}, 1, {16}, 1, {8}};
    ASSERT_EQ(shm_cache_writer_init(&info), 0);

    int shmid = shmget(key_, 0, 0);
    ASSERT_GE(shmid, 0);
    const char *seg = static_cast<const char *>(shmat(shmid, nullptr, SHM_RDONLY));
    ASSERT_NE(seg, reinterpret_cast<const char *>(-1));
    // cache_nums, info K, struct K, buf K, total K, then the video, audio (before snapshot) and snapshot counts.
    const int32_t *h = reinterpret_cast<const int32_t *>(seg);
    EXPECT_EQ(std::vector<int32_t>(h, h + 8),
              (std::vector<int32_t>{4, 1, 17 * 4, 64 + 32 + 16 + 8, 1 + 68 + 120, 2, 1, 1}));
    shmid_ds ds{};
    ASSERT_EQ(shmctl(shmid, IPC_STAT, &ds), 0);
    EXPECT_EQ(ds.shm_segsz, static_cast<size_t>(189 * 1024));

    const int buffers = (1 + 68) * 1024;
    const int expect_offset[] = {buffers, buffers + 64 * 1024, buffers + 96 * 1024, buffers + 112 * 1024};
    for (int i = 0; i < 4; ++i) {
        const CacheMng *c = reinterpret_cast<const CacheMng *>(seg + 1024 + 17408 * i);
        EXPECT_EQ(c->media_idx, i);
        EXPECT_EQ(c->media_type, 6) << "unset media type";
        EXPECT_EQ(c->cache_buf_offset, expect_offset[i]);
        EXPECT_EQ(c->blk_total_nums, c->cache_buf_size / 1024);
        EXPECT_EQ(c->blk_free_nums, c->blk_total_nums);
        EXPECT_EQ(c->cur_serial, -1) << "reset as the frame bookkeeping resets a cache";
        EXPECT_EQ(c->serial_to_frame[299], -1);
    }
    shmdt(seg);

    EXPECT_EQ(get_video_cache_idx(1), 1);
    EXPECT_EQ(get_video_cache_idx(2), -1);
    EXPECT_EQ(get_snap_cache_idx(0), 2);
    EXPECT_EQ(get_audio_cache_idx(0), 3);
    EXPECT_EQ(get_audio_cache_idx(1), -1);
    EXPECT_EQ(shm_cache_get_media_info(4, nullptr, nullptr, nullptr, nullptr, nullptr), CACHE_RET_BAD_IDX);
}

TEST_F(ShmCacheAttach, ReaderNeverCreatesASegmentNorTakesAnUnfinishedOne)
{
    EXPECT_EQ(shm_cache_reader_init(), -1) << "no segment yet";
    // A segment and semaphore set exist but the header is still zero.
    ASSERT_GE(shmget(key_, 4096, IPC_CREAT | 0666), 0);
    const int semid = semget(key_, 1, IPC_CREAT | 0666);
    ASSERT_GE(semid, 0);
    ASSERT_EQ(semctl(semid, 0, SETVAL, 1), 0);
    EXPECT_EQ(shm_cache_reader_init(), -1);
    int type = 0;
    EXPECT_EQ(shm_cache_get_media_info(0, &type, nullptr, nullptr, nullptr, nullptr), -1);
}

TEST_F(ShmCacheAttach, WriterRefusesTooManyCaches)
{
    shm_cache_info_t info{};
    info.video_buf_cnt = 8;
    for (int &size : info.video_buf_size) size = 16;
    EXPECT_EQ(shm_cache_writer_init(&info), -1) << "eight video caches although the record has room for eight";
    info.video_buf_cnt = 1;
    info.snap_buf_cnt = 2;
    EXPECT_EQ(shm_cache_writer_init(&info), -1);
    EXPECT_EQ(shm_cache_writer_init(nullptr), -1);
    EXPECT_LT(shmget(key_, 0, 0), 0) << "nothing created";
}

}  // namespace

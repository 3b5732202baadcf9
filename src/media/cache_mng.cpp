#include "media/cache_mng.h"

#include <cstring>

#include "media/shm_cache.h"

void reset_cache_frame(CacheFrame *frame)
{
    frame->serial = -1;
    frame->ref_serial = -1;
    frame->framesize = 0;
    frame->timestamp = 0.0;
    frame->frametype = CACHE_FRAME_TYPE_EMPTY;
    frame->blkindex = -1;
    frame->blknums = 0;
}

void reset_cache_gop(CacheGop *gop)
{
    std::memset(gop, 0xFF, sizeof *gop);
}

void cache_mng_reset(CacheMng *cache)
{
    cache->blk_buf_size = CACHE_BLK_BUF_SIZE;
    cache->blk_total_nums = cache->cache_buf_size / CACHE_BLK_BUF_SIZE;
    cache->blk_free_nums = cache->blk_total_nums;
    cache->cur_blk_index = -1;
    cache->cur_serial = -1;
    cache->last_free_serial = -1;
    cache->cur_frame = -1;
    cache->cur_gop = -1;
    for (int i = 0; i < CACHE_FRAME_NUMS; ++i) cache->serial_to_frame[i] = -1;
    for (int i = 0; i < CACHE_FRAME_NUMS; ++i) reset_cache_frame(&cache->cache_frame[i]);
    for (int i = 0; i < CACHE_GOP_NUMS; ++i) reset_cache_gop(&cache->cache_gop[i]);
    cache->media_type = CACHE_MEDIA_TYPE_END;
    cache->bps = 0;
    cache->fps = 0;
    cache->width = 0;
    cache->height = 0;
    cache->vol_data_size = 0;
    cache->sps_data_size = 0;
    cache->pps_data_size = 0;
}

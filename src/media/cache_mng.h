// Layout of the shared frame cache, and the bookkeeping inside one cache.
//
// The segment is a format shared with the encoder process and is reproduced
// byte for byte: a 1 KB header, one 17 KB control slot (CacheMng) per cache,
// then the data buffers of the caches one after another. Inside one cache,
// frames live in a ring of 300 frame slots (descriptions) and a ring of
// 1024-byte data blocks (bytes); a ring of 5 GOP slots remembers where recent
// groups of pictures start. The cache_mng functions work on one CacheMng and
// assume the caller holds that cache's semaphore; they never lock.
#pragma once

#include <cstdint>

#include "common/wire.h"

constexpr int CACHE_INFO_SIZE = 1024;         // header area
constexpr int CACHE_STRUCT_SIZE = 17 * 1024;  // control slot of one cache
constexpr int CACHE_BLK_BUF_SIZE = 1024;      // data block
constexpr int CACHE_FRAME_NUMS = 300;         // frame slots per cache
constexpr int CACHE_GOP_NUMS = 5;             // GOP slots per cache
constexpr int CACHE_VIDEO_MAX = 7;
constexpr int CACHE_SNAP_MAX = 1;
constexpr int CACHE_AUDIO_MAX = 1;
constexpr int CACHE_CONFIG_DATA_SIZE = 1024;  // vol_data, sps_data, pps_data

// Segment header (offset 0). Note the order: audio count before snapshot count.
struct CG_PACKED ShmCacheHeader {
    int32_t cache_nums;   // video + snapshot + audio
    int32_t info_size;    // K, always 1
    int32_t struct_size;  // K, 17 x cache_nums
    int32_t buf_size;     // K, sum of the data buffers
    int32_t total_size;   // K, info + struct + buf
    int32_t video_nums;
    int32_t audio_nums;
    int32_t snap_nums;
    uint8_t reserved[CACHE_INFO_SIZE - 32];
};
CG_SIZE(ShmCacheHeader, 1024);
CG_OFFSET(ShmCacheHeader, info_size, 4);
CG_OFFSET(ShmCacheHeader, struct_size, 8);
CG_OFFSET(ShmCacheHeader, buf_size, 12);
CG_OFFSET(ShmCacheHeader, total_size, 16);
CG_OFFSET(ShmCacheHeader, video_nums, 20);
CG_OFFSET(ShmCacheHeader, audio_nums, 24);
CG_OFFSET(ShmCacheHeader, snap_nums, 28);

struct CG_PACKED CacheFrame {
    int32_t serial;      // -1 = free
    int32_t ref_serial;  // always -1
    int32_t framesize;   // bytes of frame data
    uint8_t pad1[4];
    double timestamp;   // capture time in seconds
    int32_t frametype;  // cache_frame_type
    int32_t blkindex;   // first data block, -1 = none
    int32_t blknums;    // consecutive blocks held
    uint8_t pad2[4];
};
CG_SIZE(CacheFrame, 40);
CG_OFFSET(CacheFrame, ref_serial, 4);
CG_OFFSET(CacheFrame, framesize, 8);
CG_OFFSET(CacheFrame, timestamp, 16);
CG_OFFSET(CacheFrame, frametype, 24);
CG_OFFSET(CacheFrame, blkindex, 28);
CG_OFFSET(CacheFrame, blknums, 32);

struct CG_PACKED CacheGop {
    int32_t start_I_serial;
    int32_t start_I_frame_idx;
    int32_t end_P_serial;
    int32_t end_P_frame_idx;
};
CG_SIZE(CacheGop, 16);

struct CG_PACKED CacheMng {
    int32_t media_idx;
    int32_t media_type;  // cache_media_type; CACHE_MEDIA_TYPE_END until set
    int32_t bps;
    int32_t fps;
    int32_t width;
    int32_t height;
    char vol_data[CACHE_CONFIG_DATA_SIZE];  // MPEG-4 VOL, or the AAC configuration as text
    int32_t vol_data_size;
    uint32_t profile_level;  // H.264 profile_idc << 16 | constraints << 8 | level_idc
    char sps_data[CACHE_CONFIG_DATA_SIZE];
    int32_t sps_data_size;
    char pps_data[CACHE_CONFIG_DATA_SIZE];
    int32_t pps_data_size;
    int32_t cache_buf_offset;  // of this cache's data buffer, from the segment start
    int32_t cache_buf_size;
    int32_t blk_buf_size;
    int32_t blk_total_nums;
    int32_t blk_free_nums;
    int32_t cur_blk_index;     // last block of the newest frame, -1 when empty
    int32_t cur_serial;        // newest real frame, -1 when empty
    int32_t last_free_serial;  // most recently evicted, -1 at start
    int32_t serial_to_frame[CACHE_FRAME_NUMS];
    int32_t cur_frame;  // slot of the newest frame, -1 when empty
    uint8_t pad1[4];
    CacheFrame cache_frame[CACHE_FRAME_NUMS];
    int32_t cur_gop;  // GOP slot of the newest GOP, -1 when none
    CacheGop cache_gop[CACHE_GOP_NUMS];
    uint8_t pad2[4];
};
CG_SIZE(CacheMng, 16440);
CG_OFFSET(CacheMng, media_type, 4);
CG_OFFSET(CacheMng, bps, 8);
CG_OFFSET(CacheMng, fps, 12);
CG_OFFSET(CacheMng, width, 16);
CG_OFFSET(CacheMng, height, 20);
CG_OFFSET(CacheMng, vol_data, 24);
CG_OFFSET(CacheMng, vol_data_size, 1048);
CG_OFFSET(CacheMng, profile_level, 1052);
CG_OFFSET(CacheMng, sps_data, 1056);
CG_OFFSET(CacheMng, sps_data_size, 2080);
CG_OFFSET(CacheMng, pps_data, 2084);
CG_OFFSET(CacheMng, pps_data_size, 3108);
CG_OFFSET(CacheMng, cache_buf_offset, 3112);
CG_OFFSET(CacheMng, cache_buf_size, 3116);
CG_OFFSET(CacheMng, blk_buf_size, 3120);
CG_OFFSET(CacheMng, blk_total_nums, 3124);
CG_OFFSET(CacheMng, blk_free_nums, 3128);
CG_OFFSET(CacheMng, cur_blk_index, 3132);
CG_OFFSET(CacheMng, cur_serial, 3136);
CG_OFFSET(CacheMng, last_free_serial, 3140);
CG_OFFSET(CacheMng, serial_to_frame, 3144);
CG_OFFSET(CacheMng, cur_frame, 4344);
CG_OFFSET(CacheMng, cache_frame, 4352);
CG_OFFSET(CacheMng, cur_gop, 16352);
CG_OFFSET(CacheMng, cache_gop, 16356);
static_assert(sizeof(CacheMng) <= CACHE_STRUCT_SIZE, "CacheMng fits its 17 KB slot");

// Reset one frame slot: serial -1, ref_serial -1, size 0, timestamp 0, EMPTY, no blocks.
void reset_cache_frame(CacheFrame *frame);
// Reset one GOP slot: all four fields -1.
void reset_cache_gop(CacheGop *gop);
// Empty a whole cache (every ring, the media information and the codec
// configuration); cache_buf_offset, cache_buf_size and media_idx are kept and
// the block counts recomputed from cache_buf_size.
void cache_mng_reset(CacheMng *cache);

// The rest works on a CacheMng that sits in its control slot of a segment
// laid out as above: the slot's position (from media_idx) gives the segment
// start, and a cache's data lies cache_buf_offset bytes after that start.

// Start of the data buffer of cacheMng, or nullptr when media_idx cannot be a
// cache index or the buffer fields are negative.
char *cache_mng_data(CacheMng *cacheMng);

// Evict the frame in slot idx: its blocks are freed and, unless it is a
// DUMMY, its serial becomes last_free_serial and leaves serial_to_frame. An
// EMPTY slot (or an index outside 0..299) is left alone.
void free_cache_frame(CacheMng *cacheMng, int idx);

// Publish one frame: evict the oldest frames until its blocks are free, pad
// the end of the block ring with a DUMMY frame where the data would wrap,
// copy the data, index the serial, open a new GOP on an I-frame, and capture
// codec configuration (cache_get_rtsp_data). 0, or -10 when the frame needs
// more blocks than the whole buffer has (nothing changes then).
int write_cache_frame(CacheMng *cacheMng, char *dataptr, int nbytes, int frametype, double timestamp);

// Place one frame of blknums blocks in the next frame slot at the block after
// cur_blk_index, without eviction or wrap handling: the caller guarantees the
// blocks are free and do not cross the end of the ring. A DUMMY frame only
// reserves its blocks; any other frame gets the next serial and its data is
// copied. Returns 0 (-1 for a cache without blocks or a negative count).
int insert_cache_frame(CacheMng *cacheMng, char *dataptr, int nbytes, int frametype, double timestamp, int blknums);

// The frame slot selected by *serial (not changed): a serial >= 1 gives that
// exact frame; 0 the newest; -1 the I-frame opening the newest GOP; -2 the
// I-frame of the oldest GOP still held. nullptr when nothing qualifies.
CacheFrame *read_cache_frame(CacheMng *cacheMng, int *serial);

// The frame whose timestamp is nearest to video_timestamp and at most 1 s
// away (ties go to the later slot); nullptr when none.
CacheFrame *get_sync_audio_frame(CacheMng *cacheMng, double video_timestamp);

// Capture codec configuration from a frame just written: the MPEG-4 VOL
// header or the AAC configuration once, the H.264 SPS/PPS and profile_level
// from every I-frame. 0 (also when there is nothing to capture); -2 without
// cacheMng.
int cache_get_rtsp_data(CacheMng *cacheMng, char *dataptr, int nbytes, int frametype);

// Hex dump of size bytes to the log. 0, or -1 without data.
int cache_dump_raw_data(char *data, int size);

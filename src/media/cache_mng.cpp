#include "media/cache_mng.h"

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "common/log.h"
#include "media/shm_cache.h"

namespace {

constexpr int CACHE_MAX_NUMS = CACHE_VIDEO_MAX + CACHE_SNAP_MAX + CACHE_AUDIO_MAX;

// Modulo that stays in 0..m-1 for a negative x too.
int ring_mod(long long x, int m)
{
    long long r = x % m;
    return static_cast<int>(r < 0 ? r + m : r);
}

bool holds_frame(const CacheFrame *frame)
{
    return frame->frametype != CACHE_FRAME_TYPE_DUMMY && frame->frametype != CACHE_FRAME_TYPE_EMPTY;
}

CacheFrame *frame_at(CacheMng *cache, int slot)
{
    return (slot >= 0 && slot < CACHE_FRAME_NUMS) ? &cache->cache_frame[slot] : nullptr;
}

// Next frame serial; restarts at 0 instead of overflowing.
int next_serial(int serial)
{
    return serial >= INT_MAX ? 0 : serial + 1;
}

// Position of the first 4-byte start code at or after from that is followed
// by a NAL header of type nal_type (low 5 bits), or -1.
int find_nal(const unsigned char *d, int n, int from, int nal_type)
{
    for (int i = from < 0 ? 0 : from; i + 4 < n; ++i) {
        if (d[i] == 0 && d[i + 1] == 0 && d[i + 2] == 0 && d[i + 3] == 1 && (d[i + 4] & 0x1F) == nal_type) return i;
    }
    return -1;
}

// Position of the next 4-byte start code at or after from, or n.
int next_start_code(const unsigned char *d, int n, int from)
{
    for (int i = from; i + 3 < n; ++i) {
        if (d[i] == 0 && d[i + 1] == 0 && d[i + 2] == 0 && d[i + 3] == 1) return i;
    }
    return n;
}

// Copy the NAL unit at pos (start code included) up to the next 4-byte start
// code, at most CACHE_CONFIG_DATA_SIZE bytes. Returns the copied length and,
// in *end, where the unit ends in the frame.
int copy_nal(char *dst, const unsigned char *d, int n, int pos, int *end)
{
    *end = next_start_code(d, n, pos + 4);
    int len = *end - pos;
    if (len > CACHE_CONFIG_DATA_SIZE) len = CACHE_CONFIG_DATA_SIZE;
    std::memcpy(dst, d + pos, static_cast<size_t>(len));
    return len;
}

void capture_mpeg4_vol(CacheMng *cache, const unsigned char *d, int n)
{
    // Visual-object-sequence start code with profile-and-level 1, a visual
    // object start code and 09, then the head of the frame.
    static const unsigned char prefix[10] = {0x00, 0x00, 0x01, 0xB0, 0x01, 0x00, 0x00, 0x01, 0xB5, 0x09};
    const int head = n < 18 ? n : 18;
    std::memcpy(cache->vol_data, prefix, sizeof prefix);
    std::memcpy(cache->vol_data + sizeof prefix, d, static_cast<size_t>(head));
    cache->vol_data_size = static_cast<int>(sizeof prefix) + head;
}

void capture_aac_config(CacheMng *cache, const unsigned char *d, int n)
{
    // Sampling frequencies by index (ISO/IEC 14496-3); 0 marks a reserved index.
    static const int freq[16] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050,
                                 16000, 12000, 11025, 8000,  7350,  0,     0,     0};
    if (n < 4 || d[0] != 0xFF || (d[1] & 0xF0) != 0xF0) {
        LOG_BARE("syncword error...\n");
        return;
    }
    const int profile = d[2] >> 6;
    if (profile > 2) {
        LOG_BARE("profile error...\n");
        return;
    }
    const int sampling = (d[2] & 0x3C) >> 2;
    if (freq[sampling] == 0) {
        LOG_BARE("sampling error...\n");
        return;
    }
    const int channels = (d[3] >> 6) | ((d[2] & 1) << 2);
    const unsigned first = static_cast<unsigned>(((profile + 1) << 3) | (sampling >> 1));
    const unsigned second = static_cast<unsigned>(((sampling << 7) | (channels << 3)) & 0xB8);
    std::snprintf(cache->vol_data, sizeof cache->vol_data, "%02X%02x", first, second);
    cache->vol_data_size = 4;
    LOG_BARE("aac header : profile %d sampling frequency %d %d channel %d\n", profile, sampling, freq[sampling],
             channels);
    LOG_BARE("vol data : %s\n", cache->vol_data);
}

void capture_h264_parameter_sets(CacheMng *cache, const unsigned char *d, int n)
{
    const int sps = find_nal(d, n, 0, 7);
    if (sps < 0 || sps + 7 >= n) return;  // no SPS, or one too short to carry its profile
    const bool first_sps = cache->sps_data_size == 0;
    cache->profile_level = (static_cast<uint32_t>(d[sps + 5]) << 16) | (static_cast<uint32_t>(d[sps + 6]) << 8) |
                           static_cast<uint32_t>(d[sps + 7]);
    if (first_sps) LOG_BARE("profile level:0x%0x\n", cache->profile_level);
    int sps_end = 0;
    cache->sps_data_size = copy_nal(cache->sps_data, d, n, sps, &sps_end);
    if (first_sps) {
        LOG_BARE("sps data size : %d media_idx : %d \n", cache->sps_data_size, cache->media_idx);
        cache_dump_raw_data(cache->sps_data, cache->sps_data_size);
    }

    const int pps = find_nal(d, n, sps_end, 8);
    if (pps < 0) return;  // the PPS captured earlier stays
    const bool first_pps = cache->pps_data_size == 0;
    int pps_end = 0;
    cache->pps_data_size = copy_nal(cache->pps_data, d, n, pps, &pps_end);
    if (first_pps) {
        LOG_BARE("pps data size:%d\n", cache->pps_data_size);
        cache_dump_raw_data(cache->pps_data, cache->pps_data_size);
    }
}

}  // namespace

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

char *cache_mng_data(CacheMng *cacheMng)
{
    if (cacheMng == nullptr || cacheMng->media_idx < 0 || cacheMng->media_idx >= CACHE_MAX_NUMS ||
        cacheMng->cache_buf_offset < 0 || cacheMng->cache_buf_size < 0)
        return nullptr;
    char *segment = reinterpret_cast<char *>(cacheMng) - CACHE_INFO_SIZE -
                    static_cast<ptrdiff_t>(cacheMng->media_idx) * CACHE_STRUCT_SIZE;
    return segment + cacheMng->cache_buf_offset;
}

void free_cache_frame(CacheMng *cacheMng, int idx)
{
    CacheFrame *frame = frame_at(cacheMng, idx);
    if (frame == nullptr || frame->frametype == CACHE_FRAME_TYPE_EMPTY) return;
    if (frame->blknums > 0) cacheMng->blk_free_nums += frame->blknums;
    if (frame->frametype != CACHE_FRAME_TYPE_DUMMY) {
        cacheMng->last_free_serial = frame->serial;
        if (frame->serial >= 0) cacheMng->serial_to_frame[frame->serial % CACHE_FRAME_NUMS] = -1;
    }
    reset_cache_frame(frame);
}

int insert_cache_frame(CacheMng *cacheMng, char *dataptr, int nbytes, int frametype, double timestamp, int blknums)
{
    if (cacheMng == nullptr || cacheMng->blk_total_nums <= 0 || blknums < 0 || nbytes < 0) return CACHE_RET_NOT_INIT;
    const int total = cacheMng->blk_total_nums;
    const int slot = ring_mod(static_cast<long long>(cacheMng->cur_frame) + 1, CACHE_FRAME_NUMS);
    const int nextblk = ring_mod(static_cast<long long>(cacheMng->cur_blk_index) + 1, total);
    CacheFrame *frame = &cacheMng->cache_frame[slot];
    const int held_before = frame->blknums > 0 ? frame->blknums : 0;

    cacheMng->cur_frame = slot;
    if (frametype != CACHE_FRAME_TYPE_DUMMY) cacheMng->cur_serial = next_serial(cacheMng->cur_serial);
    frame->serial = cacheMng->cur_serial;
    frame->ref_serial = -1;
    frame->framesize = nbytes;
    frame->timestamp = timestamp;
    frame->frametype = frametype;
    frame->blkindex = nextblk;
    frame->blknums = blknums;
    cacheMng->blk_free_nums += held_before;

    if (frametype != CACHE_FRAME_TYPE_DUMMY) {
        char *data = cache_mng_data(cacheMng);
        if (nbytes > 0 && data != nullptr && dataptr != nullptr)
            std::memcpy(data + static_cast<size_t>(CACHE_BLK_BUF_SIZE) * nextblk, dataptr, static_cast<size_t>(nbytes));
        cacheMng->serial_to_frame[cacheMng->cur_serial % CACHE_FRAME_NUMS] = slot;
    }
    cacheMng->cur_blk_index = ring_mod(static_cast<long long>(nextblk) + blknums - 1, total);
    cacheMng->blk_free_nums -= blknums;

    if (frametype == CACHE_FRAME_TYPE_I) {
        if (cacheMng->cur_gop >= 0 && cacheMng->cur_gop < CACHE_GOP_NUMS) {
            CacheGop *closing = &cacheMng->cache_gop[cacheMng->cur_gop];
            closing->end_P_serial = cacheMng->cur_serial - 1;
            // An I-frame in slot 1 records 299, not 0, as the closing slot: readers never use it.
            closing->end_P_frame_idx = cacheMng->cur_frame > 1 ? cacheMng->cur_frame - 1 : CACHE_FRAME_NUMS - 1;
        }
        cacheMng->cur_gop = ring_mod(static_cast<long long>(cacheMng->cur_gop) + 1, CACHE_GOP_NUMS);
        CacheGop *opening = &cacheMng->cache_gop[cacheMng->cur_gop];
        opening->start_I_serial = cacheMng->cur_serial;
        opening->start_I_frame_idx = cacheMng->cur_frame;
    }
    return CACHE_RET_OK;
}

int write_cache_frame(CacheMng *cacheMng, char *dataptr, int nbytes, int frametype, double timestamp)
{
    if (cacheMng == nullptr || nbytes < 0) return CACHE_RET_NOT_INIT;
    const int total = cacheMng->blk_total_nums;
    const long long blk_use = (static_cast<long long>(nbytes) + CACHE_BLK_BUF_SIZE - 1) / CACHE_BLK_BUF_SIZE;
    if (total <= 0 || blk_use > total) return CACHE_RET_FRAME_TOO_BIG;
    const int use = static_cast<int>(blk_use);

    for (;;) {
        // Make room: evict the oldest frames, in ring order after the newest.
        int slot = ring_mod(static_cast<long long>(cacheMng->cur_frame) + 1, CACHE_FRAME_NUMS);
        for (int visited = 0; use > cacheMng->blk_free_nums; ++visited) {
            if (visited == CACHE_FRAME_NUMS) {
                // Every slot is empty and the blocks still do not add up: the record is damaged.
                ERR("cache %d: %d blocks free of %d after evicting every frame", cacheMng->media_idx,
                    cacheMng->blk_free_nums, total);
                return CACHE_RET_FRAME_TOO_BIG;
            }
            free_cache_frame(cacheMng, slot);
            slot = (slot + 1) % CACHE_FRAME_NUMS;
        }
        const int nextblk = ring_mod(static_cast<long long>(cacheMng->cur_blk_index) + 1, total);
        if (nextblk + use <= total) break;
        // The data would wrap: a DUMMY frame pads the ring to its end and the frame starts at block 0.
        insert_cache_frame(cacheMng, nullptr, 0, CACHE_FRAME_TYPE_DUMMY, timestamp, total - nextblk);
    }
    insert_cache_frame(cacheMng, dataptr, nbytes, frametype, timestamp, use);
    cache_get_rtsp_data(cacheMng, dataptr, nbytes, frametype);
    return CACHE_RET_OK;
}

CacheFrame *read_cache_frame(CacheMng *cacheMng, int *serial)
{
    if (cacheMng == nullptr || serial == nullptr) return nullptr;
    const int selector = *serial;
    if (selector >= 1) {
        CacheFrame *frame = frame_at(cacheMng, cacheMng->serial_to_frame[selector % CACHE_FRAME_NUMS]);
        return (frame != nullptr && frame->serial == selector && holds_frame(frame)) ? frame : nullptr;
    }
    if (selector == CACHE_SEL_NEWEST) {
        CacheFrame *frame = frame_at(cacheMng, cacheMng->cur_frame);
        return (frame != nullptr && holds_frame(frame)) ? frame : nullptr;
    }
    if (cacheMng->cur_gop < 0 || cacheMng->cur_gop >= CACHE_GOP_NUMS) return nullptr;
    if (selector == CACHE_SEL_NEWEST_GOP) {
        // The slot is taken by type only: once the I-frame is evicted this may be its successor.
        CacheFrame *frame = frame_at(cacheMng, cacheMng->cache_gop[cacheMng->cur_gop].start_I_frame_idx);
        return (frame != nullptr && holds_frame(frame)) ? frame : nullptr;
    }
    if (selector == CACHE_SEL_OLDEST_GOP) {
        CacheFrame *last = nullptr;
        for (int k = 1; k <= CACHE_GOP_NUMS; ++k) {
            const CacheGop *gop = &cacheMng->cache_gop[(cacheMng->cur_gop + k) % CACHE_GOP_NUMS];
            if (gop->start_I_serial < 0) continue;
            CacheFrame *frame = frame_at(cacheMng, gop->start_I_frame_idx);
            if (frame == nullptr) continue;
            if (holds_frame(frame)) return frame;
            last = frame;  // handed out even though EMPTY or DUMMY when no GOP qualifies
        }
        return last;
    }
    return nullptr;
}

CacheFrame *get_sync_audio_frame(CacheMng *cacheMng, double video_timestamp)
{
    if (cacheMng == nullptr || cacheMng->cur_frame < 0) return nullptr;
    CacheFrame *best = nullptr;
    double min_diff = 1.0;
    for (int i = 0; i < CACHE_FRAME_NUMS; ++i) {
        CacheFrame *frame = &cacheMng->cache_frame[i];
        if (!holds_frame(frame)) continue;
        const double diff = std::fabs(frame->timestamp - video_timestamp);
        if (diff <= min_diff) {
            best = frame;
            min_diff = diff;
        }
    }
    return best;
}

int cache_get_rtsp_data(CacheMng *cacheMng, char *dataptr, int nbytes, int frametype)
{
    if (cacheMng == nullptr) return CACHE_RET_BAD_IDX;
    if (dataptr == nullptr || nbytes <= 0) return CACHE_RET_OK;
    const unsigned char *d = reinterpret_cast<const unsigned char *>(dataptr);
    switch (cacheMng->media_type) {
        case CACHE_MEDIA_TYPE_MPEG4:
            if (cacheMng->vol_data_size == 0) capture_mpeg4_vol(cacheMng, d, nbytes);
            break;
        case CACHE_MEDIA_TYPE_AAC:
            if (cacheMng->vol_data_size == 0) capture_aac_config(cacheMng, d, nbytes);
            break;
        case CACHE_MEDIA_TYPE_H264:
            if (frametype == CACHE_FRAME_TYPE_I) capture_h264_parameter_sets(cacheMng, d, nbytes);
            break;
        default:
            break;
    }
    return CACHE_RET_OK;
}

int cache_dump_raw_data(char *data, int size)
{
    if (data == nullptr) return -1;
    LOG_BARE("\ndump mem from 0x%x\n", static_cast<unsigned>(reinterpret_cast<uintptr_t>(data)));
    // One log call per line of 16 bytes (a whole dump would not fit one log line).
    std::string line;
    char byte[8];
    for (int i = 0; i < size; ++i) {
        std::snprintf(byte, sizeof byte, "0x%02x ", static_cast<unsigned char>(data[i]));
        line += byte;
        if ((i + 1) % 16 == 0) {
            LOG_BARE("%s\n", line.c_str());
            line.clear();
        }
    }
    LOG_BARE("%s\n", line.c_str());
    return 0;
}

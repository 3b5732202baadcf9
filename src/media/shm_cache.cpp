#include "media/shm_cache.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/env.h"
#include "common/log.h"
#include "media/cache_mng.h"
#include "media/sem_util.h"
#include "media/shm_util.h"

namespace {

// Module state of the attached process (not shared).
char *g_shm_ptr = nullptr;
int g_shmid = -1;
int g_semid = -1;
int g_cache_nums = 0;
int g_cache_video_nums = 0;
int g_cache_snap_nums = 0;
int g_cache_audio_nums = 0;
int g_cache_info_size = 0;
int g_cache_struct_size = 0;
int g_cache_buf_size = 0;
int g_cache_total_size = 0;
size_t g_seg_size = 0;  // bytes of the attached segment

ShmCacheHeader *header()
{
    return reinterpret_cast<ShmCacheHeader *>(g_shm_ptr);
}

// The semaphore rule shared with the encoder: a result >= 0 of sem_op counts
// as done, so a wait interrupted by a signal counts as taken. On any other
// failure sleep 1 ms and retry only while errno says EINTR or EAGAIN.
int sem_step(int sem_num, int op, int fail_code)
{
    for (;;) {
        if (sem_op(g_semid, sem_num, op) >= 0) return CACHE_RET_OK;
        usleep(1000);
        if (errno != EINTR && errno != EAGAIN) return fail_code;
    }
}

int lock_cache(int idx)
{
    return sem_step(idx, -1, CACHE_RET_LOCK_ERR);
}

int unlock_cache(int idx)
{
    return sem_step(idx, 1, CACHE_RET_UNLOCK_ERR);
}

void print_counts()
{
    LOG_BARE("cache nums %d\n", g_cache_nums);
    LOG_BARE("cache video nums %d\n", g_cache_video_nums);
    LOG_BARE("cache snap nums %d\n", g_cache_snap_nums);
    LOG_BARE("cache audio nums %d\n", g_cache_audio_nums);
    LOG_BARE("cache info size %dK\n", g_cache_info_size);
    LOG_BARE("cache struct size %dK\n", g_cache_struct_size);
    LOG_BARE("cache buf size %dK\n", g_cache_buf_size);
    LOG_BARE("cache total size %dK\n", g_cache_total_size);
}

void forget_attachment()
{
    if (g_shm_ptr != nullptr) shm_unmap_mem(g_shm_ptr);
    g_shm_ptr = nullptr;
    g_shmid = -1;
    g_semid = -1;
    g_cache_nums = g_cache_video_nums = g_cache_snap_nums = g_cache_audio_nums = 0;
    g_cache_info_size = g_cache_struct_size = g_cache_buf_size = g_cache_total_size = 0;
    g_seg_size = 0;
}

CacheMng *shm_cache_mng(int idx)
{
    return reinterpret_cast<CacheMng *>(g_shm_ptr + CACHE_INFO_SIZE + static_cast<size_t>(idx) * CACHE_STRUCT_SIZE);
}

// Checks made by every operation on one cache: attached, caches present, index valid.
int shm_cache_check(int idx)
{
    if (g_shm_ptr == nullptr || g_cache_nums < 1) return CACHE_RET_NOT_INIT;
    if (idx < 0 || idx >= g_cache_nums) return CACHE_RET_BAD_IDX;
    return CACHE_RET_OK;
}

// True when the frame's data lies inside its cache's buffer and the segment.
// The record is shared with another process: a damaged one must never make a
// read run past the segment.
bool frame_in_buffer(const CacheMng *c, const CacheFrame *f)
{
    if (f->framesize < 0) return false;
    if (f->framesize == 0) return true;
    const long long start = static_cast<long long>(c->blk_buf_size) * f->blkindex;
    return f->blkindex >= 0 && c->blk_buf_size > 0 && c->cache_buf_offset >= 0 &&
           start + f->framesize <= c->cache_buf_size &&
           static_cast<long long>(c->cache_buf_offset) + c->cache_buf_size <= static_cast<long long>(g_seg_size);
}

// Frame types a writer may publish.
bool writable_frame_type(int frametype)
{
    return frametype == CACHE_FRAME_TYPE_DUMMY || frametype == CACHE_FRAME_TYPE_AUDIO ||
           frametype == CACHE_FRAME_TYPE_I || frametype == CACHE_FRAME_TYPE_P || frametype == CACHE_FRAME_TYPE_B;
}

}  // namespace

int get_video_cache_idx(int idx)
{
    return (idx >= 0 && idx < g_cache_video_nums) ? idx : -1;
}

int get_snap_cache_idx(int idx)
{
    return (idx >= 0 && idx < g_cache_snap_nums) ? g_cache_video_nums + idx : -1;
}

int get_audio_cache_idx(int idx)
{
    return (idx >= 0 && idx < g_cache_audio_nums) ? g_cache_video_nums + g_cache_snap_nums + idx : -1;
}

int shm_cache_reader_init()
{
    if (g_shm_ptr != nullptr) forget_attachment();
    g_shmid = shm_get(env_shm_key());
    if (g_shmid < 0) {
        LOG_BARE("shm get error\n");
        return CACHE_RET_NOT_INIT;
    }
    g_shm_ptr = static_cast<char *>(shm_map_mem(g_shmid));
    if (g_shm_ptr == nullptr) {
        LOG_BARE("shm map mem error\n");
        forget_attachment();
        return CACHE_RET_NOT_INIT;
    }
    g_semid = sem_get(env_shm_key());
    if (g_semid < 0) {
        LOG_BARE("sen get error!\n");
        forget_attachment();
        return CACHE_RET_NOT_INIT;
    }
    int ret = lock_cache(0);
    if (ret != CACHE_RET_OK) {
        forget_attachment();
        return ret;
    }
    const ShmCacheHeader *h = header();
    g_cache_nums = h->cache_nums;
    g_cache_info_size = h->info_size;
    g_cache_struct_size = h->struct_size;
    g_cache_buf_size = h->buf_size;
    g_cache_total_size = h->total_size;
    g_cache_video_nums = h->video_nums;
    g_cache_audio_nums = h->audio_nums;
    g_cache_snap_nums = h->snap_nums;
    ret = unlock_cache(0);
    if (ret != CACHE_RET_OK) {
        forget_attachment();
        return ret;
    }
    print_counts();
    // A header that does not describe this segment (a writer still starting,
    // or not a frame cache at all) is not attached: reading by it would run
    // past the segment.
    const size_t seg = shm_size(g_shmid);
    const bool counts_ok = g_cache_nums >= 1 && g_cache_video_nums >= 0 && g_cache_snap_nums >= 0 &&
                           g_cache_audio_nums >= 0 &&
                           g_cache_video_nums + g_cache_snap_nums + g_cache_audio_nums == g_cache_nums &&
                           g_cache_video_nums <= CACHE_VIDEO_MAX && g_cache_snap_nums <= CACHE_SNAP_MAX &&
                           g_cache_audio_nums <= CACHE_AUDIO_MAX && g_cache_total_size > 0 &&
                           static_cast<size_t>(g_cache_total_size) * 1024 <= seg;
    if (!counts_ok) {
        forget_attachment();
        return CACHE_RET_NOT_INIT;
    }
    g_seg_size = seg;
    for (int i = 0; i < g_cache_nums; ++i) {
        const CacheMng *c = shm_cache_mng(i);
        const long long end = static_cast<long long>(c->cache_buf_offset) + c->cache_buf_size;
        if (c->cache_buf_offset < 0 || c->cache_buf_size < 0 || end > static_cast<long long>(seg) ||
            c->blk_total_nums * static_cast<long long>(CACHE_BLK_BUF_SIZE) > c->cache_buf_size) {
            forget_attachment();
            return CACHE_RET_NOT_INIT;
        }
    }
    return CACHE_RET_OK;
}

int shm_cache_reader_uninit()
{
    forget_attachment();
    return CACHE_RET_OK;
}

int shm_cache_writer_init(shm_cache_info_t *info)
{
    if (info == nullptr) {
        LOG_BARE("input param is error...\n");
        return CACHE_RET_NOT_INIT;
    }
    if (info->video_buf_cnt > CACHE_VIDEO_MAX || info->snap_buf_cnt > CACHE_SNAP_MAX ||
        info->audio_buf_cnt > CACHE_AUDIO_MAX || info->video_buf_cnt < 0 || info->snap_buf_cnt < 0 ||
        info->audio_buf_cnt < 0) {
        LOG_BARE("video buf cnt %d or sanp buf cnt %d or audio buf cnt %d is invalid...\n", info->video_buf_cnt,
                 info->snap_buf_cnt, info->audio_buf_cnt);
        return CACHE_RET_NOT_INIT;
    }
    if (g_shm_ptr != nullptr) forget_attachment();

    // Caches are numbered video first, then snapshot, then audio.
    int sizes[CACHE_VIDEO_MAX + CACHE_SNAP_MAX + CACHE_AUDIO_MAX];
    int n = 0;
    for (int i = 0; i < info->video_buf_cnt; ++i) sizes[n++] = info->video_buf_size[i];
    for (int i = 0; i < info->snap_buf_cnt; ++i) sizes[n++] = info->snap_buf_size[i];
    for (int i = 0; i < info->audio_buf_cnt; ++i) sizes[n++] = info->audio_buf_size[i];
    int buf_k = 0;
    for (int i = 0; i < n; ++i) {
        if (sizes[i] < 0) {
            LOG_BARE("input param is error...\n");
            return CACHE_RET_NOT_INIT;
        }
        buf_k += sizes[i];
    }
    g_cache_nums = n;
    g_cache_video_nums = info->video_buf_cnt;
    g_cache_snap_nums = info->snap_buf_cnt;
    g_cache_audio_nums = info->audio_buf_cnt;
    g_cache_info_size = CACHE_INFO_SIZE / 1024;
    g_cache_struct_size = (CACHE_STRUCT_SIZE / 1024) * n;
    g_cache_buf_size = buf_k;
    g_cache_total_size = g_cache_info_size + g_cache_struct_size + g_cache_buf_size;
    print_counts();
    for (int i = 0; i < n; ++i) LOG_BARE("cache buf %d size %dK\n", i, sizes[i]);

    const size_t total_bytes = static_cast<size_t>(g_cache_total_size) * 1024;
    const key_t key = env_shm_key();
    g_shmid = shm_init(key, total_bytes);
    g_seg_size = g_shmid < 0 ? 0 : shm_size(g_shmid);
    if (g_shmid < 0 || g_seg_size < total_bytes) {
        // An older, smaller segment under the same key cannot hold this layout.
        LOG_BARE("shm init error\n");
        forget_attachment();
        return CACHE_RET_NOT_INIT;
    }
    g_shm_ptr = static_cast<char *>(shm_map_mem(g_shmid));
    if (g_shm_ptr == nullptr) {
        LOG_BARE("shm map mem error\n");
        forget_attachment();
        return CACHE_RET_NOT_INIT;
    }
    g_semid = sem_init_initval(key, n < 1 ? 1 : n, 1);
    if (g_semid < 0) {
        LOG_BARE("sem init error!\n");
        forget_attachment();
        return CACHE_RET_NOT_INIT;
    }

    int ret = lock_cache(0);
    if (ret != CACHE_RET_OK) return ret;
    int offset = (g_cache_info_size + g_cache_struct_size) * 1024;
    for (int i = 0; i < n; ++i) {
        CacheMng *c = shm_cache_mng(i);
        std::memset(c, 0, CACHE_STRUCT_SIZE);
        c->media_idx = i;
        c->cache_buf_offset = offset;
        c->cache_buf_size = sizes[i] * 1024;
        offset += c->cache_buf_size;
        cache_mng_reset(c);
    }
    ShmCacheHeader *h = header();
    std::memset(h, 0, sizeof *h);
    h->cache_nums = g_cache_nums;
    h->info_size = g_cache_info_size;
    h->struct_size = g_cache_struct_size;
    h->buf_size = g_cache_buf_size;
    h->total_size = g_cache_total_size;
    h->video_nums = g_cache_video_nums;
    h->audio_nums = g_cache_audio_nums;
    h->snap_nums = g_cache_snap_nums;
    return unlock_cache(0);
}

int shm_cache_writer_uninit()
{
    const int shmid = g_shmid;
    const int semid = g_semid;
    forget_attachment();
    if (shmid >= 0) shm_kill(shmid);
    if (semid >= 0) sem_kill(semid);
    return CACHE_RET_OK;
}

int shm_cache_get_media_info(int idx, int *mediatype, int *bps, int *fps, int *width, int *height)
{
    int ret = shm_cache_check(idx);
    if (ret != CACHE_RET_OK) return ret;
    if ((ret = lock_cache(idx)) != CACHE_RET_OK) return ret;
    const CacheMng *c = shm_cache_mng(idx);
    if (mediatype) *mediatype = c->media_type;
    if (bps) *bps = c->bps;
    if (fps) *fps = c->fps;
    if (width) *width = c->width;
    if (height) *height = c->height;
    return unlock_cache(idx);
}

int shm_cache_set_media_info(int idx, int mediatype, int bps, int fps, int width, int height)
{
    int ret = shm_cache_check(idx);
    if (ret != CACHE_RET_OK) return ret;
    if ((ret = lock_cache(idx)) != CACHE_RET_OK) return ret;
    CacheMng *c = shm_cache_mng(idx);
    c->media_type = mediatype;
    c->bps = bps;
    c->fps = fps;
    c->width = width;
    c->height = height;
    return unlock_cache(idx);
}

int shm_cache_reset(int idx)
{
    int ret = shm_cache_check(idx);
    if (ret != CACHE_RET_OK) return ret;
    if ((ret = lock_cache(idx)) != CACHE_RET_OK) return ret;
    cache_mng_reset(shm_cache_mng(idx));
    return unlock_cache(idx);
}

int shm_cache_get_vol_data(int idx, char *voldata, int *voldata_size)
{
    int ret = shm_cache_check(idx);
    if (ret != CACHE_RET_OK) return ret;
    if (voldata == nullptr || voldata_size == nullptr) return CACHE_RET_NOT_INIT;
    if ((ret = lock_cache(idx)) != CACHE_RET_OK) return ret;
    const CacheMng *c = shm_cache_mng(idx);
    *voldata_size = 0;
    if (c->vol_data_size > 0 && c->vol_data_size <= CACHE_CONFIG_DATA_SIZE) {
        std::memcpy(voldata, c->vol_data, static_cast<size_t>(c->vol_data_size));
        *voldata_size = c->vol_data_size;
    }
    return unlock_cache(idx);
}

int shm_cache_get_sps_pps_data(int idx, unsigned int *profile_level, char *spsdata, int *spsdata_size, char *ppsdata,
                               int *ppsdata_size)
{
    int ret = shm_cache_check(idx);
    if (ret != CACHE_RET_OK) return ret;
    if (profile_level == nullptr || spsdata == nullptr || spsdata_size == nullptr || ppsdata == nullptr ||
        ppsdata_size == nullptr)
        return CACHE_RET_NOT_INIT;
    if ((ret = lock_cache(idx)) != CACHE_RET_OK) return ret;
    const CacheMng *c = shm_cache_mng(idx);
    *profile_level = c->profile_level;
    *spsdata_size = 0;
    *ppsdata_size = 0;
    if (c->sps_data_size > 0 && c->sps_data_size <= CACHE_CONFIG_DATA_SIZE) {
        std::memcpy(spsdata, c->sps_data, static_cast<size_t>(c->sps_data_size));
        *spsdata_size = c->sps_data_size;
    }
    if (c->pps_data_size > 0 && c->pps_data_size <= CACHE_CONFIG_DATA_SIZE) {
        std::memcpy(ppsdata, c->pps_data, static_cast<size_t>(c->pps_data_size));
        *ppsdata_size = c->pps_data_size;
    }
    return unlock_cache(idx);
}

int shm_cache_read_frame(int idx, int *serial, char *bufptr, int buflen, int *framesize, int *frametype,
                         double *timestamp)
{
    int ret = shm_cache_check(idx);
    if (ret != CACHE_RET_OK) return ret;
    if (serial == nullptr || bufptr == nullptr || framesize == nullptr || frametype == nullptr || timestamp == nullptr)
        return CACHE_RET_NOT_INIT;
    if ((ret = lock_cache(idx)) != CACHE_RET_OK) return ret;
    CacheMng *c = shm_cache_mng(idx);
    bool damaged = false;
    const CacheFrame *f = read_cache_frame(c, serial);
    if (f != nullptr) {
        *serial = f->serial;
        *timestamp = f->timestamp;
        *frametype = f->frametype;
        *framesize = f->framesize;
        if (!frame_in_buffer(c, f)) {
            damaged = true;
            ret = CACHE_RET_OVER_WRITE;  // unreadable: the caller starts again from a key frame
        } else if (f->framesize > buflen) {
            ret = CACHE_RET_BUF_TOO_SMALL;
        } else {
            if (f->framesize > 0)
                std::memcpy(bufptr,
                            g_shm_ptr + c->cache_buf_offset + static_cast<size_t>(c->blk_buf_size) * f->blkindex,
                            static_cast<size_t>(f->framesize));
            ret = CACHE_RET_OK;
        }
    } else {
        // Not written yet, or gone (evicted, or the selector found nothing).
        ret = (c->cur_serial < 0 || c->cur_serial < *serial) ? CACHE_RET_NO_FRAME : CACHE_RET_OVER_WRITE;
    }
    const int unlocked = unlock_cache(idx);
    if (damaged) ERR("cache %d: frame %d lies outside the cache buffer, skipped", idx, *serial);
    return unlocked != CACHE_RET_OK ? unlocked : ret;
}

int shm_cache_sync_audio(int *audio_start_serial, double video_timestamp)
{
    if (audio_start_serial == nullptr) return CACHE_RET_BAD_PARAM;
    const int idx = get_audio_cache_idx(0);
    int ret = shm_cache_check(idx);
    if (ret != CACHE_RET_OK) return ret;
    if ((ret = lock_cache(idx)) != CACHE_RET_OK) return ret;
    const CacheFrame *f = get_sync_audio_frame(shm_cache_mng(idx), video_timestamp);
    const bool found = f != nullptr;
    CacheFrame copy{};
    if (found) copy = *f;
    ret = unlock_cache(idx);
    // Logged after giving the semaphore back: the encoder waits on it.
    if (found) {
        *audio_start_serial = copy.serial;
        LOG_BARE("sync audo done : audio serial %d video timestamp %f frame info[%d %d %d %f]\n", copy.serial,
                 video_timestamp, copy.serial, copy.frametype, copy.framesize, copy.timestamp);
    } else {
        LOG_BARE("sync audio fail...\n");
        *audio_start_serial = 0;
    }
    return ret;
}

int shm_cache_write_frame(int idx, char *dataptr, int nbytes, int frametype, double timestamp)
{
    int ret = shm_cache_check(idx);
    if (ret != CACHE_RET_OK) return ret;
    if (nbytes < 0 || (dataptr == nullptr && nbytes > 0) || !writable_frame_type(frametype)) return CACHE_RET_NOT_INIT;
    if ((ret = lock_cache(idx)) != CACHE_RET_OK) return ret;
    ret = write_cache_frame(shm_cache_mng(idx), dataptr, nbytes, frametype, timestamp);
    const int unlocked = unlock_cache(idx);
    return unlocked != CACHE_RET_OK ? unlocked : ret;
}

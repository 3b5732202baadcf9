// The shared-memory frame cache: one System V segment and one semaphore set
// (both under env_shm_key(), 0x888888 on a camera) shared with the encoder.
//
// The encoder (writer side) publishes every encoded frame of each stream;
// the daemon (reader side) attaches and pulls frames out by serial. Every
// operation on a cache takes that cache's semaphore for the lookup and one
// memcpy. Results: 0 or one of the CACHE_RET_* codes below.
#pragma once

enum cache_ret {
    CACHE_RET_OK = 0,
    CACHE_RET_NOT_INIT = -1,
    CACHE_RET_BAD_IDX = -2,
    CACHE_RET_LOCK_ERR = -3,
    CACHE_RET_UNLOCK_ERR = -4,
    CACHE_RET_FRAME_TOO_BIG = -10,
    CACHE_RET_BUF_TOO_SMALL = -11,
    CACHE_RET_NO_FRAME = -20,
    CACHE_RET_OVER_WRITE = -21,
    CACHE_RET_BAD_PARAM = -30,
};

enum cache_frame_type {
    CACHE_FRAME_TYPE_DUMMY = -1,
    CACHE_FRAME_TYPE_EMPTY = 0,
    CACHE_FRAME_TYPE_AUDIO = 1,
    CACHE_FRAME_TYPE_I = 2,
    CACHE_FRAME_TYPE_P = 3,
    CACHE_FRAME_TYPE_B = 4,
    CACHE_FRAME_TYPE_END = 5,
};

enum cache_media_type {
    CACHE_MEDIA_TYPE_MJPG = 0,
    CACHE_MEDIA_TYPE_AMRNB = 1,
    CACHE_MEDIA_TYPE_G711_ULAW = 2,
    CACHE_MEDIA_TYPE_MPEG4 = 3,
    CACHE_MEDIA_TYPE_H264 = 4,
    CACHE_MEDIA_TYPE_AAC = 5,
    CACHE_MEDIA_TYPE_END = 6,
};

// Read selectors for shm_cache_read_frame (*serial on entry).
enum cache_selector {
    CACHE_SEL_NEWEST = 0,       // the newest frame
    CACHE_SEL_NEWEST_GOP = -1,  // the I-frame opening the newest GOP
    CACHE_SEL_OLDEST_GOP = -2,  // the I-frame of the oldest GOP held
};

// The writer's configuration; every size in K (1024 bytes).
struct shm_cache_info_t {
    int video_buf_cnt;  // at most 7
    int video_buf_size[8];
    int snap_buf_cnt;  // at most 1
    int snap_buf_size[2];
    int audio_buf_cnt;  // at most 1
    int audio_buf_size[2];
};

// Cache index of video stream idx, of snapshot cache idx, of audio cache idx; -1 if none.
int get_video_cache_idx(int idx);
int get_snap_cache_idx(int idx);
int get_audio_cache_idx(int idx);

// Attach to the existing segment and semaphore set (never creates them).
// -1 when they do not exist or the writer has not finished its initialisation.
int shm_cache_reader_init();
int shm_cache_reader_uninit();

int shm_cache_get_media_info(int idx, int *mediatype, int *bps, int *fps, int *width, int *height);
int shm_cache_get_vol_data(int idx, char *voldata, int *voldata_size);
int shm_cache_get_sps_pps_data(int idx, unsigned int *profile_level, char *spsdata, int *spsdata_size, char *ppsdata,
                               int *ppsdata_size);

// Read the frame selected by *serial (a serial >= 1, or a cache_selector) of
// cache idx into bufptr. On return *serial, *framesize, *frametype and
// *timestamp describe the frame found. -11: the frame does not fit buflen and
// nothing was copied; -20: not written yet; -21: evicted (or nothing found,
// or a damaged record places the frame outside the cache: start again from a
// key frame). The copy is made under the cache's semaphore.
int shm_cache_read_frame(int idx, int *serial, char *bufptr, int buflen, int *framesize, int *frametype,
                         double *timestamp);

// Serial of the audio frame nearest in time (within 1 s) to video_timestamp,
// or 0 when none; -2 when there is no audio cache.
int shm_cache_sync_audio(int *audio_start_serial, double video_timestamp);

// Writer side: create, size and initialise the segment and its semaphores.
int shm_cache_writer_init(shm_cache_info_t *info);
// Detach and remove the segment and the semaphore set.
int shm_cache_writer_uninit();
int shm_cache_set_media_info(int idx, int mediatype, int bps, int fps, int width, int height);
int shm_cache_reset(int idx);
// Publish one frame (AUDIO, I, P, B, or a DUMMY that only reserves blocks),
// evicting the oldest frames as needed. -10 when it needs more blocks than the
// cache has; -1 for a missing data pointer, a negative size or another type.
int shm_cache_write_frame(int idx, char *dataptr, int nbytes, int frametype, double timestamp);

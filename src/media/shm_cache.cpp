// Placeholder until the frame cache lands: nothing is attached.
#include "media/shm_cache.h"

int get_video_cache_idx(int) { return -1; }
int get_snap_cache_idx(int) { return -1; }
int get_audio_cache_idx(int) { return -1; }
int shm_cache_reader_init() { return CACHE_RET_NOT_INIT; }
int shm_cache_reader_uninit() { return 0; }
int shm_cache_get_media_info(int, int *, int *, int *, int *, int *) { return CACHE_RET_NOT_INIT; }
int shm_cache_get_vol_data(int, char *, int *) { return CACHE_RET_NOT_INIT; }
int shm_cache_get_sps_pps_data(int, unsigned int *, char *, int *, char *, int *) { return CACHE_RET_NOT_INIT; }
int shm_cache_read_frame(int, int *, char *, int, int *, int *, double *) { return CACHE_RET_NOT_INIT; }
int shm_cache_sync_audio(int *, double) { return CACHE_RET_NOT_INIT; }
int shm_cache_writer_init(shm_cache_info_t *) { return CACHE_RET_NOT_INIT; }
int shm_cache_writer_uninit() { return 0; }
int shm_cache_set_media_info(int, int, int, int, int, int) { return CACHE_RET_NOT_INIT; }
int shm_cache_reset(int) { return CACHE_RET_NOT_INIT; }
int shm_cache_write_frame(int, char *, int, int, double) { return CACHE_RET_NOT_INIT; }

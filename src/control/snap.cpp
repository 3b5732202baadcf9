#include "control/snap.h"

#include <cerrno>
#include <cstring>

#include "common/log.h"
#include "media/shm_cache.h"

int snap_jpg(char *buf, int *jpg_len, int buf_size)
{
    const int idx = get_snap_cache_idx(0);
    if (idx == -1) {
        LOG_BARE("get_jpeg_cache_idx failed  error:%s", std::strerror(errno));
        return -1;
    }
    int serial = CACHE_SEL_NEWEST;
    int frametype = 0;
    double timestamp = 0;
    *jpg_len = 0;
    const int ret = shm_cache_read_frame(idx, &serial, buf, buf_size, jpg_len, &frametype, &timestamp);
    if (ret != 0) {
        LOG_BARE("shm_cache_read_frame jpg failed");
        *jpg_len = 0;
        return ret;
    }
    return 0;
}

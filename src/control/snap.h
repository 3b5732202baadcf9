// Remote snapshot (0x70013): the newest picture of the frame cache's snapshot cache.
#pragma once

// Copy the newest JPEG of snapshot cache 0 into buf (buf_size bytes) and its
// length into *jpg_len. 0, -1 when there is no snapshot cache, or the frame
// cache's result of the read (-11: the picture is larger than buf_size).
int snap_jpg(char *buf, int *jpg_len, int buf_size);

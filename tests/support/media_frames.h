// Frames that name themselves, for tests of the live streams: a test writes
// them into the frame cache through the writer side and checks, frame by
// frame, what a viewer received: which frame it is, and that every byte of it
// arrived whole and in place.
//
// Layout: the 4-byte start code 00 00 00 01, a tag byte ('V' video, 'A'
// audio), the serial (int32) and the size (int32), then bytes that depend on
// serial and position.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/sockets.h"

namespace cgtest {

// A unique frame-cache key set in CAMGATE_SHM_KEY for one test; on
// destruction this process detaches (writer and reader side), the segment and
// its semaphores are removed and the variable is unset.
class CacheKey {
  public:
    CacheKey();
    ~CacheKey();
    CacheKey(const CacheKey &) = delete;
    CacheKey &operator=(const CacheKey &) = delete;
    key_t key() const { return key_; }
    std::string text() const { return std::to_string(key_); }

  private:
    key_t key_;
};

constexpr int kMinTaggedFrame = 13;

// The serial a frame names, or -1 when it is not a whole tagged frame of that tag.
int tagged_serial(const std::vector<uint8_t> &data, char tag);

// Write a tagged frame into cache idx (frametype CACHE_FRAME_TYPE_*) with the
// given timestamp; the cache's result.
int write_tagged(int idx, char tag, int serial, int size, int frametype, double timestamp);

// One read of the frame cache: shm_cache_read_frame's result and out-fields,
// and the frame's bytes (result 0), or "copied" when a frame too large for
// the buffer left anything in it.
struct CachedFrame {
    int ret = 0;
    int serial = 0;
    int size = -1;
    int type = -1;
    double ts = -1;
    std::string data;
};
CachedFrame read_cached(int idx, int selector, int buflen = 1 << 20);
// The same, read again (bounded) while the frame is not written yet.
CachedFrame read_when_written(int idx, int selector, int timeout_ms = 3000);

// Connect to the client port and request the live stream of stream_index
// (auth_id 0): the reply's cmd (0: accepted, with *session_id), or 1 when no
// whole reply arrived. *fd keeps the connection.
int request_preview(int port, Fd *fd, int32_t *session_id, uint32_t stream_index = 0);

}  // namespace cgtest

// The frame buffers of the live streams: one per stream and thread (3 MB
// video, 512 KB audio, 512 KB for a UDP preview), allocated when the stream
// starts. Each is a private anonymous mapping of its own: nothing is written
// at allocation, so only the pages that frames are copied into count against
// the daemon's memory, and every page goes back to the system when the
// stream ends (a heap block of this size would stay with the allocator).
#pragma once

#include <cstddef>

class FrameBuffer {
  public:
    // Map size bytes; data() is nullptr when the mapping fails.
    explicit FrameBuffer(size_t size);
    ~FrameBuffer();
    FrameBuffer(const FrameBuffer &) = delete;
    FrameBuffer &operator=(const FrameBuffer &) = delete;

    char *data() const { return data_; }
    size_t size() const { return size_; }
    explicit operator bool() const { return data_ != nullptr; }

  private:
    char *data_ = nullptr;
    size_t size_ = 0;
};

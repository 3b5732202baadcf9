#include "media/frame_buffer.h"

#include <sys/mman.h>

FrameBuffer::FrameBuffer(size_t size)
{
    if (size == 0) return;
    void *p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) return;
    data_ = static_cast<char *>(p);
    size_ = size;
}

FrameBuffer::~FrameBuffer()
{
    if (data_ != nullptr) munmap(data_, size_);
}

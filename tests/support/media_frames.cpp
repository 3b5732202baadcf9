#include "support/media_frames.h"

#include <cstdlib>
#include <cstring>

#include "media/shm_cache.h"
#include "support/testenv.h"

namespace cgtest {

namespace {

char pattern_byte(int serial, int i)
{
    return static_cast<char>((serial * 7 + i * 13 + (i >> 8)) & 0xFF);
}

// The bytes of frame serial with the given tag and size (at least kMinTaggedFrame).
std::vector<char> tagged_frame(char tag, int serial, int size)
{
    std::vector<char> f(static_cast<size_t>(size < kMinTaggedFrame ? kMinTaggedFrame : size));
    const char start[4] = {0, 0, 0, 1};
    std::memcpy(f.data(), start, 4);
    f[4] = tag;
    const int32_t s = serial, n = static_cast<int32_t>(f.size());
    std::memcpy(f.data() + 5, &s, 4);
    std::memcpy(f.data() + 9, &n, 4);
    for (size_t i = kMinTaggedFrame; i < f.size(); ++i) f[i] = pattern_byte(serial, static_cast<int>(i));
    return f;
}

}  // namespace

CacheKey::CacheKey() : key_(unique_ipc_key())
{
    setenv("CAMGATE_SHM_KEY", text().c_str(), 1);
}

CacheKey::~CacheKey()
{
    shm_cache_writer_uninit();
    shm_cache_reader_uninit();
    remove_ipc(key_);
    unsetenv("CAMGATE_SHM_KEY");
}

int tagged_serial(const std::vector<uint8_t> &data, char tag)
{
    if (data.size() < static_cast<size_t>(kMinTaggedFrame)) return -1;
    if (data[0] != 0 || data[1] != 0 || data[2] != 0 || data[3] != 1 || data[4] != static_cast<uint8_t>(tag)) return -1;
    int32_t serial, size;
    std::memcpy(&serial, data.data() + 5, 4);
    std::memcpy(&size, data.data() + 9, 4);
    if (size != static_cast<int32_t>(data.size())) return -1;
    for (size_t i = kMinTaggedFrame; i < data.size(); ++i) {
        if (data[i] != static_cast<uint8_t>(pattern_byte(serial, static_cast<int>(i)))) return -1;
    }
    return serial;
}

int write_tagged(int idx, char tag, int serial, int size, int frametype, double timestamp)
{
    std::vector<char> f = tagged_frame(tag, serial, size);
    return shm_cache_write_frame(idx, f.data(), static_cast<int>(f.size()), frametype, timestamp);
}

CachedFrame read_cached(int idx, int selector, int buflen)
{
    CachedFrame r;
    r.serial = selector;
    std::vector<char> buf(static_cast<size_t>(buflen > 0 ? buflen : 1), '\x5a');
    r.ret = shm_cache_read_frame(idx, &r.serial, buf.data(), buflen, &r.size, &r.type, &r.ts);
    if (r.ret == 0) r.data.assign(buf.data(), static_cast<size_t>(r.size));
    if (r.ret == CACHE_RET_BUF_TOO_SMALL && buf[0] != '\x5a') r.data = "copied";
    return r;
}

CachedFrame read_when_written(int idx, int selector, int timeout_ms)
{
    CachedFrame f;
    wait_until(
        [&] {
            f = read_cached(idx, selector);
            return f.ret != CACHE_RET_NO_FRAME;
        },
        timeout_ms, 2);
    return f;
}

int request_preview(int port, Fd *fd, int32_t *session_id, uint32_t stream_index)
{
    *fd = connect_loopback(port);
    if (!fd->valid()) return 1;
    const NEW_PP_PERVIEW_REQ req{0, PROTOCOL_TYPE_TCP, 0, stream_index};
    if (!send_message(fd->get(), TK_CMD_PREVIEW_START, &req, sizeof req)) return 1;
    NEW_PACKET_HEADER head{};
    if (!recv_exact(fd->get(), &head, sizeof head) || head.magic != TK_PROTO_MAGIC) return 1;
    if (head.cmd != 0) return head.cmd;
    if (head.len != 4 || !recv_exact(fd->get(), session_id, sizeof *session_id)) return 1;
    return 0;
}

}  // namespace cgtest

// The system-server channel: framing, the write buffer, the reader thread
// with its heartbeat, and the one blocking request in flight.
#include "main/socketclientcmd.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

#include "common/env.h"
#include "common/log.h"

namespace {

constexpr int kHeadLen = SOCKET_DEVICE_CMD_HEAD_WIDTH;  // flag, device id, param, command length
constexpr int kFrameOverhead = kHeadLen + SOCKET_CMD_LEN_WIDTH;
constexpr int kFirstHeartbeatSec = 2;
constexpr int kHeartbeatSec = 30;
constexpr int kReconnectSec = 5;
constexpr auto kAnswerTimeout = std::chrono::seconds(10);
constexpr auto kWriteRetryPause = std::chrono::milliseconds(50);

void noop_callback(unsigned short, const char *, int) {}

// A channel buffer (400 KB read, 800 KB write) whose bytes are not written
// when it is allocated: its pages count against the daemon's memory only as
// frames pass through them, a few KB, instead of 1.2 MB from start-up on.
class ChannelBuffer {
  public:
    bool allocate(size_t size)
    {
        data_.reset(new (std::nothrow) uint8_t[size]);
        size_ = data_ ? size : 0;
        return data_ != nullptr;
    }
    void release()
    {
        data_.reset();
        size_ = 0;
    }
    bool empty() const { return size_ == 0; }
    uint8_t *data() { return data_.get(); }

  private:
    std::unique_ptr<uint8_t[]> data_;
    size_t size_ = 0;
};

struct Channel {
    // The channel mutex: sending, the write buffer, the pending request, the socket number.
    std::mutex mutex;
    // Signalled by the reader thread for every answer frame (param 1), matching or not.
    std::condition_variable cond;
    // Wakes the reader thread's pause between connection attempts, and Init's wait.
    std::condition_variable wake;
    // Held for the whole of a blocking request, so only one is in flight.
    std::mutex request_mutex;

    std::atomic<int> status{SOCKET_STATUS_IDEL};
    std::atomic<int> exit_flag{0};  // 1 raised by uninit, 2 acknowledged by the reader thread
    int fd = -1;                    // changed only by the reader thread, under mutex
    char server_ip[16] = {};
    int device_id = 0;
    int first_attempt = 0;  // 0 not over yet, 1 connected, -1 failed

    // Reader thread only.
    ChannelBuffer read_buf;
    int read_offset = 0;
    int read_len = kHeadLen;

    // Under mutex.
    ChannelBuffer write_buf;
    int write_offset = 0;  // first unsent byte
    int write_len = 0;     // end of valid data

    // The pending request, under mutex.
    bool pending = false;
    unsigned short pending_cmd = 0;
    void *pending_out = nullptr;
    int *pending_out_len = nullptr;
    int pending_out_max = 0;
    uint64_t answer_seq = 0;  // counts answer frames; a waiter wakes when it moves

    std::atomic<socket_client_callback> callback{noop_callback};
    std::atomic<void *> callback_buf{nullptr};

    int32_t pid = 0;
    int32_t heartbeat_index = 0;
    std::thread reader;
};

// The channel lives as long as the process: it is never destroyed, so a
// reader thread still running at exit never meets a destroyed mutex.
Channel &channel()
{
    alignas(Channel) static unsigned char storage[sizeof(Channel)];
    static Channel *c = ::new (storage) Channel();
    return *c;
}

long uptime_seconds()
{
    struct sysinfo si {};
    if (sysinfo(&si) != 0) return 0;
    return si.uptime;
}

// Append one frame behind the unsent remainder and send what is unsent.
// Called with the channel mutex held. 0 when everything went out, -1 when
// not (the unsent bytes stay and go out in front of the next frame).
int write_cmd(Channel &c, uint8_t param, unsigned short cmd, const void *data, int len)
{
    LOG_BARE("write_cmd.....");
    if (c.fd < 0 || c.write_buf.empty()) return -1;
    if (len < 0 || (len > 0 && data == nullptr)) return -1;
    const int unsent = c.write_len - c.write_offset;
    if (static_cast<long>(unsent) + len + kFrameOverhead >= SOCKET_DEVICE_WRITE_BUF_MAX_LEN) return -1;

    uint8_t *buf = c.write_buf.data();
    if (c.write_offset > 0) {
        std::memmove(buf, buf + c.write_offset, static_cast<size_t>(unsent));
        c.write_offset = 0;
        c.write_len = unsent;
    }
    ZQ_FRAME_HEAD head{};
    head.flag = SOCKET_DEVICE_CMD_FLAG;
    head.device_id = static_cast<uint8_t>(c.device_id);
    head.param = param;
    head.cmd_len = static_cast<uint32_t>(len + SOCKET_CMD_LEN_WIDTH);
    head.cmd = cmd;
    std::memcpy(buf + c.write_len, &head, sizeof head);
    c.write_len += static_cast<int>(sizeof head);
    if (len > 0) std::memcpy(buf + c.write_len, data, static_cast<size_t>(len));
    c.write_len += len;

    for (int attempt = 0; attempt < 2; ++attempt) {
        ssize_t n = send(c.fd, buf + c.write_offset, static_cast<size_t>(c.write_len - c.write_offset),
                         MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 1) {
            int err = errno;
            LOG_BARE("write_cmd tmp = %d, erron = %d, %s", static_cast<int>(n), err, std::strerror(err));
            if (fcntl(c.fd, F_GETFL) < 0) LOG_BARE("write_cmd fd = %d is not valid", c.fd);
        } else {
            c.write_offset += static_cast<int>(n);
        }
        LOG_BARE("g_nWriteBufOffset1 = %d,  g_nWriteBufLen = %d......", c.write_offset, c.write_len);
        if (c.write_offset == c.write_len) {
            c.write_offset = 0;
            c.write_len = 0;
            return 0;
        }
        std::this_thread::sleep_for(kWriteRetryPause);
    }
    return -1;
}

void send_heartbeat(Channel &c)
{
    std::lock_guard<std::mutex> lock(c.mutex);
    HEARTBEAT hb{};
    hb.Pid = c.pid;
    hb.DataIndex = c.heartbeat_index++;
    write_cmd(c, SOCKET_DEVICE_NOBLOCK, ZQ_HEARTBEAT, &hb, sizeof hb);
}

// Hand one whole frame to its receiver: pushes to the callback, answers to
// the pending request. -1 when the frame is dropped.
int read_cmd(Channel &c, const uint8_t *frame, int total)
{
    LOG_BARE("read_cmd.....");
    ZQ_FRAME_HEAD head{};
    std::memcpy(&head, frame, sizeof head);
    if (head.flag != SOCKET_DEVICE_CMD_FLAG) {
        LOG_BARE("read_cmd head flag 0x%08X is wrong, frame dropped", head.flag);
        return -1;
    }
    if (head.cmd_len >= static_cast<uint32_t>(SOCKET_DEVICE_READ_BUF_MAX_LEN) ||
        static_cast<int>(head.cmd_len) + kHeadLen != total) {
        return -1;
    }
    const int data_len = static_cast<int>(head.cmd_len) - SOCKET_CMD_LEN_WIDTH;
    const char *data = reinterpret_cast<const char *>(frame + kFrameOverhead);

    if (head.param != SOCKET_DEVICE_BLOCK) {
        socket_client_callback cb = c.callback.load();
        cb(head.cmd, data, data_len);
        return 0;
    }
    {
        std::lock_guard<std::mutex> lock(c.mutex);
        if (!c.pending) {
            LOG_BARE("read_cmd answer 0x%X came with no request waiting, dropped", head.cmd);
        } else if (c.pending_cmd != head.cmd) {
            LOG_BARE("read_cmd answer 0x%X does not match request 0x%X, dropped", head.cmd, c.pending_cmd);
        } else {
            if (c.pending_out != nullptr && c.pending_out_max > 0 && data_len > 0) {
                std::memcpy(c.pending_out, data, static_cast<size_t>(std::min(data_len, c.pending_out_max)));
            }
            if (c.pending_out_len != nullptr) *c.pending_out_len = data_len;
            c.pending = false;  // a second answer finds nothing to fill
        }
        ++c.answer_seq;
    }
    c.cond.notify_all();
    return 0;
}

// Reset both buffers before a connection attempt (reader thread).
void reset_buffers(Channel &c)
{
    std::lock_guard<std::mutex> lock(c.mutex);
    c.read_offset = 0;
    c.read_len = kHeadLen;
    c.write_offset = 0;
    c.write_len = 0;
}

// Replace the socket by a fresh one; false when none can be made.
bool renew_socket(Channel &c)
{
    std::lock_guard<std::mutex> lock(c.mutex);
    if (c.fd >= 0) close(c.fd);
    c.fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (c.fd < 0) return false;
    // Every frame goes out whole in one send; without this a request sent
    // while an unanswered frame (a heartbeat, a write that is not waited
    // for) is still unacknowledged waits for the server's delayed
    // acknowledgement, about 40 ms.
    const int one = 1;
    setsockopt(c.fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return true;
}

void finish_first_attempt(Channel &c, int result)
{
    {
        std::lock_guard<std::mutex> lock(c.mutex);
        if (c.first_attempt != 0) return;
        c.first_attempt = result;
    }
    c.wake.notify_all();
}

// Sleep the 5 s between connection attempts; uninit cuts it short.
void pause_before_retry(Channel &c)
{
    std::unique_lock<std::mutex> lock(c.mutex);
    c.wake.wait_for(lock, std::chrono::seconds(kReconnectSec), [&c] { return c.exit_flag != 0; });
}

// Take in what a read brought; a frame is complete when read_len bytes are in.
void consume_read(Channel &c, int n)
{
    c.read_offset += n;
    LOG_BARE("g_nReadBufOffset = %d, g_nReadBufLen = %d.....", c.read_offset, c.read_len);
    if (c.read_offset < c.read_len) return;
    if (c.read_len == kHeadLen) {
        ZQ_FRAME_HEAD head{};
        std::memcpy(&head, c.read_buf.data(), kHeadLen);
        if (head.cmd_len < static_cast<uint32_t>(SOCKET_CMD_LEN_WIDTH) ||
            head.cmd_len > static_cast<uint32_t>(SOCKET_DEVICE_READ_BUF_MAX_LEN - kHeadLen)) {
            // The body cannot be held: drop the head and read the next 10 bytes as a head.
            LOG_BARE("read_cmd command length %u cannot be read, frame head dropped", head.cmd_len);
            c.read_offset = 0;
            return;
        }
        c.read_len = kHeadLen + static_cast<int>(head.cmd_len);
        return;
    }
    read_cmd(c, c.read_buf.data(), c.read_len);
    c.read_offset = 0;
    c.read_len = kHeadLen;
}

void reader_main(Channel *cp)
{
    Channel &c = *cp;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(env_sysserver_port()));
    inet_pton(AF_INET, c.server_ip, &addr.sin_addr);
    c.pid = static_cast<int32_t>(getpid());
    c.heartbeat_index = 0;

    int heartbeat_left = kFirstHeartbeatSec;
    if (!renew_socket(c)) {
        LOG_BARE("socket error, errno = %d", errno);
        c.status = SOCKET_ERR;
        finish_first_attempt(c, -1);
    }
    while (c.exit_flag == 0 && c.fd >= 0) {
        switch (c.status.load()) {
            case SOCKET_ERR:
                LOG_BARE("into SOCKET_ERR...");
                if (!renew_socket(c)) {
                    LOG_BARE("socket error, errno = %d", errno);
                    goto out;
                }
                c.status = SOCKET_STATUS_INIT;
                break;

            case SOCKET_STATUS_INIT:
                reset_buffers(c);
                if (connect(c.fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
                    LOG_BARE("connect systemServer %s:%d failed, errno = %d", c.server_ip, ntohs(addr.sin_port), errno);
                    // A socket whose connect failed is not reused.
                    if (!renew_socket(c)) goto out;
                    finish_first_attempt(c, -1);
                    pause_before_retry(c);
                    break;
                }
                fcntl(c.fd, F_SETFL, fcntl(c.fd, F_GETFL) | O_NONBLOCK);
                heartbeat_left = kFirstHeartbeatSec;
                c.status = SOCKET_STATUS_CONNECT;
                LOG_BARE("connect systemServer %s:%d ok", c.server_ip, ntohs(addr.sin_port));
                finish_first_attempt(c, 1);
                break;

            case SOCKET_STATUS_CONNECT: {
                fd_set readable;
                FD_ZERO(&readable);
                FD_SET(c.fd, &readable);
                timeval tv{};
                tv.tv_sec = heartbeat_left;
                const long wait_began = uptime_seconds();
                int n = select(c.fd + 1, &readable, nullptr, nullptr, &tv);
                if (c.exit_flag != 0) break;
                if (n == 0 || (n < 0 && errno == EINTR)) {
                    send_heartbeat(c);
                    heartbeat_left = kHeartbeatSec;
                    break;
                }
                if (n < 0) {
                    if (errno == EBADF) {
                        c.status = SOCKET_ERR;
                        break;
                    }
                    LOG_BARE("select error, errno = %d", errno);
                    goto out;
                }
                ssize_t r =
                    read(c.fd, c.read_buf.data() + c.read_offset, static_cast<size_t>(c.read_len - c.read_offset));
                LOG_BARE(" read\tn = %d  .......", static_cast<int>(r));
                if (r < 0 && (errno == EAGAIN || errno == EINTR)) break;
                if (r <= 0) {
                    c.status = SOCKET_ERR;
                    break;
                }
                const long elapsed = uptime_seconds() - wait_began;
                if (elapsed >= heartbeat_left) {
                    send_heartbeat(c);
                    heartbeat_left = kHeartbeatSec;
                } else {
                    heartbeat_left -= static_cast<int>(elapsed) + 1;
                }
                consume_read(c, static_cast<int>(r));
                break;
            }

            default:
                goto out;
        }
    }
out:
    finish_first_attempt(c, -1);
    {
        std::lock_guard<std::mutex> lock(c.mutex);
        c.exit_flag = 2;
    }
    c.wake.notify_all();
}

}  // namespace

int socket_client_cmd_Init(int nSocketDeviceId, const char *strIp)
{
    if (nSocketDeviceId < 0 || nSocketDeviceId >= SOCKET_MAX_DEVICE) return -1;
    const char *ip = strIp != nullptr ? strIp : "127.0.0.1";
    in_addr probe{};
    if (std::strlen(ip) >= sizeof(Channel::server_ip) || inet_pton(AF_INET, ip, &probe) != 1) return -1;

    Channel &c = channel();
    std::unique_lock<std::mutex> lock(c.mutex);
    if (c.status != SOCKET_STATUS_IDEL) return -1;
    wire_copy_str(c.server_ip, sizeof c.server_ip, ip);
    c.device_id = nSocketDeviceId;
    if (!c.read_buf.allocate(SOCKET_DEVICE_READ_BUF_MAX_LEN) ||
        !c.write_buf.allocate(SOCKET_DEVICE_WRITE_BUF_MAX_LEN)) {
        c.read_buf.release();
        c.write_buf.release();
        return -1;
    }
    c.read_offset = c.write_offset = c.write_len = 0;
    c.read_len = kHeadLen;
    c.exit_flag = 0;
    c.first_attempt = 0;
    c.status = SOCKET_STATUS_INIT;
    try {
        c.reader = std::thread(reader_main, &c);
    } catch (const std::system_error &) {
        c.status = SOCKET_STATUS_IDEL;
        c.read_buf.release();
        c.write_buf.release();
        return -1;
    }
    c.wake.wait(lock, [&c] { return c.first_attempt != 0; });
    return c.first_attempt == 1 ? 0 : -1;
}

int socket_client_cmd_Read(unsigned short shCmd, const void *pInData, int nInLen, void *pOutData, int *pOutLen,
                           int nOutMax)
{
    Channel &c = channel();
    int unused_len = 0;
    if (pOutLen == nullptr) pOutLen = &unused_len;
    *pOutLen = 0;

    std::lock_guard<std::mutex> in_flight(c.request_mutex);
    const auto deadline = std::chrono::steady_clock::now() + kAnswerTimeout;
    std::unique_lock<std::mutex> lock(c.mutex);
    *pOutLen = 0;
    c.pending = true;
    c.pending_cmd = shCmd;
    c.pending_out = pOutData;
    c.pending_out_len = pOutLen;
    c.pending_out_max = pOutData != nullptr && nOutMax > 0 ? nOutMax : 0;
    int ret = write_cmd(c, SOCKET_DEVICE_BLOCK, shCmd, pInData, nInLen);
    if (ret == 0) {
        const uint64_t seq = c.answer_seq;
        c.cond.wait_until(lock, deadline, [&c, seq] { return c.answer_seq != seq; });
        LOG_BARE("int nRet = pthread_cond_timedwait(&g_Cond, &g_ConMutex, &outtime) *pOutLen = %d...", *pOutLen);
    }
    c.pending = false;
    c.pending_out = nullptr;
    c.pending_out_len = nullptr;
    c.pending_out_max = 0;
    return ret;
}

int socket_client_cmd_Set(unsigned short shCmd, const void *pInData, int nInLen)
{
    int outlen = 0;
    return socket_client_cmd_Read(shCmd, pInData, nInLen, nullptr, &outlen, 0);
}

int socket_client_cmd_Write(unsigned short shCmd, const void *pInData, int nInLen)
{
    Channel &c = channel();
    std::lock_guard<std::mutex> lock(c.mutex);
    return write_cmd(c, SOCKET_DEVICE_NOBLOCK, shCmd, pInData, nInLen);
}

int socket_client_reg_callback_cmd_Read(socket_client_callback callback, void *buffer)
{
    Channel &c = channel();
    c.callback_buf = buffer;
    c.callback = callback != nullptr ? callback : noop_callback;
    return 0;
}

int socket_client_cmd_uninit()
{
    Channel &c = channel();
    std::thread reader;
    {
        std::lock_guard<std::mutex> lock(c.mutex);
        if (c.status == SOCKET_STATUS_IDEL) return 0;
        c.exit_flag = 1;
        if (c.fd >= 0) shutdown(c.fd, SHUT_RDWR);  // wakes the reader's select or read
        reader = std::move(c.reader);
    }
    c.wake.notify_all();
    if (reader.joinable()) reader.join();
    {
        std::lock_guard<std::mutex> lock(c.mutex);
        if (c.fd >= 0) close(c.fd);
        c.fd = -1;
        c.read_buf.release();
        c.write_buf.release();
        c.write_offset = c.write_len = 0;
        c.pending = false;
        ++c.answer_seq;
        c.exit_flag = 0;
        c.status = SOCKET_STATUS_IDEL;
    }
    c.cond.notify_all();
    return 0;
}

int socket_client_cmd_status()
{
    return channel().status.load();
}

// A plain blocking client of the system-server protocol, independent of the
// daemon's channel, for testing the simulator from the outside.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "camgate-sysd/sysd_sim.h"
#include "support/testenv.h"

namespace cgtest {

class SysdClient {
  public:
    explicit SysdClient(int port)
    {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(static_cast<uint16_t>(port));
        if (fd_ >= 0 && ::connect(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    ~SysdClient()
    {
        if (fd_ >= 0) close(fd_);
    }
    SysdClient(const SysdClient &) = delete;
    SysdClient &operator=(const SysdClient &) = delete;

    bool ok() const { return fd_ >= 0; }

    bool send(uint16_t cmd, const void *data, size_t len, uint8_t param = SOCKET_DEVICE_BLOCK)
    {
        return send_raw(sysd::make_frame(cmd, data, len, param, SOCKET_THIRD_PARTY_PROTOCOL));
    }
    bool send_raw(const std::vector<uint8_t> &bytes)
    {
        return fd_ >= 0 && ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }

    // Read the next frame; false on time-out or when the server closed.
    bool read(sysd::Frame *f, int timeout_ms = 3000)
    {
        uint8_t head[12];
        if (!read_exact(head, sizeof head, timeout_ms)) return false;
        ZQ_FRAME_HEAD h{};
        std::memcpy(&h, head, sizeof h);
        if (h.flag != SOCKET_DEVICE_CMD_FLAG || h.cmd_len < 2) return false;
        f->device_id = h.device_id;
        f->param = h.param;
        f->cmd = h.cmd;
        f->data.assign(h.cmd_len - 2, 0);
        return f->data.empty() || read_exact(f->data.data(), f->data.size(), timeout_ms);
    }

    // A blocking request and its answer's data (empty with *ok false when none
    // came); pushes that arrive meanwhile are skipped.
    std::vector<uint8_t> request(uint16_t cmd, const void *data = nullptr, size_t len = 0, bool *ok = nullptr)
    {
        sysd::Frame f;
        bool got = send(cmd, data, len);
        while (got && (got = read(&f)) && f.param != SOCKET_DEVICE_BLOCK) {
        }
        got = got && f.cmd == cmd;
        if (ok) *ok = got;
        return got ? f.data : std::vector<uint8_t>();
    }
    template <class T>
    T get(uint16_t cmd)
    {
        std::vector<uint8_t> raw = request(cmd);
        T rec{};
        std::memcpy(&rec, raw.data(), raw.size() < sizeof rec ? raw.size() : sizeof rec);
        return rec;
    }

  private:
    bool read_exact(uint8_t *p, size_t n, int timeout_ms)
    {
        const int64_t deadline = now_ms() + timeout_ms;
        while (n > 0) {
            pollfd pfd{fd_, POLLIN, 0};
            const int64_t left = deadline - now_ms();
            if (left <= 0 || poll(&pfd, 1, static_cast<int>(left)) <= 0) return false;
            ssize_t r = ::recv(fd_, p, n, 0);
            if (r <= 0) return false;
            p += r;
            n -= static_cast<size_t>(r);
        }
        return true;
    }
    int fd_ = -1;
};

template <class T>
std::vector<uint8_t> bytes_of(const T &rec)
{
    const auto *p = reinterpret_cast<const uint8_t *>(&rec);
    return std::vector<uint8_t>(p, p + sizeof rec);
}

}  // namespace cgtest

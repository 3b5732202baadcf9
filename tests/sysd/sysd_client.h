// A plain blocking client of the system-server protocol, independent of the
// daemon's channel, for testing the simulator from the outside.
#pragma once

#include <sys/socket.h>

#include <vector>

#include "camgate-sysd/sysd_sim.h"
#include "support/sockets.h"
#include "support/testenv.h"

namespace cgtest {

class SysdClient {
  public:
    explicit SysdClient(int port) : fd_(connect_loopback(port, 0)) {}

    bool ok() const { return fd_.valid(); }

    bool send(uint16_t cmd, const void *data, size_t len, uint8_t param = SOCKET_DEVICE_BLOCK)
    {
        const std::vector<uint8_t> bytes = sysd::make_frame(cmd, data, len, param, SOCKET_THIRD_PARTY_PROTOCOL);
        return ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }

    // Read the next frame; false on time-out or when the server closed.
    bool read(sysd::Frame *f, int timeout_ms = 3000)
    {
        ZQ_FRAME_HEAD h{};
        if (!recv_exact(fd_.get(), &h, sizeof h, timeout_ms) || h.flag != SOCKET_DEVICE_CMD_FLAG || h.cmd_len < 2)
            return false;
        f->device_id = h.device_id;
        f->param = h.param;
        f->cmd = h.cmd;
        f->data.assign(h.cmd_len - 2, 0);
        return f->data.empty() || recv_exact(fd_.get(), f->data.data(), f->data.size(), timeout_ms);
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
        sysd::Frame f;
        f.data = request(cmd);
        return f.as<T>();
    }

  private:
    Fd fd_;
};

}  // namespace cgtest

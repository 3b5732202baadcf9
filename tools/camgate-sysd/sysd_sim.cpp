// The simulated system server: a poll loop on 127.0.0.1 that reads framed
// commands from any number of clients, answers them from the store, and
// keeps a log of every frame for the tests.
#include "sysd_sim.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

#include "sysd_store.h"

namespace sysd {

namespace {

constexpr size_t kHead = SOCKET_DEVICE_CMD_HEAD_WIDTH;
// Larger than anything the daemon can send (its write buffer is 819,200 bytes).
constexpr uint32_t kMaxCmdLen = 4u << 20;

int64_t mono_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

struct Conn {
    int fd = -1;
    std::mutex write_mutex;  // whole frames (and raw sequences) go out uninterrupted
    std::vector<uint8_t> in;
    bool dropping = false;
};

// Send all of bytes on conn (its write mutex held); false when the connection failed.
bool send_locked(Conn &c, const uint8_t *bytes, size_t len)
{
    while (len > 0 && c.fd >= 0) {
        ssize_t n = send(c.fd, bytes, len, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        bytes += n;
        len -= static_cast<size_t>(n);
    }
    return len == 0;
}

struct Scheduled {
    int64_t due_ms;
    std::weak_ptr<Conn> conn;
    std::vector<uint8_t> bytes;
};

}  // namespace

std::vector<uint8_t> make_frame(uint16_t cmd, const void *data, size_t len, uint8_t param, uint8_t device_id)
{
    ZQ_FRAME_HEAD head{};
    head.flag = SOCKET_DEVICE_CMD_FLAG;
    head.device_id = device_id;
    head.param = param;
    head.cmd_len = static_cast<uint32_t>(len + SOCKET_CMD_LEN_WIDTH);
    head.cmd = cmd;
    std::vector<uint8_t> out(sizeof head + len);
    std::memcpy(out.data(), &head, sizeof head);
    if (len > 0) std::memcpy(out.data() + sizeof head, data, len);
    return out;
}

struct SysServerSim::Impl {
    Options opt;
    mutable std::mutex mutex;  // everything below except the loop's own locals
    mutable std::condition_variable changed;
    Store store;
    std::string state_error;
    std::vector<Frame> log;
    std::map<uint16_t, int> delays;
    std::set<uint16_t> silent;
    std::map<uint16_t, std::vector<uint8_t>> canned;
    std::vector<std::shared_ptr<Conn>> conns;
    std::vector<int64_t> connect_times;
    std::vector<Scheduled> scheduled;

    int listen_fd = -1;
    int bound_port = 0;
    int wake_pipe[2] = {-1, -1};
    std::atomic<bool> running{false};
    std::atomic<bool> paused{false};
    std::thread loop;

    void wake()
    {
        if (wake_pipe[1] >= 0) {
            char c = 1;
            ssize_t n = write(wake_pipe[1], &c, 1);
            (void)n;
        }
    }

    void load_state()
    {
        if (opt.state_file.empty()) return;
        std::ifstream in(opt.state_file, std::ios::binary);
        if (!in) return;  // a first start: the defaults, saved at the first change
        std::ostringstream ss;
        ss << in.rdbuf();
        std::string why;
        if (!store.deserialize(ss.str(), &why)) {
            state_error = why;
            std::fprintf(stderr, "camgate-sysd: state file %s: %s; using the defaults\n", opt.state_file.c_str(),
                         why.c_str());
        }
    }

    // Called with mutex held after every change of the store.
    void save_state()
    {
        if (opt.state_file.empty()) return;
        const std::string tmp = opt.state_file + ".tmp";
        {
            std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
            out << store.serialize();
            if (!out) {
                std::fprintf(stderr, "camgate-sysd: cannot write state file %s\n", tmp.c_str());
                return;
            }
        }
        if (std::rename(tmp.c_str(), opt.state_file.c_str()) != 0)
            std::fprintf(stderr, "camgate-sysd: cannot replace state file %s\n", opt.state_file.c_str());
    }

    // Frame to every connected client; the number it reached.
    int send_to_all(const std::vector<uint8_t> &bytes)
    {
        std::vector<std::shared_ptr<Conn>> targets;
        {
            std::lock_guard<std::mutex> lock(mutex);
            targets = conns;
        }
        int reached = 0;
        for (auto &c : targets) {
            std::lock_guard<std::mutex> lock(c->write_mutex);
            if (send_locked(*c, bytes.data(), bytes.size())) ++reached;
        }
        return reached;
    }

    void handle_frame(const std::shared_ptr<Conn> &conn, const ZQ_FRAME_HEAD &head, const uint8_t *data, size_t len)
    {
        Frame f;
        f.device_id = head.device_id;
        f.param = head.param;
        f.cmd = head.cmd;
        f.data.assign(data, data + len);
        f.when_ms = mono_ms();

        std::vector<uint8_t> answer;
        bool answer_it = false;
        int delay = 0;
        bool push = false;
        std::vector<uint8_t> protocol;
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (opt.keep_frames) log.push_back(f);
            if (opt.log_frames) {
                std::printf("recv dev %u param %u cmd 0x%03X len %zu\n", f.device_id, f.param, f.cmd, len);
                std::fflush(stdout);
            }
            if (head.cmd != ZQ_HEARTBEAT) {
                Store::Result r = store.handle(head.cmd, data, len);
                if (!r.note.empty())
                    std::fprintf(stderr, "camgate-sysd: 0x%03X refused: %s\n", head.cmd, r.note.c_str());
                if (!r.known && opt.log_frames) std::printf("unknown command 0x%03X, answered empty\n", head.cmd);
                if (r.changed) save_state();
                answer = std::move(r.answer);
                auto cit = canned.find(head.cmd);
                if (cit != canned.end()) answer = cit->second;
                answer_it = head.param == SOCKET_DEVICE_BLOCK && silent.count(head.cmd) == 0;
                auto dit = delays.find(head.cmd);
                if (dit != delays.end()) delay = dit->second;
                push = r.push_protocol && opt.push_protocol_on_set;
                if (push) protocol = store.record(ZQ_GETNETWORKPROTOCOL);
            }
        }
        changed.notify_all();

        if (answer_it) {
            std::vector<uint8_t> bytes =
                make_frame(head.cmd, answer.data(), answer.size(), SOCKET_DEVICE_BLOCK, SOCKET_SYSTEM_SERVER);
            if (delay > 0) {
                std::lock_guard<std::mutex> lock(mutex);
                scheduled.push_back(Scheduled{mono_ms() + delay, conn, std::move(bytes)});
            } else {
                std::lock_guard<std::mutex> lock(conn->write_mutex);
                send_locked(*conn, bytes.data(), bytes.size());
            }
        }
        if (push) send_to_all(make_frame(ZQ_PUSH_NETWORKPROTOCOL, protocol.data(), protocol.size()));
    }

    // Take whole frames out of conn's input; false when the stream is beyond repair.
    bool parse(const std::shared_ptr<Conn> &conn)
    {
        std::vector<uint8_t> &in = conn->in;
        size_t pos = 0;
        bool ok = true;
        while (in.size() - pos >= kHead) {
            ZQ_FRAME_HEAD head{};
            std::memcpy(&head, in.data() + pos, kHead);
            if (head.flag != SOCKET_DEVICE_CMD_FLAG || head.cmd_len < 2 || head.cmd_len > kMaxCmdLen) {
                std::fprintf(stderr, "camgate-sysd: bad frame head (flag 0x%08X, length %u), connection closed\n",
                             head.flag, head.cmd_len);
                ok = false;
                break;
            }
            if (in.size() - pos < kHead + head.cmd_len) break;
            std::memcpy(&head.cmd, in.data() + pos + kHead, sizeof head.cmd);
            handle_frame(conn, head, in.data() + pos + sizeof head, head.cmd_len - SOCKET_CMD_LEN_WIDTH);
            pos += kHead + head.cmd_len;
        }
        in.erase(in.begin(), in.begin() + static_cast<long>(pos));
        return ok;
    }

    void close_conn(const std::shared_ptr<Conn> &conn)
    {
        {
            std::lock_guard<std::mutex> lock(conn->write_mutex);
            if (conn->fd >= 0) close(conn->fd);
            conn->fd = -1;
        }
        {
            std::lock_guard<std::mutex> lock(mutex);
            conns.erase(std::remove(conns.begin(), conns.end(), conn), conns.end());
        }
        changed.notify_all();
    }

    void accept_one()
    {
        int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) return;
        timeval tv{2, 0};  // a client that stops reading cannot hold the loop for long
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        auto conn = std::make_shared<Conn>();
        conn->fd = fd;
        {
            std::lock_guard<std::mutex> lock(mutex);
            conns.push_back(conn);
            connect_times.push_back(mono_ms());
        }
        changed.notify_all();
    }

    // Send the delayed answers that are due. Only the loop thread adds to or
    // takes from the schedule, so an answer leaves it only once it is sent.
    void send_due()
    {
        std::vector<Scheduled> due;
        const int64_t now = mono_ms();
        {
            std::lock_guard<std::mutex> lock(mutex);
            for (const Scheduled &s : scheduled)
                if (s.due_ms <= now) due.push_back(s);
        }
        if (due.empty()) return;
        for (Scheduled &s : due) {
            if (auto conn = s.conn.lock()) {
                std::lock_guard<std::mutex> lock(conn->write_mutex);
                send_locked(*conn, s.bytes.data(), s.bytes.size());
            }
        }
        {
            std::lock_guard<std::mutex> lock(mutex);
            scheduled.erase(std::remove_if(scheduled.begin(), scheduled.end(),
                                           [now](const Scheduled &s) { return s.due_ms <= now; }),
                            scheduled.end());
        }
        changed.notify_all();
    }

    int poll_timeout_ms()
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (scheduled.empty()) return 500;
        int64_t next = scheduled.front().due_ms;
        for (const Scheduled &s : scheduled) next = std::min(next, s.due_ms);
        return static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(500, next - mono_ms())));
    }

    void run()
    {
        std::vector<uint8_t> chunk(64 * 1024);
        while (running) {
            std::vector<std::shared_ptr<Conn>> watched;
            std::vector<pollfd> fds{{wake_pipe[0], POLLIN, 0}, {listen_fd, POLLIN, 0}};
            {
                std::lock_guard<std::mutex> lock(mutex);
                watched = conns;
            }
            const bool reading = !paused;
            for (auto &c : watched) fds.push_back({c->fd, static_cast<short>(reading ? POLLIN : 0), 0});
            int n = poll(fds.data(), fds.size(), poll_timeout_ms());
            if (n < 0 && errno != EINTR) break;
            if (fds[0].revents & POLLIN) {
                char drain[64];
                while (read(wake_pipe[0], drain, sizeof drain) > 0) {
                }
            }
            if (!running) break;
            if (fds[1].revents & POLLIN) accept_one();
            for (size_t i = 0; i < watched.size(); ++i) {
                const short ev = fds[i + 2].revents;
                if (ev == 0) continue;
                auto &conn = watched[i];
                if (ev & (POLLIN | POLLHUP | POLLERR)) {
                    ssize_t r = recv(conn->fd, chunk.data(), chunk.size(), MSG_DONTWAIT);
                    if (r < 0 && (errno == EAGAIN || errno == EINTR)) continue;
                    if (r <= 0) {
                        close_conn(conn);
                        continue;
                    }
                    conn->in.insert(conn->in.end(), chunk.begin(), chunk.begin() + r);
                    if (!parse(conn)) close_conn(conn);
                } else if (ev & POLLNVAL) {
                    close_conn(conn);
                }
            }
            send_due();
        }
        std::vector<std::shared_ptr<Conn>> left;
        {
            std::lock_guard<std::mutex> lock(mutex);
            left = conns;
            scheduled.clear();
        }
        for (auto &c : left) close_conn(c);
        changed.notify_all();
    }
};

SysServerSim::SysServerSim(Options opt) : impl_(std::make_unique<Impl>())
{
    impl_->opt = std::move(opt);
    impl_->load_state();
}

SysServerSim::~SysServerSim()
{
    stop();
}

bool SysServerSim::start()
{
    Impl &m = *impl_;
    if (m.running) return true;
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(m.bound_port != 0 ? m.bound_port : m.opt.port));
    socklen_t alen = sizeof addr;
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(fd, 16) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &alen) != 0) {
        close(fd);
        return false;
    }
    if (pipe2(m.wake_pipe, O_NONBLOCK | O_CLOEXEC) != 0) {
        close(fd);
        return false;
    }
    m.listen_fd = fd;
    m.bound_port = ntohs(addr.sin_port);
    m.running = true;
    m.loop = std::thread([&m] { m.run(); });
    return true;
}

void SysServerSim::stop()
{
    Impl &m = *impl_;
    if (!m.running) return;
    m.running = false;
    m.wake();
    if (m.loop.joinable()) m.loop.join();
    close(m.listen_fd);
    m.listen_fd = -1;
    close(m.wake_pipe[0]);
    close(m.wake_pipe[1]);
    m.wake_pipe[0] = m.wake_pipe[1] = -1;
}

int SysServerSim::port() const
{
    return impl_->bound_port;
}

std::vector<uint8_t> SysServerSim::record(uint16_t get_cmd) const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->store.record(get_cmd);
}

void SysServerSim::set_record(uint16_t get_cmd, const void *data, size_t len)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    if (impl_->store.set_record(get_cmd, data, len)) {
        impl_->save_state();
    } else {
        std::fprintf(stderr, "camgate-sysd: record 0x%03X of %zu bytes not stored\n", get_cmd, len);
    }
}

std::vector<ZQ_USER_ENTRY> SysServerSim::users() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->store.users();
}

void SysServerSim::set_users(const std::vector<ZQ_USER_ENTRY> &users)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->store.set_users(users);
    impl_->save_state();
}

std::vector<uint8_t> SysServerSim::tour(uint8_t tour_id) const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->store.tour(tour_id);
}

void SysServerSim::set_tour(uint8_t tour_id, const std::vector<uint8_t> &tour)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    if (impl_->store.set_tour(tour_id, tour)) impl_->save_state();
}

std::vector<Frame> SysServerSim::received() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->log;
}

void SysServerSim::clear_received()
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->log.clear();
}

int SysServerSim::count(uint16_t cmd) const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return static_cast<int>(
        std::count_if(impl_->log.begin(), impl_->log.end(), [cmd](const Frame &f) { return f.cmd == cmd; }));
}

bool SysServerSim::wait_for(uint16_t cmd, int timeout_ms, Frame *out, int n) const
{
    Impl &m = *impl_;
    std::unique_lock<std::mutex> lock(m.mutex);
    const Frame *found = nullptr;
    auto nth = [&] {
        int seen = 0;
        for (const Frame &f : m.log) {
            if (f.cmd == cmd && ++seen == n) {
                found = &f;
                return true;
            }
        }
        return false;
    };
    if (!m.changed.wait_for(lock, std::chrono::milliseconds(timeout_ms), nth)) return false;
    if (out != nullptr) *out = *found;
    return true;
}

void SysServerSim::set_delay(uint16_t cmd, int delay_ms)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    if (delay_ms > 0) {
        impl_->delays[cmd] = delay_ms;
    } else {
        impl_->delays.erase(cmd);
    }
}

void SysServerSim::set_silent(uint16_t cmd, bool silent)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    if (silent) {
        impl_->silent.insert(cmd);
    } else {
        impl_->silent.erase(cmd);
    }
}

void SysServerSim::set_canned_answer(uint16_t cmd, const std::vector<uint8_t> &data)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    if (data.empty()) {
        impl_->canned.erase(cmd);
    } else {
        impl_->canned[cmd] = data;
    }
}

void SysServerSim::reset_behaviour()
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->delays.clear();
    impl_->silent.clear();
    impl_->canned.clear();
    impl_->paused = false;
    impl_->wake();
}

bool SysServerSim::push(uint16_t cmd, const void *data, size_t len)
{
    return impl_->send_to_all(make_frame(cmd, data, len)) > 0;
}

int SysServerSim::connections() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return static_cast<int>(impl_->conns.size());
}

bool SysServerSim::wait_connections(int n, int timeout_ms) const
{
    Impl &m = *impl_;
    std::unique_lock<std::mutex> lock(m.mutex);
    return m.changed.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
        const int have = static_cast<int>(m.conns.size());
        return n == 0 ? have == 0 : have >= n;
    });
}

void SysServerSim::drop_connections()
{
    Impl &m = *impl_;
    std::vector<std::shared_ptr<Conn>> targets;
    {
        std::lock_guard<std::mutex> lock(m.mutex);
        targets = m.conns;
    }
    for (auto &c : targets) {
        std::lock_guard<std::mutex> lock(c->write_mutex);
        if (c->fd >= 0) shutdown(c->fd, SHUT_RDWR);  // the loop sees the end and closes it
    }
    if (!m.running) return;
    m.wake();
    std::unique_lock<std::mutex> lock(m.mutex);
    m.changed.wait_for(lock, std::chrono::seconds(2), [&] {
        for (auto &c : targets) {
            if (std::find(m.conns.begin(), m.conns.end(), c) != m.conns.end()) return false;
        }
        return true;
    });
}

bool SysServerSim::send_raw(const std::vector<uint8_t> &bytes, size_t piece_size, int gap_ms)
{
    std::vector<std::shared_ptr<Conn>> targets;
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        targets = impl_->conns;
    }
    if (targets.empty()) return false;
    std::vector<std::unique_lock<std::mutex>> locks;
    for (auto &c : targets) locks.emplace_back(c->write_mutex);
    if (piece_size == 0) piece_size = bytes.size();
    bool ok = true;
    for (size_t pos = 0; pos < bytes.size(); pos += piece_size) {
        const size_t n = std::min(piece_size, bytes.size() - pos);
        for (auto &c : targets) ok = send_locked(*c, bytes.data() + pos, n) && ok;
        if (gap_ms > 0 && pos + n < bytes.size()) std::this_thread::sleep_for(std::chrono::milliseconds(gap_ms));
    }
    return ok;
}

void SysServerSim::pause_reading(bool paused)
{
    impl_->paused = paused;
    impl_->wake();
}

std::vector<int64_t> SysServerSim::connect_times() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->connect_times;
}

void SysServerSim::reset_store()
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->store = Store();
    impl_->save_state();
}

bool SysServerSim::wait_idle(int timeout_ms) const
{
    Impl &m = *impl_;
    std::unique_lock<std::mutex> lock(m.mutex);
    return m.changed.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return m.scheduled.empty(); });
}

std::string SysServerSim::state_error() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->state_error;
}

}  // namespace sysd

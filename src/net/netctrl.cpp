#include "net/netctrl.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "common/env.h"
#include "common/log.h"
#include "media/udp_preview.h"
#include "net/edci_protocol.h"
#include "net/net_comm.h"
#include "net/netuser.h"

namespace {

SERVER_INFO tcp_server;
SERVER_INFO udp_server;
tcl_info *g_info = nullptr;

constexpr int kListenBacklog = 8;
constexpr int kIdleEnableUs = 200000;
constexpr int kIdleDiscoveryUs = 500000;

void log_thread(const char *name)
{
    DBG("thread %s, pid = %d,thread id = %d", name, static_cast<int>(gettid()), static_cast<int>(pthread_self()));
}

bool start_detached(void *(*routine)(void *), void *arg)
{
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) return false;
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t tid;
    const int err = pthread_create(&tid, &attr, routine, arg);
    pthread_attr_destroy(&attr);
    return err == 0;
}

void set_recv_timeout(int fd, int seconds)
{
    timeval tv{};
    tv.tv_sec = seconds;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) != 0) ERR("set_recv_timeout failed!");
}

// Replace the socket of server by a new one on tcl_info's address and port.
// The copied address and port go into addr_into's record (the server's own,
// except when the UDP server rebuilds on a port change: then they go into the
// TCP server's record). Returns the new descriptor (-1 when it could not be made).
int rebuild(SERVER_INFO *server, SERVER_INFO *addr_into, bool tcp, std::atomic<int> *info_fd)
{
    int fd;
    {
        std::lock_guard<std::mutex> lock(server->rebuild_lock);
        if (server->fd >= 0) close(server->fd);
        const unsigned long addr = g_info->tcl_addr.load();
        const auto port = static_cast<unsigned short>(g_info->tcl_port.load());
        addr_into->local_addr = addr;
        addr_into->local_port = port;
        fd = tcp ? create_listen_fd(addr, port) : create_udp_fd(addr, port, 0);
        server->fd = fd;
        *info_fd = fd;
        ++server->generation;
    }
    server->rebuild_cond.notify_all();
    return fd;
}

int rebuild_listener()
{
    int fd = rebuild(&tcp_server, &tcp_server, true, &g_info->tcp_fd);
    if (fd >= 0) g_info->tcl_st = con_suc;
    return fd;
}

int rebuild_udp(bool port_change)
{
    int fd = rebuild(&udp_server, port_change ? &tcp_server : &udp_server, false, &g_info->udp_fd);
    if (fd >= 0) {
        set_recv_timeout(fd, 2);
        g_info->udp_st = con_suc;
    }
    return fd;
}

// Give server its first socket fd (bound to addr and port) and start routine
// to serve it; 0, TK_ERR_SOCKET without a socket, TK_ERR_REFUSED without a thread.
int start_server(SERVER_INFO *server, int fd, unsigned long addr, unsigned short port, void *(*routine)(void *))
{
    if (fd == -1) {
        destroy_server_info(server);
        return TK_ERR_SOCKET;
    }
    {
        std::lock_guard<std::mutex> lock(server->rebuild_lock);
        server->fd = fd;
        server->local_addr = addr;
        server->local_port = port;
    }
    if (!start_detached(routine, g_info)) {
        close(fd);
        destroy_server_info(server);
        return TK_ERR_REFUSED;
    }
    return 0;
}

int make_discovery_fd(int broadcast)
{
    return create_udp_fd(0, static_cast<unsigned short>(env_discovery_port()), broadcast);
}

// Wait until server's loop has replaced its socket (generation moved past
// before); lock is held on entry. False after 10 s.
bool wait_rebuilt(SERVER_INFO *server, std::unique_lock<std::mutex> &lock, unsigned before)
{
    return server->rebuild_cond.wait_for(lock, std::chrono::seconds(10), [&] { return server->generation != before; });
}

}  // namespace

int create_listen_fd(unsigned long addr, unsigned short port)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        ERR("fd[%d] setsockopt SO_REUSEADDR failed!", fd);
        close(fd);
        return -1;
    }
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(static_cast<uint32_t>(addr));
    sa.sin_port = htons(port);
    if (bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) {
        ERR("fd[%d] bind addr[%ld] port[%d] failed", fd, static_cast<long>(addr), port);
        close(fd);
        return -1;
    }
    if (listen(fd, kListenBacklog) != 0) {
        ERR("fd[%d] listen failed! ", fd);
        close(fd);
        return -1;
    }
    DBG("create listen fd[%d] addr[%ld] port[%d] success!", fd, static_cast<long>(addr), port);
    return fd;
}

int create_udp_fd(unsigned long addr, unsigned short port, int broadcast)
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        ERR("socket failed! errno : %d", errno);
        return -1;
    }
    int on = 1;
    if (broadcast && setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0) {
        ERR("setsockopt SO_BROADCAST failed! errno : %d", errno);
        close(fd);
        return -1;
    }
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        ERR("setsockopt setsockopt failed! errno : %d", errno);
        close(fd);
        return -1;
    }
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(static_cast<uint32_t>(addr));
    sa.sin_port = htons(port);
    if (bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) {
        ERR("bind failed! errno : %d", errno);
        close(fd);
        return -1;
    }
    return fd;
}

int init_server_info(SERVER_INFO *server)
{
    std::lock_guard<std::mutex> lock(server->rebuild_lock);
    server->fd = -1;
    server->local_addr = 0;
    server->local_port = 0;
    return 0;
}

void destroy_server_info(SERVER_INFO *server)
{
    std::lock_guard<std::mutex> lock(server->rebuild_lock);
    server->fd = -1;
}

void *tcp_listen_routine(void *arg)
{
    auto *info = static_cast<tcl_info *>(arg);
    log_thread("tcp_listen_routine");
    int listen_fd;
    {
        std::lock_guard<std::mutex> lock(tcp_server.rebuild_lock);
        listen_fd = tcp_server.fd;
    }
    for (;;) {
        while (info->tcl_enable.load() == 0) usleep(kIdleEnableUs);
        if (info->tcl_st.load() == con_change_port) listen_fd = rebuild_listener();
        if (listen_fd < 0) {
            // The port could not be bound (taken): try again each second instead of spinning.
            sleep(1);
            listen_fd = rebuild_listener();
            continue;
        }

        fd_set rset;
        FD_ZERO(&rset);
        FD_SET(listen_fd, &rset);
        timeval tv{2, 0};
        if (select(listen_fd + 1, &rset, nullptr, nullptr, &tv) <= 0) continue;

        sockaddr_in peer{};
        socklen_t len = sizeof peer;
        errno = 0;
        int fd = accept(listen_fd, reinterpret_cast<sockaddr *>(&peer), &len);
        if (fd < 0 || info->tcl_st.load() != con_suc || info->tcl_enable.load() == 0) {
            const int err = errno;
            ERR("accept failed! errnon");
            // A connection accepted while the service is being switched off is left as it is.
            if (err != EAGAIN && err != EINTR) listen_fd = rebuild_listener();
            continue;
        }
        char ip[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &peer.sin_addr, ip, sizeof ip);
        DBG("accept fd[%d] from ip[%s] success!", fd, ip);
        int on = 1;
        setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
        if (!start_detached(tcp_session_routine, reinterpret_cast<void *>(static_cast<intptr_t>(fd)))) {
            ERR("create thread failed!");
            close(fd);
        }
    }
    return nullptr;
}

void *tcp_session_routine(void *arg)
{
    const int fd = static_cast<int>(reinterpret_cast<intptr_t>(arg));
    log_thread("tcp_session_routine");
    char magic[4];
    if (readn(fd, magic, sizeof magic) < static_cast<int>(sizeof magic)) {
        ERR("fd[%d] readn failed!", fd);
    } else if (edci_is_magic(magic)) {
        int ret = edci_parse_protocol(fd);
        if (ret != 0) ERR("fd[%d] edci_parse_protocol failed! ret : %d", fd, ret);
    } else {
        int32_t value;
        std::memcpy(&value, magic, sizeof value);
        ERR("fd[%d] pkt_magic[%d] error!", fd, value);
    }
    if (fd != -1) close(fd);
    return nullptr;
}

void *udp_server_routine(void *arg)
{
    auto *info = static_cast<tcl_info *>(arg);
    log_thread("udp_server_routine");
    int fd;
    {
        std::lock_guard<std::mutex> lock(udp_server.rebuild_lock);
        fd = udp_server.fd;
    }
    set_recv_timeout(fd, 2);
    for (;;) {
        while (info->tcl_enable.load() == 0) usleep(kIdleEnableUs);
        if (info->udp_st.load() == con_change_port) fd = rebuild_udp(true);
        if (fd < 0) {
            sleep(1);
            fd = rebuild_udp(false);
            continue;
        }
        errno = 0;
        if (edci_parse_udp_protocol(fd) == 0) {
            usleep(20000);
            continue;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) continue;
        ERR("edci_parse_udp_protocol failed! errno : %d", errno);
        fd = rebuild_udp(false);
    }
    return nullptr;
}

void *udp_select_routine(void *arg)
{
    std::unique_ptr<UDP_SELECT_INFO> select_info(static_cast<UDP_SELECT_INFO *>(arg));
    tcl_info *info = g_info;
    log_thread("udp_select_routine");
    int fd = select_info->ls_discov_fd;
    select_info.reset();
    info->ls_discov_fd = fd;
    set_recv_timeout(fd, 5);

    auto recreate = [&] {
        if (fd >= 0) close(fd);
        fd = make_discovery_fd(0);
        info->ls_discov_fd = fd;
        if (fd >= 0) set_recv_timeout(fd, 2);
    };
    for (;;) {
        while (info->tcl_enable.load() == 0) usleep(kIdleDiscoveryUs);
        if (info->tcl_st.load() == con_fail) recreate();
        if (fd < 0) {
            sleep(1);
            recreate();
            continue;
        }
        fd_set rset;
        FD_ZERO(&rset);
        FD_SET(fd, &rset);
        if (select(fd + 1, &rset, nullptr, nullptr, nullptr) < 1) {
            usleep(20000);
            continue;
        }
        if (!FD_ISSET(fd, &rset)) continue;
        errno = 0;
        if (edci_parse_udp_protocol(fd) != 0) {
            ERR("edci_parse_udp_protocol failed! errno : %d", errno);
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) continue;
            recreate();
        }
    }
    return nullptr;
}

int netctrl_init(tcl_info *info)
{
    DBG("The CMS  starting ......!!!\r\n");
    g_info = info;
    int ret = netuser_init();
    if (ret != 0) return ret;

    const unsigned long addr = info->tcl_addr.load();
    const auto port = static_cast<unsigned short>(info->tcl_port.load());

    init_server_info(&tcp_server);
    int fd = create_listen_fd(addr, port);
    info->tcp_fd = fd;
    if (fd == -1) ERR("init_tcp_server error,errno = %d", errno);
    ret = start_server(&tcp_server, fd, addr, port, tcp_listen_routine);
    if (ret != 0) return ret;

    init_server_info(&udp_server);
    fd = create_udp_fd(addr, port, 0);
    info->udp_fd = fd;
    ret = start_server(&udp_server, fd, addr, port, udp_server_routine);
    if (ret != 0) return ret;

    std::unique_ptr<UDP_SELECT_INFO> select_info(new (std::nothrow) UDP_SELECT_INFO);
    if (!select_info) return TK_ERR_REFUSED;
    select_info->ls_discov_fd = make_discovery_fd(1);
    if (select_info->ls_discov_fd == -1) return TK_ERR_SOCKET;
    if (!start_detached(udp_select_routine, select_info.get())) {
        close(select_info->ls_discov_fd);
        return TK_ERR_REFUSED;
    }
    select_info.release();  // the discovery thread frees it
    return 0;
}

int netctrl_server_rebuild(unsigned long addr, unsigned short port)
{
    if (g_info == nullptr) return -1;
    int result = 0;
    struct Step {
        SERVER_INFO *server;
        std::atomic<int> *state;
        const char *fmt;
    };
    const Step steps[] = {
        {&tcp_server, &g_info->tcl_st, "tcp server port changed from %d to %d"},
        {&udp_server, &g_info->udp_st, "udp server port changed from %d to %d"},
    };
    for (const Step &step : steps) {
        std::unique_lock<std::mutex> lock(step.server->rebuild_lock);
        const int old_port = step.server->local_port.load();
        step.server->local_addr = addr;
        step.server->local_port = port;
        // The loops rebuild on tcl_info's address and port.
        g_info->tcl_addr = addr;
        g_info->tcl_port = port;
        *step.state = con_change_port;
        const unsigned before = step.server->generation;
        if (step.server->fd >= 0) shutdown(step.server->fd, SHUT_RDWR);
        if (!wait_rebuilt(step.server, lock, before)) {
            ERR("server on port %d was not rebuilt", old_port);
            result = -1;
            continue;
        }
        DBG(step.fmt, old_port, port);
    }
    return result;
}

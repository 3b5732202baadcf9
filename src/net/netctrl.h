// The network front end: the TCP listener, the UDP server on the same port
// and the UDP discovery loop, each in its own thread, and one detached thread
// per accepted connection.
//
// The loops obey the process-wide tcl_info: they serve only while tcl_enable
// is set; the listener and the UDP server rebuild their socket on the current
// tcl_port when their state says con_change_port (and after a failure); the
// discovery loop re-creates its socket while tcl_st says con_fail. Existing
// connections are never touched by these changes.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "main/tcl_hook.h"

#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 30))
// gettid() comes from the C library: the calling thread's kernel thread id.
#else
#include <sys/syscall.h>
// The calling thread's kernel thread id, for log lines.
inline pid_t gettid()
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}
#endif

// One server socket and the lock that makes its replacement atomic for a
// waiter in netctrl_server_rebuild; the condition is notified after every
// replacement.
struct SERVER_INFO {
    int fd = -1;                               // under rebuild_lock
    std::atomic<unsigned long> local_addr{0};  // host order
    std::atomic<unsigned short> local_port{0};
    unsigned generation = 0;  // replacements so far, under rebuild_lock
    std::condition_variable rebuild_cond;
    std::mutex rebuild_lock;
};

// Hand-over of the discovery socket to its thread, which frees it.
struct UDP_SELECT_INFO {
    int ls_discov_fd;
};

// Start the session registry and the three loops on tcl_port (discovery on
// env_discovery_port()). 0, the registry's error, -6 (thread or memory
// failure) or -8 (a socket could not be made).
int netctrl_init(tcl_info *info);

// TCP socket bound to addr:port (host order; addr 0 = any) with SO_REUSEADDR,
// listening with a backlog of 8. The descriptor, or -1 with a log line.
int create_listen_fd(unsigned long addr, unsigned short port);

// UDP socket bound to addr:port with SO_REUSEADDR, and SO_BROADCAST when
// broadcast is not 0. The descriptor, or -1 with a log line.
int create_udp_fd(unsigned long addr, unsigned short port, int broadcast);

// Clear address and port and set fd to -1. Returns 0.
int init_server_info(SERVER_INFO *server);
// Forget the socket (fd -1); the caller closes it.
void destroy_server_info(SERVER_INFO *server);

// Move both servers to addr:port: store them (also as tcl_info's tcl_addr and
// tcl_port), shut each socket down and wait until its loop has replaced it.
// 0; -1 when a loop did not rebuild within 10 s (it sleeps while the client
// protocol is disabled).
int netctrl_server_rebuild(unsigned long addr, unsigned short port);

// Thread bodies (pthread signature). The first three run for the life of
// the process; tcp_session_routine serves one accepted connection (arg: the
// descriptor as intptr_t): it reads the 4-byte magic, runs
// edci_parse_protocol when it is "QVRM", and closes the socket.
void *tcp_listen_routine(void *arg);   // arg: tcl_info*
void *tcp_session_routine(void *arg);  // arg: (intptr_t)fd
void *udp_server_routine(void *arg);   // arg: tcl_info*
void *udp_select_routine(void *arg);   // arg: UDP_SELECT_INFO*, freed by the thread

// Blocking socket helpers through which all connection code reads and writes
// whole buffers. None of them closes the descriptor: the caller does.
#pragma once

#include <sys/time.h>
#include <cstdio>

// Like read(2) but make sure 'count' bytes are read. Returns count, or fewer
// when the peer closed first; 0 when count is below 1; -1 on a read error
// (EINTR included), even when part of the buffer was filled.
int readn(int fd, void *buf, int count);

// Like write(2) but make sure 'count' bytes are written. Returns count; 0 when
// count is 0; -1 as soon as a write returns 0 or less.
int writen(int fd, const void *buf, unsigned int count);

// send(2) the whole buffer; when the socket would block (EAGAIN) or a signal
// interrupts (EINTR), wait in select() for it to become writable, at most
// send_timeout_timeval(timeout_ms) each time. Returns count (count itself
// when below 1); 0 on a time-out; -1 for a socket below 1 or on an error.
int send_with_timeout(int sockfd, const void *buf, int count, int timeout_ms);

// The select() time-out used by send_with_timeout: seconds = ms / 1000 and
// microseconds = ms * 1000, without reducing ms modulo 1000, so 1000 ms or
// more waits about twice as long as asked. Kept so for the clients tuned to it.
struct timeval send_timeout_timeval(int timeout_ms);

// send(2) the remainder until count bytes are out. Returns count; 0 when
// count is 0 or negative; -1 (with a log line) when a send returns below 1.
int send_long_tcp_data(int sockfd, const void *buf, int count);

// fwrite(3) the whole buffer as one item until it is written; returns count
// times the items written (count), 0 when count is below 1. A call that
// writes nothing is retried at once, without limit.
int write_long_tcp_data(FILE *stream, const void *buf, int count);

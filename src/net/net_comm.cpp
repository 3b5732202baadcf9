#include "net/net_comm.h"

#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "common/log.h"

int readn(int fd, void *buf, int count)
{
    if (count < 1) return 0;
    char *p = static_cast<char *>(buf);
    int done = 0;
    while (done < count) {
        ssize_t n = read(fd, p + done, static_cast<size_t>(count - done));
        if (n < 0) return -1;
        if (n == 0) break;  // peer closed
        done += static_cast<int>(n);
    }
    return done;
}

int writen(int fd, const void *buf, unsigned int count)
{
    const char *p = static_cast<const char *>(buf);
    unsigned int done = 0;
    while (done < count) {
        ssize_t n = write(fd, p + done, count - done);
        if (n <= 0) return -1;
        done += static_cast<unsigned int>(n);
    }
    return static_cast<int>(count);
}

struct timeval send_timeout_timeval(int timeout_ms)
{
    struct timeval tv {};
    tv.tv_sec = timeout_ms / 1000;
    tv.tv_usec = static_cast<suseconds_t>(timeout_ms) * 1000;
    return tv;
}

int send_with_timeout(int sockfd, const void *buf, int count, int timeout_ms)
{
    if (sockfd < 1) return -1;
    if (count < 1) return count;
    const char *p = static_cast<const char *>(buf);
    int done = 0;
    for (;;) {
        ssize_t n = send(sockfd, p + done, static_cast<size_t>(count - done), 0);
        if (n >= 0) {
            done += static_cast<int>(n);
            if (done >= count) return count;
            continue;
        }
        if (errno != EINTR && errno != EAGAIN) {
            ERR("send error: -----");
            return -1;
        }
        fd_set wset;
        FD_ZERO(&wset);
        FD_SET(sockfd, &wset);
        struct timeval tv = send_timeout_timeval(timeout_ms);
        int r = select(sockfd + 1, nullptr, &wset, nullptr, &tv);
        if (r < 0) {
            ERR("select error");
            return -1;
        }
        if (r == 0) {
            ERR("send timeout");
            return 0;
        }
        if (!FD_ISSET(sockfd, &wset)) {
            ERR("send error: -----");
            return -1;
        }
        DBG("first send failed, continue send");
    }
}

int send_long_tcp_data(int sockfd, const void *buf, int count)
{
    if (count <= 0) return 0;
    const char *p = static_cast<const char *>(buf);
    int done = 0;
    while (done < count) {
        ssize_t n = send(sockfd, p + done, static_cast<size_t>(count - done), 0);
        if (n < 1) {
            ERR("send tcp data failed,rror message:%s ", strerror(errno));
            return -1;
        }
        done += static_cast<int>(n);
    }
    return count;
}

int write_long_tcp_data(FILE *stream, const void *buf, int count)
{
    if (count < 1) return 0;
    int failures = 0;
    for (;;) {
        // fwrite reports a size_t; the negative branch mirrors a writer that can fail with -1.
        long items = static_cast<long>(fwrite(buf, static_cast<size_t>(count), 1, stream));
        if (items > 0) return count * static_cast<int>(items);
        if (items < 0) {
            ERR("write\terror recv_len = %ld, errno = %d", items, errno);
            usleep(1000);
            if (++failures >= 5000) return 0;
        }
    }
}

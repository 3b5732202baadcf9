#include "media/udp_preview.h"

#include <netinet/in.h>
#include <sys/socket.h>

int edci_parse_udp_protocol(int fd)
{
    char buf[1024];
    sockaddr_in from{};
    socklen_t len = sizeof from;
    ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &len);
    if (n < 0) return -8;
    return 0;
}

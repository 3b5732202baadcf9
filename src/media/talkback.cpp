#include "media/talkback.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>
#include <new>

#include "common/log.h"
#include "common/tk_proto.h"

namespace {

// The thread of an active talk: no audio channel exists, so it only frees its package.
void *active_talkback_routine(void *package)
{
    std::unique_ptr<NEW_ACTIVE_TALK_PACKAGE> owned(static_cast<NEW_ACTIVE_TALK_PACKAGE *>(package));
    return nullptr;
}

}  // namespace

int talkback_routine(int fd)
{
    (void)fd;
    return 0;
}

int active_talkback(int sockfd, int auth_id, const char *payload)
{
    std::unique_ptr<NEW_ACTIVE_TALK_PACKAGE> pkg(new (std::nothrow) NEW_ACTIVE_TALK_PACKAGE());
    if (!pkg) {
        ERR("active_talkback:malloc failed!");
        return -6;
    }
    std::memcpy(&pkg->req, payload, sizeof pkg->req);
    pkg->req.ipaddr[sizeof pkg->req.ipaddr - 1] = '\0';
    if (pkg->req.ipaddr[0] == '\0') {
        sockaddr_in peer{};
        socklen_t len = sizeof peer;
        if (getpeername(sockfd, reinterpret_cast<sockaddr *>(&peer), &len) != 0) {
            ERR("getpeername failed!");
            return -1;
        }
        inet_ntop(AF_INET, &peer.sin_addr, pkg->req.ipaddr, sizeof pkg->req.ipaddr);
    }
    pkg->auth_id = auth_id;
    pthread_t tid;
    if (pthread_create(&tid, nullptr, active_talkback_routine, pkg.get()) != 0) {
        ERR("creat thread [active_talkback_routine] failed");
        return -6;
    }
    pkg.release();  // the thread owns it now
    pthread_detach(tid);
    return 0;
}

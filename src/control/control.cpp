#include "control/control.h"

#include <unistd.h>
#include <cerrno>

#include "common/log.h"
#include "media/preview.h"
#include "net/edci_protocol.h"
#include "net/net_comm.h"
#include "net/netuser.h"

int control_routine(int fd, char *buf, int session_id, USER_PRIVILEGE *priv, int auth_id)
{
    (void)priv;  // the rights gate comes with the settings commands
    NEW_PACKET_HEADER head{};
    NEW_PACKET_HEADER reply{};
    for (;;) {
        errno = 0;
        int n = readn(fd, &head, sizeof head);
        if (n != static_cast<int>(sizeof head)) {
            ERR("fd[%d] read head failed,len=[%d],errno=[%d]", fd, n, errno);
            return TK_ERR_IO;
        }
        if (head.len > static_cast<TK_U32>(CONTROL_BUF_SIZE)) {
            // Never read past the work buffer: a longer payload ends the connection.
            ERR("fd[%d] payload too long,len=[%u],max=[%d]", fd, head.len, CONTROL_BUF_SIZE);
            return TK_ERR_IO;
        }
        if (head.len != 0) {
            n = readn(fd, buf, static_cast<int>(head.len));
            if (n != static_cast<int>(head.len)) {
                ERR("fd[%d] read payload failed,len=[%d],errno=[%d]", fd, n, errno);
                return TK_ERR_IO;
            }
        }

        int result = 0;
        switch (head.cmd) {
            case TK_CMD_HEARTBEAT:
                netuser_update_heartbeat(session_id);
                new_tknvi_noload_ack(&reply, TK_OK);
                break;
            case TK_CMD_ACTIVE_PREVIEW:
                // The camera connects out to the address in the request; the reply says whether it started.
                new_tknvi_noload_ack(&reply, head.len >= sizeof(NEW_ACTIVE_PERVIEW_REQ)
                                                 ? active_preview(fd, auth_id, buf)
                                                 : TK_ERR_UNSUPPORTED);
                break;
            case TK_CMD_LOGOUT:
                new_tknvi_noload_ack(&reply, TK_OK);
                netuser_write_log(session_id, LOG_REMOTE_LOGOUT, 0);
                result = -1;
                break;
            default:
                DBG("control_routine: head.cmd = [%#x]", static_cast<unsigned>(head.cmd));
                new_tknvi_noload_ack(&reply, TK_ERR_UNSUPPORTED);
                break;
        }

        n = writen(fd, &reply, sizeof reply);
        if (n != static_cast<int>(sizeof reply)) {
            ERR("write return head failed,len=[%d],errno=[%d]", n, errno);
            return TK_ERR_IO;
        }
        if (reply.len != 0) {
            n = writen(fd, buf, reply.len);
            if (n != static_cast<int>(reply.len)) {
                ERR("write login_routine payload failed,len=[%d],errno=[%d]", n, errno);
                return TK_ERR_IO;
            }
        }
        if (result != 0) return result;
        usleep(2000);
    }
}

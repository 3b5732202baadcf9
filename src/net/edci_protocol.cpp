#include "net/edci_protocol.h"

#include <cerrno>
#include <cstring>

#include "common/log.h"
#include "main/tcl_hook.h"
#include "media/preview.h"
#include "media/talkback.h"
#include "net/login.h"
#include "net/net_comm.h"
#include "playback/playback.h"

void new_tknvi_noload_ack(NEW_PACKET_HEADER *header, int code)
{
    header->magic = TK_PROTO_MAGIC;
    header->cmd = code;
    header->len = 0;
}

void new_tknvi_load_ack(NEW_PACKET_HEADER *header, void *body, int item_size, int count)
{
    header->magic = TK_PROTO_MAGIC;
    header->cmd = 0;
    header->len = static_cast<TK_U32>(count * item_size + 4);
    const TK_S32 n = count;
    std::memcpy(body, &n, sizeof n);
}

bool edci_is_magic(const void *p)
{
    return std::memcmp(p, "QVRM", 4) == 0;
}

int edci_parse_protocol(int fd)
{
    tcl_info *info = get_g_tcl_info();

    // The magic has been read by the connection thread; cmd and len follow.
    struct CG_PACKED {
        TK_S32 cmd;
        TK_U32 len;
    } rest{};
    static_assert(sizeof rest == sizeof(NEW_PACKET_HEADER) - 4, "cmd and len are the last 8 header bytes");
    errno = 0;
    int n = readn(fd, &rest, sizeof rest);
    const int enable = info->tcl_enable.load();
    const int st = info->tcl_st.load();
    if (n != static_cast<int>(sizeof rest) || enable == 0 || st != con_suc) {
        ERR("read NEW_PACKET_HEADER failed, lenth=[%d],errno=[%d],tcl_enable = %d, st = %d", n, errno, enable, st);
        return TK_ERR_IO;
    }

    DBG("edci_parse_protocol, now cmd = %d", rest.cmd);
    switch (rest.cmd) {
        case TK_CMD_LOGIN:
            return login_routine(fd);
        case TK_CMD_PREVIEW_START:
            // The magic printed in these two lines is not the received one.
            ERR("TK_CMD_PREVIEW_START fd = %d, cmd = %d, magic = %d, len = %d", fd, rest.cmd, 0, rest.len);
            return preview_routine(fd);
        case TK_CMD_START_PLAY:
            ERR("TK_CMD_PREVIEW_START fd = %d, cmd = 0x%x, magic = %d, len = %d", fd, rest.cmd, 0, rest.len);
            return playback_routine(fd);
        case TK_CMD_TALK_START:
            return talkback_routine(fd);
        case TK_CMD_UPGRADE_FIRST:
        case TK_CMD_UPLOAD_FIRST:
            return 0;
        default:
            return TK_ERR_UNSUPPORTED;
    }
}

// The control dispatcher: one request at a time, classified by range, gated
// by the session's rights, run by the dispatcher itself or by a group
// handler, answered with exactly one reply (with the exceptions of the
// upgrade and upload ranges, the reboot and the refusals that end the
// connection).
#include "control/control.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

#include "common/env.h"
#include "common/log.h"
#include "control/cfg_base.h"
#include "control/cfg_channel_enc.h"
#include "control/cfg_network.h"
#include "control/cfg_video_detect.h"
#include "control/event.h"
#include "control/ptz.h"
#include "control/recorder.h"
#include "control/snap.h"
#include "control/storage.h"
#include "control/user_mng.h"
#include "media/preview.h"
#include "media/talkback.h"
#include "net/edci_protocol.h"
#include "net/net_comm.h"
#include "net/netuser.h"
#include "playback/search.h"

namespace {

constexpr useconds_t kRequestPauseUs = 2000;
constexpr int kSnapBufSize = 1536000;
constexpr size_t kResetCmdSize = 128;

// One control connection as the dispatcher sees it.
struct Conn {
    int fd;
    char *buf;
    int session_id;
    USER_PRIVILEGE *priv;
    int auth_id;
    NEW_PACKET_HEADER head;   // the request
    NEW_PACKET_HEADER reply;  // the dispatcher's reply header, kept between requests
};

// What is left to do once a request has been dispatched.
struct Step {
    bool send = true;  // write conn.reply and its payload from the work buffer
    bool end = false;  // then return result
    int result = 0;
};

Step keep_going()
{
    Step s;
    s.send = false;
    return s;
}

Step end_with(int result)
{
    Step s;
    s.send = false;
    s.end = true;
    s.result = result;
    return s;
}

bool in_range(int cmd, int lo, int hi)
{
    return cmd >= lo && cmd <= hi;
}

int payload_word(const char *buf)
{
    int v = 0;
    std::memcpy(&v, buf, sizeof v);
    return v;
}

// Bytes of the request payload that the command reads as records. What the
// client did not send of them is zeroed, so a handler never takes bytes of an
// earlier request for this one's (covers five to eight of a 148-byte overlay
// record, a short schedule).
size_t payload_extent(int cmd)
{
    switch (cmd) {
        case TK_CMD_SET_TIME:
            return sizeof(TK_SYS_TIME);
        case TK_CMD_SET_DATE_FORMAT:
        case TK_CMD_SET_PRERECORD_TIME:
        case TK_CMD_SET_OVERWRITE_MODE:
            return sizeof(TK_U32);
        case TK_CMD_SET_NETWORK_CFG:
            return sizeof(NET_COMM_PARA);
        case TK_CMD_SET_NTP_CFG:
            return sizeof(NET_NTP_PARA);
        case TK_CMD_SET_EMAIL_CFG:
            return sizeof(NET_EMAIL_PARA);
        case TK_CMD_SET_FTP_CFG:
            return sizeof(NET_FTP_PARA);
        case TK_CMD_SET_DDNS_CFG:
            return sizeof(NET_DDNS_PARA);
        case TK_CMD_SET_CHN_CFG:
            return offsetof(VIDEO_CHN_PARA, cover) + 8 * sizeof(VIDEO_COVER_ATTR);
        case TK_CMD_SET_RECORD_SCHEDULE:
            return sizeof(TK_SET_PREFIX) + sizeof(REC_SCHE_PARA);
        case TK_CMD_ADD_USER:
        case TK_CMD_DEL_USER:
        case TK_CMD_MODIFY_USER:
            return sizeof(USER_INFO);
        case TK_CMD_CHANGE_PASSWD:
            return sizeof(TK_CHANGE_PASSWD_REQ);
        case TK_CMD_SET_PTZ_CFG:
            return sizeof(TK_SET_PREFIX) + sizeof(PTZ_PARA);
        case TK_CMD_PTZ_CONTROL:
            return sizeof(PTZ_CMD_PACKAGE);
        case TK_CMD_ACTIVE_PREVIEW:
            return sizeof(NEW_ACTIVE_PERVIEW_REQ);
        case TK_CMD_ACTIVE_TALK:
            return sizeof(NEW_ACTIVE_TALK_REQ);
        case TK_CMD_SEARCH_REC_FILE:
        case TK_CMD_SEARCH_JPG_FILE:
            return sizeof(TK_SEARCH_REQ);
        default:
            return 0;
    }
}

// The reply header built in conn.reply.
Step answer(Conn &c, int result)
{
    new_tknvi_noload_ack(&c.reply, result);
    return Step();
}

// A stale header: conn.reply is sent again as it stands.
Step stale()
{
    return Step();
}

// Refusals of the ranges that end the connection are built in the request's
// own header buffer; the dispatcher's reply header is left as it was.
Step refuse_and_end(Conn &c)
{
    new_tknvi_noload_ack(&c.head, TK_ERR_RIGHT);
    if (control_write_reply(c.fd, &c.head, nullptr) != 0) return end_with(TK_ERR_IO);
    return end_with(0);
}

// A group handler has written its own reply; a non-zero result ends the connection.
Step handled(int ret)
{
    return ret != 0 ? end_with(ret) : keep_going();
}

Step group(Conn &c, int right, int (*handler)(int, int, char *, int))
{
    if (!control_has_right(c.priv, right)) return refuse_and_end(c);
    return handled(handler(c.fd, c.head.cmd, c.buf, c.session_id));
}

// A handler run by the dispatcher: a negative result is logged with the
// failure message and answered; otherwise the success message is logged.
bool wrap(int ret, const char *name)
{
    if (ret < 0) {
        DBG("cmd:%s failed!ret=[%d]", name, ret);
        return false;
    }
    DBG("cmd:%s success!", name);
    return true;
}

Step oplog_answer(Conn &c, int ret, int log_type)
{
    new_tknvi_noload_ack(&c.reply, ret);
    if (ret >= 0) netuser_write_log(c.session_id, log_type, 0);
    return Step();
}

Step reset(Conn &c, const char *pattern, const char *message, int log_type)
{
    control_reset_config(pattern);
    DBG("%s", message);
    new_tknvi_noload_ack(&c.reply, TK_OK);
    netuser_write_log(c.session_id, log_type, 0);
    return Step();
}

// 0x30050-0x30062: recording schedule and mode, pre-record time, overwrite mode.
Step record_storage(Conn &c)
{
    const int cmd = c.head.cmd;
    const int right = cmd >= TK_CMD_GET_OVERWRITE_MODE ? RIGHT_STORAGE_MANAGE : RIGHT_RECORD_SET;
    switch (cmd) {
        case TK_CMD_GET_RECORD_SCHEDULE:
        case TK_CMD_SET_RECORD_SCHEDULE:
        case TK_CMD_GET_RECORD_MODE:
        case TK_CMD_SET_RECORD_MODE:
        case TK_CMD_GET_PRERECORD_TIME:
        case TK_CMD_SET_PRERECORD_TIME:
        case TK_CMD_RESET_RECORD_CFG:
        case TK_CMD_GET_OVERWRITE_MODE:
        case TK_CMD_SET_OVERWRITE_MODE:
        case TK_CMD_RESET_OVERWRITE_MODE:
            if (!control_has_right(c.priv, right)) return answer(c, TK_ERR_RIGHT);
            break;
        default:
            return answer(c, TK_ERR_UNSUPPORTED);
    }

    switch (cmd) {
        case TK_CMD_GET_RECORD_SCHEDULE: {
            auto *sche = reinterpret_cast<REC_SCHE_PARA *>(c.buf + 4);
            const int ret = recorder_get_schedule(sche);
            if (!wrap(ret, "recorder_get_schedule")) return answer(c, ret);
            new_tknvi_load_ack(&c.reply, c.buf, sizeof(REC_SCHE_PARA), 1);
            return Step();
        }
        case TK_CMD_SET_RECORD_SCHEDULE: {
            const auto *sche = reinterpret_cast<const REC_SCHE_PARA *>(c.buf + sizeof(TK_SET_PREFIX));
            const int ret = recorder_set_schedule(sche);
            wrap(ret, "recorder_set_schedule");
            return oplog_answer(c, ret, LOG_RECORD_SET);
        }
        case TK_CMD_GET_RECORD_MODE: {
            const TK_U32 mode = 1;  // the recorder records by schedule only
            std::memcpy(c.buf + 4, &mode, sizeof mode);
            DBG("cmd:recorder_get_recmode success!");
            new_tknvi_load_ack(&c.reply, c.buf, sizeof mode, 1);
            return Step();
        }
        case TK_CMD_SET_RECORD_MODE:
            DBG("cmd:recorder_set_recmode success!");
            return oplog_answer(c, TK_OK, LOG_RECORD_SET);
        case TK_CMD_GET_PRERECORD_TIME: {
            const TK_U32 ntime = 5;
            std::memcpy(c.buf, &ntime, sizeof ntime);
            DBG("cmd:get_prerec_time succ!ntime=[%u]", ntime);
            new_tknvi_noload_ack(&c.reply, TK_OK);
            c.reply.len = sizeof ntime;
            return Step();
        }
        case TK_CMD_SET_PRERECORD_TIME: {
            const int ret = set_prerec_time(payload_word(c.buf));
            wrap(ret, "set_prerec_time");
            return oplog_answer(c, ret, LOG_RECORD_SET);
        }
        case TK_CMD_RESET_RECORD_CFG:
            return reset(c, "config_record*", "cmd:TK_CMD_RESET_CAMERA_CFG succ", LOG_RECORD_SET);
        case TK_CMD_GET_OVERWRITE_MODE: {
            const int mode = storage_get_overwrite_mode();
            if (mode < 0) {
                DBG("cmd:storage_get_overwrite_mode failed!ret=[%d]", mode);
                return answer(c, mode);
            }
            DBG("cmd:storage_get_overwrite_mode succ!mode=[%d]", mode);
            const TK_U32 word = static_cast<TK_U32>(mode);
            std::memcpy(c.buf, &word, sizeof word);
            new_tknvi_noload_ack(&c.reply, TK_OK);
            c.reply.len = sizeof word;
            return Step();
        }
        case TK_CMD_SET_OVERWRITE_MODE: {
            const int ret = storage_set_overwrite_mode(payload_word(c.buf));
            wrap(ret, "storage_set_overwrite_mode");
            return oplog_answer(c, ret, LOG_RECORD_SET);
        }
        default: {  // TK_CMD_RESET_OVERWRITE_MODE
            const int ret = storage_set_overwrite_mode(0);
            wrap(ret, "storage_reset_overwrite_mode");
            return oplog_answer(c, ret, LOG_RECORD_SET);
        }
    }
}

// 0x30090-0x30094: user accounts.
Step users(Conn &c)
{
    const int cmd = c.head.cmd;
    if (cmd != TK_CMD_CHANGE_PASSWD && !control_has_right(c.priv, RIGHT_ONLINE_USER_MANAGE))
        return answer(c, TK_ERR_RIGHT);
    const auto *user = reinterpret_cast<const USER_INFO *>(c.buf);
    switch (cmd) {
        case TK_CMD_GET_ALL_USER: {
            const int count = get_all_user(reinterpret_cast<USER_INFO *>(c.buf + 4));
            if (count < 0) {
                DBG("cmd:get_all_user failed!count=[%d]", count);
                return answer(c, count);
            }
            DBG("cmd:get_all_user success!count=[%d]", count);
            new_tknvi_load_ack(&c.reply, c.buf, sizeof(USER_INFO), count);
            return Step();
        }
        case TK_CMD_ADD_USER: {
            const int ret = add_user(user);
            wrap(ret, "add_user");
            return oplog_answer(c, ret, LOG_USER_MANAGE);
        }
        case TK_CMD_DEL_USER: {
            const int ret = del_user(user);
            if (ret < 0) {
                DBG("cmd:del_user failed!ret=[%d]", ret);
            } else {
                char name[sizeof user->name + 1];
                wire_get_str(name, sizeof name, user->name, sizeof user->name);
                DBG("cmd:del_user success!name=[%s]", name);
            }
            return oplog_answer(c, ret, LOG_USER_MANAGE);
        }
        case TK_CMD_MODIFY_USER: {
            const int ret = modify_user(user);
            wrap(ret, "modify_user");
            return oplog_answer(c, ret, LOG_USER_MANAGE);
        }
        default: {  // TK_CMD_CHANGE_PASSWD
            const auto *req = reinterpret_cast<const TK_CHANGE_PASSWD_REQ *>(c.buf);
            char name[sizeof req->name + 1], old_pw[sizeof req->old_passwd + 1], new_pw[sizeof req->new_passwd + 1];
            wire_get_str(name, sizeof name, req->name, sizeof req->name);
            wire_get_str(old_pw, sizeof old_pw, req->old_passwd, sizeof req->old_passwd);
            wire_get_str(new_pw, sizeof new_pw, req->new_passwd, sizeof req->new_passwd);
            const int ret = change_passwd(name, old_pw, new_pw);
            wrap(ret, "change_passwd");
            return oplog_answer(c, ret, LOG_USER_MANAGE);
        }
    }
}

// 0x300A0-0x300A5: serial PTZ settings.
Step serial_ptz(Conn &c)
{
    if (!control_has_right(c.priv, RIGHT_SERIAL_SET)) return answer(c, TK_ERR_RIGHT);
    switch (c.head.cmd) {
        case TK_CMD_GET_PTZ_CFG: {
            DBG("new_tknvi_cfg_serial_ptz TK_CMD_GET_PTZ_CFG in");
            auto *para = reinterpret_cast<PTZ_PARA *>(c.buf + 4);
            std::memset(para, 0, sizeof *para);
            const int ret = ptz_cfg_get_para(para);
            if (!wrap(ret, "TK_CMD_GET_PTZ_CFG")) return answer(c, ret);
            new_tknvi_load_ack(&c.reply, c.buf, sizeof(PTZ_PARA), 1);
            return Step();
        }
        case TK_CMD_SET_PTZ_CFG: {
            DBG("new_tknvi_cfg_serial_ptz TK_CMD_SET_PTZ_CFG in");
            const int ret = ptz_cfg_set_para(reinterpret_cast<const PTZ_PARA *>(c.buf + sizeof(TK_SET_PREFIX)));
            wrap(ret, "TK_CMD_SET_PTZ_CFG");
            return oplog_answer(c, ret, LOG_SERIAL_SET);
        }
        case TK_CMD_RESET_PTZ_CFG:
            return reset(c, "config_ptz*", "cmd:TK_CMD_RESET_CAMERA_CFG succ", LOG_CHANNEL_SET);
        default:  // 0x300A0-0x300A2
            return stale();
    }
}

Step snapshot(Conn &c)
{
    std::vector<char> picture;
    try {
        picture.assign(kSnapBufSize, 0);
    } catch (const std::bad_alloc &) {
        DBG("TK_CMD_REMOTE_SNAP malloc error errno=[%d]", ENOMEM);
        return answer(c, TK_ERR_REFUSED);
    }
    int jpg_len = 0;
    const int ret = snap_jpg(picture.data(), &jpg_len, kSnapBufSize);
    if (ret != 0) {
        DBG("event get state failed!ret=[%d]", ret);
        return answer(c, ret);
    }
    // Sent from its own buffer with its own header: the picture is larger than
    // the work buffer, so a later stale header must not repeat its length.
    NEW_PACKET_HEADER head{};
    new_tknvi_noload_ack(&head, TK_OK);
    head.len = static_cast<TK_U32>(jpg_len);
    if (control_write_reply(c.fd, &head, picture.data()) != 0) return end_with(TK_ERR_IO);
    return keep_going();
}

// 0x70000-0x7FFFF: remote control.
Step remote_control(Conn &c)
{
    const int cmd = c.head.cmd;
    int right = -1;
    switch (cmd) {
        case TK_CMD_REMOTE_REBOOT:
        case TK_CMD_REMOTE_POWER_NOP:
            right = RIGHT_SYSTEM_POWER;
            break;
        case TK_CMD_PTZ_CONTROL:
            right = RIGHT_PTZ_CONTROL;
            break;
        case TK_CMD_REMOTE_LOG_NOP:
            right = RIGHT_SYSTEM_LOG;
            break;
        case TK_CMD_GET_EVENT_STATE:
        case TK_CMD_REMOTE_SNAP:
            right = RIGHT_EVENT_DETECT_SET;
            break;
        case TK_CMD_GET_DISK_INFO:
        case TK_CMD_REMOTE_STORAGE_NOP:
            right = RIGHT_STORAGE_MANAGE;
            break;
        case TK_CMD_GET_REMOTE_INFO:
            right = RIGHT_CHANNEL_SET;
            break;
        case 0x70010:
        case 0x70011:
        case 0x70012:
            return stale();
        default:
            return answer(c, TK_ERR_UNSUPPORTED);
    }
    if (!control_has_right(c.priv, right)) return answer(c, TK_ERR_RIGHT);

    switch (cmd) {
        case TK_CMD_REMOTE_REBOOT:
            // The answer goes out first: the client may hear nothing after the shell command.
            new_tknvi_noload_ack(&c.reply, TK_OK);
            if (control_write_reply(c.fd, &c.reply, nullptr) != 0) return end_with(TK_ERR_IO);
            netuser_write_log(c.session_id, LOG_REBOOT, 0);
            LOG_BARE("new_tknvi_remote_control reboot");
            env_system("reboot");
            return Step();  // still running: the same header once more
        case TK_CMD_PTZ_CONTROL: {
            const int ret = ptz_control(reinterpret_cast<const PTZ_CMD_PACKAGE *>(c.buf));
            new_tknvi_noload_ack(&c.reply, ret);
            if (ret == 0) netuser_write_log(c.session_id, LOG_PTZ_CONTROL, 0);
            return Step();
        }
        case TK_CMD_GET_EVENT_STATE: {
            std::memset(c.buf, 0, sizeof(EVENT_STATE));
            const int ret = event_detect_get_state(c.buf);
            if (ret < 0) {
                DBG("event get state failed!ret=[%d]", ret);
                return answer(c, ret);
            }
            new_tknvi_noload_ack(&c.reply, TK_OK);
            c.reply.len = sizeof(EVENT_STATE);
            return Step();
        }
        case TK_CMD_GET_DISK_INFO: {
            DBG("cmd:new_tknvi_remote_control command = %d!", cmd);
            int count = 1;
            auto *disk = reinterpret_cast<DISK_INFO *>(c.buf + 4);
            std::memset(disk, 0, sizeof *disk);
            const int ret = storage_get_disk_info(disk, &count);
            if (!wrap(ret, "storage_get_disk_info")) return answer(c, ret);
            constexpr int kMaxDisks = (CONTROL_BUF_SIZE - 4) / static_cast<int>(sizeof(DISK_INFO));
            if (count < 0) count = 0;
            if (count > kMaxDisks) count = kMaxDisks;
            new_tknvi_load_ack(&c.reply, c.buf, sizeof(DISK_INFO), count);
            DBG("head.len = %u, count = %d, used = %d", c.reply.len, count,
                static_cast<int>(count > 0 ? disk->used >> 20 : 0));
            return Step();
        }
        case TK_CMD_GET_REMOTE_INFO:
            std::memset(c.buf, 0, TK_REMOTE_INFO_SIZE);
            c.buf[0] = 2;
            new_tknvi_noload_ack(&c.reply, TK_OK);
            c.reply.len = TK_REMOTE_INFO_SIZE;
            return Step();
        case TK_CMD_REMOTE_SNAP:
            return snapshot(c);
        default:  // the no-action codes 0x70002, 0x70004, 0x70007
            return stale();
    }
}

// 0x20000-0x2FFFF: the session.
Step session(Conn &c)
{
    switch (c.head.cmd) {
        case TK_CMD_LOGOUT: {
            new_tknvi_noload_ack(&c.reply, TK_OK);
            netuser_write_log(c.session_id, LOG_REMOTE_LOGOUT, 0);
            Step s;
            s.end = true;
            s.result = -1;
            return s;
        }
        case TK_CMD_HEARTBEAT:
            netuser_update_heartbeat(c.session_id);
            return answer(c, TK_OK);
        default:
            return answer(c, TK_ERR_UNSUPPORTED);
    }
}

// A search answer: header, count and each record, each with its own write.
template <class List>
Step send_list(Conn &c, List &list, size_t record_size, const char *what, const char *record_name)
{
    NEW_PACKET_HEADER head{};
    new_tknvi_noload_ack(&head, TK_OK);
    head.len = static_cast<TK_U32>(static_cast<size_t>(list.count) * record_size + 4);
    if (writen(c.fd, &head, sizeof head) != static_cast<int>(sizeof head)) {
        ERR("%s write head error!", what);
        return end_with(TK_ERR_IO);
    }
    const TK_U32 count = static_cast<TK_U32>(list.count);
    if (writen(c.fd, &count, sizeof count) != static_cast<int>(sizeof count)) {
        ERR("%s write count error!", what);
        return end_with(TK_ERR_IO);
    }
    for (auto *node = list.list.get(); node != nullptr; node = node->next.get()) {
        if (writen(c.fd, &node->info, record_size) != static_cast<int>(record_size)) {
            ERR("%s write %s error!", what, record_name);
            return end_with(TK_ERR_IO);
        }
    }
    return keep_going();
}

// 0x50000-0x5FFFF: searches and playback.
Step search_playback(Conn &c)
{
    const auto *req = reinterpret_cast<const TK_SEARCH_REQ *>(c.buf);
    switch (c.head.cmd) {
        case TK_CMD_SEARCH_REC_FILE: {
            REC_FILE_LIST list;
            const int ret = search_rec_file(&req->start_time, &req->end_time, &list);
            if (ret != 0) {
                DBG("cmd:seach_rec_file failed!ret=[%d]", ret);
                search_free(&list);
                return answer(c, ret);
            }
            const Step s = send_list(c, list, sizeof(REC_FILE_INFO), "seach_rec_file", "rec_file");
            if (!s.end) {
                DBG("cmd:seach_rec_file succ!count=[%d]", list.count);
                DBG("count = %d", list.count);
            }
            search_free(&list);
            return s;
        }
        case TK_CMD_SEARCH_JPG_FILE: {
            JPG_FILE_LIST list;
            const int ret = search_jpg_file(&req->start_time, &req->end_time, &list);
            if (ret != 0) {
                DBG("cmd:search_jpg_file failed! ret=[%d]", ret);
                search_jpg_free(&list);
                return answer(c, ret);
            }
            const Step s = send_list(c, list, sizeof(JPG_FILE_INFO), "search_jpg_file", "jpg_file_info");
            if (!s.end) DBG("count = %d", list.count);
            search_jpg_free(&list);
            return s;
        }
        case TK_CMD_START_PLAY:
            // Playback runs on a connection of its own, whose first message is this code.
            DBG("TK_CMD_START_PLAY");
            return answer(c, TK_ERR_UNSUPPORTED);
        default:  // TK_CMD_POS_PLAY_REQ included: active playback is not served yet
            return answer(c, TK_ERR_UNSUPPORTED);
    }
}

Step dispatch(Conn &c)
{
    const int cmd = c.head.cmd;
    if (in_range(cmd, 0x30001, 0x3000F)) return group(c, RIGHT_SYSBASE_SET, new_tknvi_cfg_base);
    if (in_range(cmd, 0x30010, 0x3002F)) return group(c, RIGHT_NETWORK_SET, new_tknvi_cfg_network);
    if (in_range(cmd, 0x30030, 0x30045))
        return handled(new_tknvi_cfg_channel_enc(c.fd, cmd, c.buf, c.session_id, c.priv));
    if (in_range(cmd, 0x30050, 0x30062)) return record_storage(c);
    if (in_range(cmd, 0x30070, 0x30082))
        return handled(
            new_tknvi_cfg_video_detect(c.fd, cmd, c.buf, c.session_id, &c.priv->opt_rights[RIGHT_EVENT_DETECT_SET]));
    if (in_range(cmd, 0x30090, 0x30094)) return users(c);
    if (in_range(cmd, 0x300A0, 0x300A5)) return serial_ptz(c);
    if (in_range(cmd, 0x70000, 0x7FFFF)) return remote_control(c);
    if (in_range(cmd, 0x20000, 0x2FFFF)) return session(c);
    if (in_range(cmd, 0x40000, 0x4FFFF)) {
        if (cmd != TK_CMD_ACTIVE_PREVIEW) return answer(c, TK_ERR_UNSUPPORTED);
        return answer(c, active_preview(c.fd, c.auth_id, c.buf));
    }
    if (in_range(cmd, 0x50000, 0x5FFFF)) return search_playback(c);
    if (in_range(cmd, 0x60000, 0x6FFFF)) {
        if (!control_has_right(c.priv, RIGHT_REMOTE_TALK)) return refuse_and_end(c);
        if (cmd != TK_CMD_ACTIVE_TALK) return answer(c, TK_ERR_UNSUPPORTED);
        return answer(c, active_talkback(c.fd, c.auth_id, c.buf));
    }
    if (in_range(cmd, 0x80000, 0x8FFFF)) {
        if (!control_has_right(c.priv, RIGHT_SYSTEM_UPGRADE)) {
            DBG("active_upgrade:have no rights!");
            return refuse_and_end(c);
        }
        return keep_going();  // no reply at all
    }
    if (in_range(cmd, 0x90000, 0x9FFFF)) {
        if (!control_has_right(c.priv, RIGHT_EVENT_DETECT_SET)) return refuse_and_end(c);
        return keep_going();
    }
    DBG("control_routine: head.cmd = [%#x]", static_cast<unsigned>(cmd));
    return answer(c, TK_ERR_UNSUPPORTED);
}

}  // namespace

bool control_has_right(const USER_PRIVILEGE *priv, int right)
{
    return priv != nullptr && right >= 0 && right < static_cast<int>(sizeof priv->opt_rights) &&
           priv->opt_rights[right] != 0;
}

int control_write_reply(int fd, const NEW_PACKET_HEADER *head, const void *payload)
{
    errno = 0;
    int n = writen(fd, head, sizeof *head);
    if (n != static_cast<int>(sizeof *head)) {
        ERR("write return head failed,len=[%d],errno=[%d]", n, errno);
        return TK_ERR_IO;
    }
    if (head->len != 0) {
        n = writen(fd, payload, head->len);
        if (n != static_cast<int>(head->len)) {
            ERR("write login_routine payload failed,len=[%d],errno=[%d]", n, errno);
            return TK_ERR_IO;
        }
    }
    return 0;
}

int control_reply_result(int fd, int result)
{
    NEW_PACKET_HEADER head{};
    new_tknvi_noload_ack(&head, result);
    return control_write_reply(fd, &head, nullptr);
}

void control_reset_config(const char *pattern)
{
    char command[kResetCmdSize] = {};
    const int n = std::snprintf(command, sizeof command, "rm -rf %s/%s", env_conf_dir(), pattern);
    if (n < 0 || static_cast<size_t>(n) >= sizeof command) {
        // A cut command could name a wider pattern than meant: never run it.
        ERR("reset of %s/%s not run: the command is longer than %zu bytes", env_conf_dir(), pattern,
            sizeof command - 1);
        return;
    }
    env_system(command);
}

int control_routine(int fd, char *buf, int session_id, USER_PRIVILEGE *priv, int auth_id)
{
    Conn c{fd, buf, session_id, priv, auth_id, {}, {}};
    // A reply is a header write and a payload write: without this the payload
    // would wait for the client's delayed acknowledgement of the header.
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    // A stale header before the dispatcher has built a reply: result 0, no payload.
    new_tknvi_noload_ack(&c.reply, TK_OK);
    for (;;) {
        errno = 0;
        int n = readn(fd, &c.head, sizeof c.head);
        if (n != static_cast<int>(sizeof c.head)) {
            ERR("fd[%d] read head failed,len=[%d],errno=[%d]", fd, n, errno);
            return TK_ERR_IO;
        }
        if (c.head.len > static_cast<TK_U32>(CONTROL_BUF_SIZE)) {
            // Never read past the work buffer; the payload cannot be skipped in step with the client.
            ERR("fd[%d] payload too long,len=[%u],max=[%d]", fd, c.head.len, CONTROL_BUF_SIZE);
            return TK_ERR_IO;
        }
        if (c.head.len != 0) {
            n = readn(fd, buf, static_cast<int>(c.head.len));
            if (n != static_cast<int>(c.head.len)) {
                ERR("fd[%d] read payload failed,len=[%d],errno=[%d]", fd, n, errno);
                return TK_ERR_IO;
            }
        }
        const size_t extent = payload_extent(c.head.cmd);
        if (c.head.len < extent) std::memset(buf + c.head.len, 0, extent - c.head.len);

        const Step step = dispatch(c);
        if (step.send && control_write_reply(fd, &c.reply, buf) != 0) return TK_ERR_IO;
        if (step.end) return step.result;
        usleep(kRequestPauseUs);
    }
}

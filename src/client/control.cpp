#include "client/control.h"

#include <cstdio>
#include <cstring>

namespace camgate {
namespace client {

namespace {

std::string hex_cmd(int32_t cmd)
{
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%x", static_cast<unsigned>(cmd));
    return buf;
}

Error wrong_size(int32_t cmd, size_t got, const std::string &want)
{
    return Error(ErrorKind::Protocol, "the camera's answer to command " + hex_cmd(cmd) + " has " + std::to_string(got) +
                                          " bytes instead of " + want);
}

}  // namespace

int command_right(int32_t cmd)
{
    if (cmd >= 0x30001 && cmd <= 0x3000F) return RIGHT_SYSBASE_SET;
    if (cmd >= 0x30010 && cmd <= 0x3002F) return RIGHT_NETWORK_SET;
    switch (cmd) {
        case TK_CMD_GET_CHN_CFG:
        case TK_CMD_SET_CHN_CFG:
        case TK_CMD_RESET_CHN_CFG:
        case 0x30036:
        case 0x30037:
        case TK_CMD_GET_REMOTE_INFO:
            return RIGHT_CHANNEL_SET;
        case TK_CMD_GET_CAMERA_CFG:
        case TK_CMD_SET_CAMERA_CFG:
        case TK_CMD_RESET_CAMERA_CFG:
            return RIGHT_RECORD_SET;
        case TK_CMD_RESET_ENC_CFG:
        case TK_CMD_GET_ENC_ROI_CFG:
        case TK_CMD_SET_ENC_ROI_CFG:
        case TK_CMD_RESET_ENC_ROI_CFG:
            return RIGHT_ENCODE_SET;
        case TK_CMD_GET_OVERWRITE_MODE:
        case TK_CMD_SET_OVERWRITE_MODE:
        case TK_CMD_RESET_OVERWRITE_MODE:
        case TK_CMD_GET_DISK_INFO:
        case TK_CMD_REMOTE_STORAGE_NOP:
            return RIGHT_STORAGE_MANAGE;
        case TK_CMD_GET_ALL_USER:
        case TK_CMD_ADD_USER:
        case TK_CMD_DEL_USER:
        case TK_CMD_MODIFY_USER:
            return RIGHT_ONLINE_USER_MANAGE;
        case TK_CMD_REMOTE_REBOOT:
        case TK_CMD_REMOTE_POWER_NOP:
            return RIGHT_SYSTEM_POWER;
        case TK_CMD_PTZ_CONTROL:
            return RIGHT_PTZ_CONTROL;
        case TK_CMD_REMOTE_LOG_NOP:
            return RIGHT_SYSTEM_LOG;
        case TK_CMD_GET_EVENT_STATE:
        case TK_CMD_REMOTE_SNAP:
            return RIGHT_EVENT_DETECT_SET;
        default:
            break;
    }
    if (cmd >= 0x30050 && cmd <= 0x3005F) return RIGHT_RECORD_SET;
    if (cmd >= 0x30070 && cmd <= 0x30082) return RIGHT_EVENT_DETECT_SET;
    if (cmd >= 0x300A0 && cmd <= 0x300A5) return RIGHT_SERIAL_SET;
    if (cmd >= 0x60000 && cmd <= 0x6FFFF) return RIGHT_REMOTE_TALK;
    if (cmd >= 0x80000 && cmd <= 0x8FFFF) return RIGHT_SYSTEM_UPGRADE;
    if (cmd >= 0x90000 && cmd <= 0x9FFFF) return RIGHT_EVENT_DETECT_SET;
    return -1;
}

std::string result_text(int32_t cmd, int32_t result)
{
    const std::string code = " (" + std::to_string(result) + ")";
    switch (result) {
        case TK_ERR_RIGHT: {
            const int right = command_right(cmd);
            if (right < 0) return "refused: the user lacks the right for command " + hex_cmd(cmd) + code;
            return std::string("refused: the user lacks the ") + right_name(right) + " right" + code;
        }
        case TK_ERR_UNSUPPORTED:
            return "refused: the camera does not support command " + hex_cmd(cmd) + code;
        case TK_ERR_REFUSED:
            return "refused: the camera is out of resources for command " + hex_cmd(cmd) + code;
        default:
            return "the camera answered command " + hex_cmd(cmd) + " with error " + std::to_string(result);
    }
}

void check_reply(int32_t cmd, const Reply &r)
{
    if (!r.ok()) throw Error(ErrorKind::Refused, result_text(cmd, r.result), r.result);
}

Reply Control::ask(int32_t cmd, const void *payload, size_t len)
{
    Reply r = s_.request(cmd, payload, len);
    check_reply(cmd, r);
    return r;
}

// A record alone (no count), or the first of a count-prefixed list.
template <class T>
T Control::record(int32_t cmd)
{
    const Reply r = ask(cmd);
    T rec{};
    if (r.body.size() == sizeof rec) {
        std::memcpy(&rec, r.body.data(), sizeof rec);
        return rec;
    }
    uint32_t count = 0;
    if (r.body.size() == 4 + sizeof rec) std::memcpy(&count, r.body.data(), sizeof count);
    if (count != 1) throw wrong_size(cmd, r.body.size(), std::to_string(sizeof rec));
    std::memcpy(&rec, r.body.data() + 4, sizeof rec);
    return rec;
}

template <class T>
std::vector<T> Control::list(int32_t cmd)
{
    const Reply r = ask(cmd);
    uint32_t count = 0;
    if (r.body.size() >= 4) std::memcpy(&count, r.body.data(), sizeof count);
    if (r.body.size() < 4 || (r.body.size() - 4) / sizeof(T) != count || (r.body.size() - 4) % sizeof(T) != 0)
        throw wrong_size(cmd, r.body.size(), "a count and records of " + std::to_string(sizeof(T)));
    std::vector<T> out(count);
    if (count != 0) std::memcpy(out.data(), r.body.data() + 4, count * sizeof(T));
    return out;
}

template <class T>
void Control::set(int32_t cmd, const T &rec)
{
    ask(cmd, &rec, sizeof rec);
}

template <class T>
void Control::set_after_prefix(int32_t cmd, const T &rec)
{
    struct {
        TK_SET_PREFIX prefix;
        T rec;
    } req{};
    req.rec = rec;
    static_assert(sizeof req == sizeof(TK_SET_PREFIX) + sizeof(T), "no padding");
    ask(cmd, &req, sizeof req);
}

TK_SYS_TIME Control::get_time()
{
    return record<TK_SYS_TIME>(TK_CMD_GET_TIME);
}

void Control::set_time(const TK_SYS_TIME &t)
{
    set(TK_CMD_SET_TIME, t);
}

uint32_t Control::get_date_format()
{
    return record<uint32_t>(TK_CMD_GET_DATE_FORMAT);
}

void Control::set_date_format(uint32_t format)
{
    set(TK_CMD_SET_DATE_FORMAT, format);
}

NET_COMM_PARA Control::get_network()
{
    return record<NET_COMM_PARA>(TK_CMD_GET_NETWORK_CFG);
}

void Control::set_network(const NET_COMM_PARA &n)
{
    set(TK_CMD_SET_NETWORK_CFG, n);
}

NET_NTP_PARA Control::get_ntp()
{
    return record<NET_NTP_PARA>(TK_CMD_GET_NTP_CFG);
}

void Control::set_ntp(const NET_NTP_PARA &n)
{
    set(TK_CMD_SET_NTP_CFG, n);
}

NET_EMAIL_PARA Control::get_email()
{
    return record<NET_EMAIL_PARA>(TK_CMD_GET_EMAIL_CFG);
}

void Control::set_email(const NET_EMAIL_PARA &e)
{
    set(TK_CMD_SET_EMAIL_CFG, e);
}

NET_FTP_PARA Control::get_ftp()
{
    return record<NET_FTP_PARA>(TK_CMD_GET_FTP_CFG);
}

void Control::set_ftp(const NET_FTP_PARA &f)
{
    set(TK_CMD_SET_FTP_CFG, f);
}

NET_DDNS_PARA Control::get_ddns()
{
    return record<NET_DDNS_PARA>(TK_CMD_GET_DDNS_CFG);
}

void Control::set_ddns(const NET_DDNS_PARA &d)
{
    set(TK_CMD_SET_DDNS_CFG, d);
}

void Control::reset_network()
{
    ask(TK_CMD_RESET_NETWORK_CFG);
}

VIDEO_CHN_PARA Control::get_overlay()
{
    return record<VIDEO_CHN_PARA>(TK_CMD_GET_CHN_CFG);
}

void Control::set_overlay(const VIDEO_CHN_PARA &v)
{
    set(TK_CMD_SET_CHN_CFG, v);
}

void Control::ptz(const PTZ_CMD_PACKAGE &cmd)
{
    set(TK_CMD_PTZ_CONTROL, cmd);
}

PTZ_PARA Control::get_ptz_settings()
{
    return record<PTZ_PARA>(TK_CMD_GET_PTZ_CFG);
}

void Control::set_ptz_settings(const PTZ_PARA &p)
{
    set_after_prefix(TK_CMD_SET_PTZ_CFG, p);
}

std::vector<USER_INFO> Control::users()
{
    return list<USER_INFO>(TK_CMD_GET_ALL_USER);
}

void Control::add_user(const USER_INFO &u)
{
    set(TK_CMD_ADD_USER, u);
}

void Control::delete_user(const std::string &name)
{
    USER_INFO u{};
    wire_set_str(u.name, name.c_str());
    set(TK_CMD_DEL_USER, u);
}

void Control::modify_user(const USER_INFO &u)
{
    set(TK_CMD_MODIFY_USER, u);
}

void Control::change_password(const std::string &name, const std::string &old_password, const std::string &new_password)
{
    TK_CHANGE_PASSWD_REQ req{};
    wire_set_str(req.name, name.c_str());
    wire_set_str(req.old_passwd, old_password.c_str());
    wire_set_str(req.new_passwd, new_password.c_str());
    set(TK_CMD_CHANGE_PASSWD, req);
}

REC_SCHE_PARA Control::get_schedule()
{
    return record<REC_SCHE_PARA>(TK_CMD_GET_RECORD_SCHEDULE);
}

void Control::set_schedule(const REC_SCHE_PARA &s)
{
    set_after_prefix(TK_CMD_SET_RECORD_SCHEDULE, s);
}

uint32_t Control::get_overwrite_mode()
{
    return record<uint32_t>(TK_CMD_GET_OVERWRITE_MODE);
}

void Control::set_overwrite_mode(uint32_t mode)
{
    set(TK_CMD_SET_OVERWRITE_MODE, mode);
}

std::vector<DISK_INFO> Control::disks()
{
    return list<DISK_INFO>(TK_CMD_GET_DISK_INFO);
}

EVENT_STATE Control::event_state()
{
    return record<EVENT_STATE>(TK_CMD_GET_EVENT_STATE);
}

std::vector<VIDEO_ENC_PARA> Control::encodings()
{
    return list<VIDEO_ENC_PARA>(TK_CMD_GET_ENC_CFG);
}

std::vector<uint8_t> Control::snapshot()
{
    Reply r = ask(TK_CMD_REMOTE_SNAP);
    if (r.body.empty()) throw Error(ErrorKind::Protocol, "the camera sent an empty picture");
    return std::move(r.body);
}

void Control::reboot()
{
    ask(TK_CMD_REMOTE_REBOOT);
    // The camera is going down; what it may still send belongs to no request.
    s_.connection().close();
}

}  // namespace client
}  // namespace camgate

#include "net/netuser.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <system_error>
#include <thread>

#include "common/log.h"
#include "main/tcl_hook.h"

namespace {

struct HEARTBEAT_INFO {
    int suspend;    // non-zero: not supervised
    int timeout;    // checks of silence allowed; 0 or less: never expires
    int last_time;  // checks since the last heartbeat
};

struct CTRL_SESSIONEX {
    CTRL_SESSION outter;
    int session_id;
    USER_PRIVILEGE user_priv;
    HEARTBEAT_INFO heartbeat;
};

struct PREVIEW_SESSIONEX {
    PREVIEW_SESSION outter;
    int session_id;
    HEARTBEAT_INFO heartbeat;
};

struct PLAY_SESSIONEX {
    PLAY_SESSION outter;
    int session_id;
};
using TALK_SESSIONEX = PLAY_SESSIONEX;

struct UPGRADE_SESSIONEX {
    UPGRADE_SESSION outter;
    int session_id;
};

struct UPLOAD_SESSIONEX {
    UPLOAD_SESSION outter;
    int session_id;
};

template <class Ex, size_t N>
struct Table {
    std::mutex mutex;
    std::array<Ex, N> slots;
};

Table<CTRL_SESSIONEX, NETUSER_CTRL_MAX> g_ctrl;
Table<PREVIEW_SESSIONEX, NETUSER_PREV_MAX> g_prev;
Table<PLAY_SESSIONEX, NETUSER_PLAY_MAX> g_play;
Table<TALK_SESSIONEX, NETUSER_TALK_MAX> g_talk;
Table<UPGRADE_SESSIONEX, NETUSER_UPGD_MAX> g_upgd;
Table<UPLOAD_SESSIONEX, NETUSER_UPLD_MAX> g_upld;

int prev_session_count = 0;  // under g_prev.mutex
int prev_session_maxnum = 0;

std::once_flag g_init_once;
int g_init_result = 0;

// First top byte and slot count of each session type.
struct TypeRange {
    int first;
    int slots;
};
constexpr TypeRange kRanges[] = {
    {0, NETUSER_CTRL_MAX},  {16, NETUSER_PREV_MAX}, {24, NETUSER_PLAY_MAX},
    {40, NETUSER_TALK_MAX}, {41, NETUSER_UPGD_MAX}, {42, NETUSER_UPLD_MAX},
};
constexpr int kTopByteLimit = 58;

const char kRegisterUser[] = "register user";

template <class Ex>
void free_slot(Ex &e)
{
    std::memset(&e, 0, sizeof e);
    e.outter.sockfd = -1;
    e.outter.auth_id = -1;
    e.session_id = -1;
}

template <class Ex, size_t N>
void free_all(Table<Ex, N> &t)
{
    std::lock_guard<std::mutex> lock(t.mutex);
    for (Ex &e : t.slots) free_slot(e);
}

// Shut the slot's socket down (never close it: its connection thread does) and free the slot.
template <class Ex>
void shut_and_free(Ex &e)
{
    shutdown(e.outter.sockfd, SHUT_RDWR);
    free_slot(e);
}

// The slot of session_id in a table of the given type, or -1.
int slot_of(int session_id, int want_type)
{
    int type = -1;
    int index = -1;
    if (!check_session_id_is_valid(session_id, &type, &index) || type != want_type) return -1;
    return index;
}

// Fill the fields every public record has; the name follows the login mode.
template <class Rec>
void fill_common(Rec &rec, int auth_id, int login_mode, const char *user_name, int fd)
{
    rec.auth_id = auth_id;
    rec.login_mode = login_mode;
    rec.sockfd = fd;
    wire_set_str(rec.user_name, login_mode == LOGIN_MODE_REGISTER ? kRegisterUser : user_name);
}

bool valid_owner(int fd, int login_mode, const char *user_name)
{
    if (fd < 0) return false;
    if (login_mode == LOGIN_MODE_LOGIN && user_name == nullptr) return false;
    return true;
}

// Add to one of the tables without heartbeat (playback, talk, upgrade, upload).
template <class Ex, size_t N, class Extra>
int add_simple(Table<Ex, N> &t, int type, int auth_id, int login_mode, const char *user_name, int fd, Extra extra)
{
    if (!valid_owner(fd, login_mode, user_name)) return -1;
    unsigned addr = 0;
    unsigned port = 0;
    if (get_remote_port_addr(fd, &addr, &port) != 0) return -1;
    std::lock_guard<std::mutex> lock(t.mutex);
    for (size_t i = 0; i < N; ++i) {
        Ex &e = t.slots[i];
        if (e.outter.sockfd != -1) continue;
        int id = trans_index_to_session_id(static_cast<int>(i), type);
        free_slot(e);
        fill_common(e.outter, auth_id, login_mode, user_name, fd);
        e.outter.remote_addr = addr;
        e.outter.remote_port = port;
        e.session_id = id;
        extra(e);
        return id;
    }
    return -1;
}

template <class Ex, size_t N>
int remove_session(Table<Ex, N> &t, int type, int session_id, const char *invalid_fmt)
{
    int slot = slot_of(session_id, type);
    if (slot < 0) {
        ERR(invalid_fmt, session_id);
        return TK_ERR_SESSION;
    }
    std::lock_guard<std::mutex> lock(t.mutex);
    Ex &e = t.slots[static_cast<size_t>(slot)];
    if (e.outter.sockfd != -1 && e.session_id == session_id) shut_and_free(e);
    return 0;
}

template <class Rec, class Ex, size_t N>
int list_sessions(Table<Ex, N> &t, Rec *sessions, int *count)
{
    if (count == nullptr) return TK_ERR_SESSION;
    if (sessions != nullptr && *count < 1) return TK_ERR_SESSION;
    const int capacity = sessions != nullptr ? *count : static_cast<int>(N);
    int n = 0;
    std::lock_guard<std::mutex> lock(t.mutex);
    for (const Ex &e : t.slots) {
        if (n >= capacity) break;
        if (e.outter.sockfd == -1) continue;
        if (sessions != nullptr) sessions[n] = e.outter;
        ++n;
    }
    *count = n;
    return 0;
}

bool protocol_out_of_service()
{
    // A pending port change (con_change_port) is still in service: the
    // listener rebuilds within one select period and sessions must survive it.
    const tcl_info *info = get_g_tcl_info();
    return info->tcl_enable.load() == 0 || info->tcl_st.load() == con_fail;
}

// One keepalive check of a heartbeat-supervised table. last_time is compared
// before it is incremented, so a time-out of 10 expires on the 12th check
// after the last heartbeat.
template <class Ex, size_t N>
void keepalive_scan(Table<Ex, N> &t, const char *what, int *count_to_lower)
{
    const bool out_of_service = protocol_out_of_service();
    std::lock_guard<std::mutex> lock(t.mutex);
    for (Ex &e : t.slots) {
        if (e.outter.sockfd == -1) continue;
        HEARTBEAT_INFO &hb = e.heartbeat;
        const bool silent = hb.timeout > 0 && hb.suspend == 0 && hb.last_time++ > hb.timeout;
        if (!silent && !out_of_service) continue;
        ERR("%s is timeout! fd : %d, session_id : %d", what, e.outter.sockfd, e.session_id);
        shut_and_free(e);
        if (count_to_lower != nullptr && *count_to_lower > 0) --*count_to_lower;
    }
}

void keepalive_routine()
{
    for (;;) {
        keepalive_scan(g_ctrl, "ctrl_session", nullptr);
        keepalive_scan(g_prev, "prev_session", &prev_session_count);
        sleep(1);
    }
}

// Apply fn to the heartbeat of the control or preview session id; -2 when no slot holds it.
template <class Fn>
int with_heartbeat(int session_id, Fn fn)
{
    int type = -1;
    int index = -1;
    if (!check_session_id_is_valid(session_id, &type, &index)) return TK_ERR_SESSION;
    if (type == CTRL_SESSION_TYPE) {
        std::lock_guard<std::mutex> lock(g_ctrl.mutex);
        CTRL_SESSIONEX &e = g_ctrl.slots[static_cast<size_t>(index)];
        if (e.outter.sockfd == -1 || e.session_id != session_id) return TK_ERR_SESSION;
        fn(e.heartbeat);
        return 0;
    }
    if (type == PREV_SESSION_TYPE) {
        std::lock_guard<std::mutex> lock(g_prev.mutex);
        PREVIEW_SESSIONEX &e = g_prev.slots[static_cast<size_t>(index)];
        if (e.outter.sockfd == -1 || e.session_id != session_id) return TK_ERR_SESSION;
        fn(e.heartbeat);
        return 0;
    }
    return TK_ERR_SESSION;
}

// User name of the session id in its table, "" when no slot holds it.
template <class Ex, size_t N>
void name_in(Table<Ex, N> &t, int index, int session_id, char (&name)[16])
{
    if (index < 0 || static_cast<size_t>(index) >= N) return;
    std::lock_guard<std::mutex> lock(t.mutex);
    const Ex &e = t.slots[static_cast<size_t>(index)];
    if (e.outter.sockfd != -1 && e.session_id == session_id)
        wire_get_str(name, sizeof name, e.outter.user_name, sizeof e.outter.user_name);
}

}  // namespace

int netuser_init()
{
    std::call_once(g_init_once, [] {
        free_all(g_ctrl);
        free_all(g_prev);
        free_all(g_play);
        free_all(g_talk);
        free_all(g_upgd);
        free_all(g_upld);
        {
            std::lock_guard<std::mutex> lock(g_prev.mutex);
            prev_session_count = 0;
            prev_session_maxnum = NETUSER_PREV_MAX;
        }
        try {
            std::thread(keepalive_routine).detach();
        } catch (const std::system_error &) {
            ERR("create keepalive thread failed!");
            g_init_result = TK_ERR_REFUSED;
        }
    });
    return g_init_result;
}

int generate_random_id(int prefix)
{
    static std::mutex rand_mutex;  // srand and rand as one step
    long long r;
    {
        std::lock_guard<std::mutex> lock(rand_mutex);
        srand(static_cast<unsigned>(time(nullptr)));
        r = rand();
    }
    const long long low = r * (1LL << 24) / (1LL << 31);
    return static_cast<int>((static_cast<long long>(prefix) << 24) + low);
}

int trans_index_to_session_id(int index, int type)
{
    if (type < CTRL_SESSION_TYPE || type > UPLD_SESSION_TYPE) return -1;
    const TypeRange &r = kRanges[type];
    if (index < 0 || index >= r.slots) return -1;
    return generate_random_id(r.first + index);
}

int check_session_id_is_valid(int session_id, int *type, int *index)
{
    if (session_id == -1) return 0;
    const int top = static_cast<int>(static_cast<unsigned>(session_id) >> 24);
    if (top >= kTopByteLimit) return 0;
    for (int t = UPLD_SESSION_TYPE; t >= CTRL_SESSION_TYPE; --t) {
        if (top >= kRanges[t].first) {
            if (type) *type = t;
            if (index) *index = top - kRanges[t].first;
            return 1;
        }
    }
    return 0;
}

int get_remote_port_addr(int fd, unsigned int *addr, unsigned int *port)
{
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &len) != 0 || peer.sin_family != AF_INET) {
        ERR("getpeername failed! fd : %d, errno : %d", fd, errno);
        return -1;
    }
    if (addr) *addr = ntohl(peer.sin_addr.s_addr);
    if (port) *port = ntohs(peer.sin_port);
    return 0;
}

int add_ctrl_session(int fd, int auth_id, int login_mode, const char *user_name, const USER_PRIVILEGE *user_priv,
                     int timeout)
{
    if (!valid_owner(fd, login_mode, user_name)) return -1;
    unsigned addr = 0;
    unsigned port = 0;
    if (get_remote_port_addr(fd, &addr, &port) != 0) return -1;
    std::lock_guard<std::mutex> lock(g_ctrl.mutex);
    for (size_t i = 0; i < g_ctrl.slots.size(); ++i) {
        CTRL_SESSIONEX &e = g_ctrl.slots[i];
        if (e.outter.sockfd != -1) continue;
        const int id = trans_index_to_session_id(static_cast<int>(i), CTRL_SESSION_TYPE);
        free_slot(e);
        fill_common(e.outter, login_mode == LOGIN_MODE_LOGIN ? id : auth_id, login_mode, user_name, fd);
        e.outter.remote_addr = addr;
        e.outter.remote_port = port;
        e.session_id = id;
        if (user_priv != nullptr) e.user_priv = *user_priv;
        e.heartbeat.timeout = timeout;
        e.heartbeat.suspend = 0;
        e.heartbeat.last_time = 0;
        return id;
    }
    return -1;
}

int add_preview_session(int auth_id, int login_mode, const char *user_name, int fd, int chl, int stream_index,
                        int protocol, int timeout)
{
    if (!valid_owner(fd, login_mode, user_name)) return -1;
    unsigned addr = 0;
    unsigned port = 0;
    if (get_remote_port_addr(fd, &addr, &port) != 0) return -1;
    std::lock_guard<std::mutex> lock(g_prev.mutex);
    if (prev_session_count >= prev_session_maxnum) return -1;
    for (size_t i = 0; i < g_prev.slots.size(); ++i) {
        PREVIEW_SESSIONEX &e = g_prev.slots[i];
        if (e.outter.sockfd != -1) continue;
        const int id = trans_index_to_session_id(static_cast<int>(i), PREV_SESSION_TYPE);
        free_slot(e);
        fill_common(e.outter, auth_id, login_mode, user_name, fd);
        e.outter.channel = chl;
        e.outter.stream_index = stream_index;
        e.outter.protocol = protocol;
        e.outter.addr = addr;
        e.outter.port = port;
        e.session_id = id;
        e.heartbeat.timeout = timeout;
        ++prev_session_count;
        return id;
    }
    return -1;
}

int add_play_session(int auth_id, int login_mode, const char *user_name, int fd)
{
    return add_simple(g_play, PLAY_SESSION_TYPE, auth_id, login_mode, user_name, fd, [](PLAY_SESSIONEX &) {});
}

int add_talk_session(int auth_id, int login_mode, const char *user_name, int fd)
{
    return add_simple(g_talk, TALK_SESSION_TYPE, auth_id, login_mode, user_name, fd, [](TALK_SESSIONEX &) {});
}

int add_upgrade_session(int auth_id, int login_mode, const char *user_name, int fd)
{
    return add_simple(g_upgd, UPGD_SESSION_TYPE, auth_id, login_mode, user_name, fd,
                      [](UPGRADE_SESSIONEX &e) { e.outter.progress = 0; });
}

int add_upload_session(int auth_id, int login_mode, const char *user_name, int fd, int alarm_type)
{
    return add_simple(g_upld, UPLD_SESSION_TYPE, auth_id, login_mode, user_name, fd,
                      [alarm_type](UPLOAD_SESSIONEX &e) { e.outter.alarm_type = alarm_type; });
}

int netuser_add_login_ctrl_session(int fd, const char *user_name, const USER_PRIVILEGE *priv, int timeout)
{
    return add_ctrl_session(fd, -1, LOGIN_MODE_LOGIN, user_name, priv, timeout);
}

int netuser_add_register_ctrl_session(int fd, int auth_id, const USER_PRIVILEGE *priv, int timeout)
{
    return add_ctrl_session(fd, auth_id, LOGIN_MODE_REGISTER, kRegisterUser, priv, timeout);
}

int netuser_add_login_preview_session(int auth_id, const char *user_name, int fd, int chl, int stream_index)
{
    return add_preview_session(auth_id, LOGIN_MODE_LOGIN, user_name, fd, chl, stream_index, PROTOCOL_TYPE_TCP, 0);
}

int netuser_add_register_preview_session(int auth_id, const char *user_name, int fd, int chl, int stream_index)
{
    return add_preview_session(auth_id, LOGIN_MODE_REGISTER, user_name, fd, chl, stream_index, PROTOCOL_TYPE_TCP, 0);
}

int netuser_add_udp_preview_session(int auth_id, const char *user_name, int fd, int chl, int stream_index, int timeout)
{
    return add_preview_session(auth_id, LOGIN_MODE_LOGIN, user_name, fd, chl, stream_index, PROTOCOL_TYPE_UDP, timeout);
}

int netuser_add_multicast_preview_session(int auth_id, const char *user_name, int fd, int chl, int stream_index,
                                          int timeout)
{
    return add_preview_session(auth_id, LOGIN_MODE_LOGIN, user_name, fd, chl, stream_index, PROTOCOL_TYPE_MULTICAST,
                               timeout);
}

int netuser_add_rtsp_preview_session(int auth_id, const char *user_name, int fd, int chl, int stream_index, int timeout)
{
    return add_preview_session(auth_id, LOGIN_MODE_LOGIN, user_name, fd, chl, stream_index, PROTOCOL_TYPE_RTSP,
                               timeout);
}

int netuser_add_login_play_session(int auth_id, const char *user_name, int fd)
{
    return add_play_session(auth_id, LOGIN_MODE_LOGIN, user_name, fd);
}

int netuser_add_register_play_session(int auth_id, const char *user_name, int fd)
{
    return add_play_session(auth_id, LOGIN_MODE_REGISTER, user_name, fd);
}

int netuser_add_login_talk_session(int auth_id, const char *user_name, int fd)
{
    return add_talk_session(auth_id, LOGIN_MODE_LOGIN, user_name, fd);
}

int netuser_add_register_talk_session(int auth_id, const char *user_name, int fd)
{
    return add_talk_session(auth_id, LOGIN_MODE_REGISTER, user_name, fd);
}

int netuser_add_login_upgrade_session(int auth_id, const char *user_name, int fd)
{
    return add_upgrade_session(auth_id, LOGIN_MODE_LOGIN, user_name, fd);
}

int netuser_add_register_upgrade_session(int auth_id, const char *user_name, int fd)
{
    return add_upgrade_session(auth_id, LOGIN_MODE_REGISTER, user_name, fd);
}

int netuser_add_login_upload_session(int auth_id, const char *user_name, int fd, int alarm_type)
{
    return add_upload_session(auth_id, LOGIN_MODE_LOGIN, user_name, fd, alarm_type);
}

int netuser_add_register_upload_session(int auth_id, const char *user_name, int fd, int alarm_type)
{
    return add_upload_session(auth_id, LOGIN_MODE_REGISTER, user_name, fd, alarm_type);
}

int netuser_remove_ctrl_session(int session_id)
{
    return remove_session(g_ctrl, CTRL_SESSION_TYPE, session_id, "ctrl_session_id[%d] is invalid");
}

int netuser_remove_preview_session(int session_id)
{
    int slot = slot_of(session_id, PREV_SESSION_TYPE);
    if (slot < 0) {
        ERR("session_id[%d] is invalid", session_id);
        return TK_ERR_SESSION;
    }
    std::lock_guard<std::mutex> lock(g_prev.mutex);
    PREVIEW_SESSIONEX &e = g_prev.slots[static_cast<size_t>(slot)];
    if (e.outter.sockfd != -1 && e.session_id == session_id) {
        shut_and_free(e);
        if (prev_session_count > 0) --prev_session_count;
    }
    return 0;
}

int netuser_remove_play_session(int session_id)
{
    return remove_session(g_play, PLAY_SESSION_TYPE, session_id, "session_id[%d] is invalid");
}

int netuser_remove_talk_session(int session_id)
{
    return remove_session(g_talk, TALK_SESSION_TYPE, session_id, "session_id[%d] is invalid");
}

int netuser_remove_upgrade_session(int session_id)
{
    return remove_session(g_upgd, UPGD_SESSION_TYPE, session_id, "session_id[%d] is invalid");
}

int netuser_remove_upload_session(int session_id)
{
    return remove_session(g_upld, UPLD_SESSION_TYPE, session_id, "session_id[%d] is invalid");
}

int netuser_get_ctrl_sessions(CTRL_SESSION *sessions, int *count)
{
    return list_sessions(g_ctrl, sessions, count);
}

int netuser_get_preview_sessions(PREVIEW_SESSION *sessions, int *count)
{
    return list_sessions(g_prev, sessions, count);
}

int netuser_get_play_sessions(PLAY_SESSION *sessions, int *count)
{
    return list_sessions(g_play, sessions, count);
}

int netuser_get_talk_sessions(TALK_SESSION *sessions, int *count)
{
    return list_sessions(g_talk, sessions, count);
}

int netuser_get_upgrade_sessions(UPGRADE_SESSION *sessions, int *count)
{
    return list_sessions(g_upgd, sessions, count);
}

int netuser_get_upload_sessions(UPLOAD_SESSION *sessions, int *count)
{
    return list_sessions(g_upld, sessions, count);
}

int netuser_get_user_info(int auth_id, char *user_name, USER_PRIVILEGE *user_priv)
{
    if (user_name == nullptr && user_priv == nullptr) return TK_ERR_SESSION;
    std::lock_guard<std::mutex> lock(g_ctrl.mutex);
    for (const CTRL_SESSIONEX &e : g_ctrl.slots) {
        if (e.outter.sockfd == -1 || e.outter.auth_id != auth_id) continue;
        if (user_name)
            wire_get_str(user_name, sizeof e.outter.user_name, e.outter.user_name, sizeof e.outter.user_name);
        if (user_priv) *user_priv = e.user_priv;
        return 0;
    }
    return -1;
}

int netuser_update_heartbeat(int session_id)
{
    return with_heartbeat(session_id, [](HEARTBEAT_INFO &hb) { hb.last_time = 0; });
}

int set_session_suspend(int session_id, int suspend)
{
    return with_heartbeat(session_id, [suspend](HEARTBEAT_INFO &hb) { hb.suspend = suspend; });
}

int netuser_suspend_heartbeat(int session_id)
{
    return set_session_suspend(session_id, 1);
}

int netuser_resume_heartbeat(int session_id)
{
    return set_session_suspend(session_id, 0);
}

int netuser_update_upgrade_progress(int session_id, int progress)
{
    const int slot = slot_of(session_id, UPGD_SESSION_TYPE);
    if (slot < 0) return TK_ERR_SESSION;
    std::lock_guard<std::mutex> lock(g_upgd.mutex);
    UPGRADE_SESSIONEX &e = g_upgd.slots[static_cast<size_t>(slot)];
    if (e.outter.sockfd == -1 || e.session_id != session_id) return TK_ERR_SESSION;
    e.outter.progress = progress;
    return 0;
}

int netuser_write_log(int session_id, int logtype, int index)
{
    int type = -1;
    int slot = -1;
    if (!check_session_id_is_valid(session_id, &type, &slot)) return TK_ERR_SESSION;
    char name[16] = "";
    switch (type) {
        case CTRL_SESSION_TYPE:
            name_in(g_ctrl, slot, session_id, name);
            break;
        case PREV_SESSION_TYPE:
            name_in(g_prev, slot, session_id, name);
            break;
        case PLAY_SESSION_TYPE:
            name_in(g_play, slot, session_id, name);
            break;
        case TALK_SESSION_TYPE:
            name_in(g_talk, slot, session_id, name);
            break;
        case UPGD_SESSION_TYPE:
            name_in(g_upgd, slot, session_id, name);
            break;
        default:
            name_in(g_upld, slot, session_id, name);
            break;
    }
    // One entry is one line: characters that would break it are replaced.
    for (char &c : name) {
        if (c == '\0') break;
        if (static_cast<unsigned char>(c) < 0x20 || c == ' ' || c == 0x7F) c = '_';
    }
    char when[32];
    const time_t now = time(nullptr);
    struct tm tm_now {};
    localtime_r(&now, &tm_now);
    strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &tm_now);
    LOG_BARE("[oplog] %s session=0x%08x user=%s type=%d index=%d", when, static_cast<unsigned>(session_id),
             name[0] ? name : "-", logtype, index);
    return 0;
}

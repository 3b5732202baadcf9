// The session registry: fixed tables of the daemon's client sessions
// (control, preview, playback, talk, upgrade, upload), their ids, owners,
// rights and heartbeats, and the keepalive thread that shuts down control and
// preview sessions whose client went silent or whose service was switched off.
//
// Every session belongs to one connection socket. The registry never closes a
// socket; it only shuts it down, so the thread that owns the connection sees
// its next read fail and cleans up. Each table has its own mutex; no
// operation holds two of them at once.
//
// Session ids: the top byte encodes type and slot, the low 24 bits are random.
//   control  16 slots  top byte  0..15
//   preview   8 slots  top byte 16..23
//   playback 16 slots  top byte 24..39
//   talk      1 slot   top byte 40
//   upgrade   1 slot   top byte 41
//   upload   16 slots  top byte 42..57
#pragma once

#include "common/tk_proto.h"

enum session_type {
    CTRL_SESSION_TYPE = 0,
    PREV_SESSION_TYPE = 1,
    PLAY_SESSION_TYPE = 2,
    TALK_SESSION_TYPE = 3,
    UPGD_SESSION_TYPE = 4,
    UPLD_SESSION_TYPE = 5,
};

constexpr int NETUSER_CTRL_MAX = 16;
constexpr int NETUSER_PREV_MAX = 8;
constexpr int NETUSER_PLAY_MAX = 16;
constexpr int NETUSER_TALK_MAX = 1;
constexpr int NETUSER_UPGD_MAX = 1;
constexpr int NETUSER_UPLD_MAX = 16;

// Heartbeat time-out of a logged-in or registered control session, in keepalive
// checks (one a second): silent for more than this, the session is shut down.
constexpr int NETUSER_LOGIN_TIMEOUT = 10;

// Start the registry: mark every slot free, set the preview limit to 8 and
// start the keepalive thread. 0, or -6 when the thread cannot be made. Only
// the first call does anything; later calls return 0.
int netuser_init();

// (prefix << 24) + a random 24-bit value. The generator is reseeded with the
// current second on every call, so ids made within one second share their low
// 24 bits (kept: clients only compare whole ids).
int generate_random_id(int prefix);

// The id for slot index of type (see the table above); -1 for an index outside the type's range.
int trans_index_to_session_id(int index, int type);

// The inverse: 1 with *type and *index (either may be null) for a valid id;
// 0 for -1 or an id whose top byte is 58 or more.
int check_session_id_is_valid(int session_id, int *type, int *index);

// Peer address and port of socket fd, in host order (either output may be
// null). 0, or non-zero with a log line when getpeername fails.
int get_remote_port_addr(int fd, unsigned int *addr, unsigned int *port);

// --- adding -------------------------------------------------------------------
// Each returns the new session id, or -1: negative socket, no user name in
// login mode (null; an empty name is a name), unknown peer, or no free slot.
// In login mode the user name is kept to its first 15 characters; in register
// mode the name is "register user". A control session in login mode gets its
// own id as auth_id; every other session keeps the auth_id given.
int add_ctrl_session(int fd, int auth_id, int login_mode, const char *user_name, const USER_PRIVILEGE *user_priv,
                     int timeout);
int add_preview_session(int auth_id, int login_mode, const char *user_name, int fd, int chl, int stream_index,
                        int protocol, int timeout);
int add_play_session(int auth_id, int login_mode, const char *user_name, int fd);
int add_talk_session(int auth_id, int login_mode, const char *user_name, int fd);
int add_upgrade_session(int auth_id, int login_mode, const char *user_name, int fd);
int add_upload_session(int auth_id, int login_mode, const char *user_name, int fd, int alarm_type);

// Control sessions of a client that logged in here, and of a centre that accepted our registration.
int netuser_add_login_ctrl_session(int fd, const char *user_name, const USER_PRIVILEGE *priv, int timeout);
int netuser_add_register_ctrl_session(int fd, int auth_id, const USER_PRIVILEGE *priv, int timeout);
// TCP preview sessions. They have no heartbeat (time-out 0): a TCP viewer sends
// nothing after its request, and its stream ends when a send fails.
int netuser_add_login_preview_session(int auth_id, const char *user_name, int fd, int chl, int stream_index);
int netuser_add_register_preview_session(int auth_id, const char *user_name, int fd, int chl, int stream_index);
// Preview sessions of the other transports (login mode), refreshed by their own heartbeats.
int netuser_add_udp_preview_session(int auth_id, const char *user_name, int fd, int chl, int stream_index, int timeout);
int netuser_add_multicast_preview_session(int auth_id, const char *user_name, int fd, int chl, int stream_index,
                                          int timeout);
int netuser_add_rtsp_preview_session(int auth_id, const char *user_name, int fd, int chl, int stream_index,
                                     int timeout);
int netuser_add_login_play_session(int auth_id, const char *user_name, int fd);
int netuser_add_register_play_session(int auth_id, const char *user_name, int fd);
int netuser_add_login_talk_session(int auth_id, const char *user_name, int fd);
int netuser_add_register_talk_session(int auth_id, const char *user_name, int fd);
int netuser_add_login_upgrade_session(int auth_id, const char *user_name, int fd);
int netuser_add_register_upgrade_session(int auth_id, const char *user_name, int fd);
int netuser_add_login_upload_session(int auth_id, const char *user_name, int fd, int alarm_type);
int netuser_add_register_upload_session(int auth_id, const char *user_name, int fd, int alarm_type);

// --- removing -------------------------------------------------------------------
// If the id's slot still holds this session: shut its socket down for both
// directions and free the slot. 0 when the id is valid for the type (whether
// or not the slot still held it); -2 with a log line otherwise.
int netuser_remove_ctrl_session(int session_id);
int netuser_remove_preview_session(int session_id);
int netuser_remove_play_session(int session_id);
int netuser_remove_talk_session(int session_id);
int netuser_remove_upgrade_session(int session_id);
int netuser_remove_upload_session(int session_id);

// --- listing --------------------------------------------------------------------
// *count is the capacity of sessions on entry and the number of records copied
// on return (occupied slots in slot order). With sessions null only the
// occupied slots are counted. -2 for a null count, or a capacity below 1 with
// an array; otherwise 0.
int netuser_get_ctrl_sessions(CTRL_SESSION *sessions, int *count);
int netuser_get_preview_sessions(PREVIEW_SESSION *sessions, int *count);
int netuser_get_play_sessions(PLAY_SESSION *sessions, int *count);
int netuser_get_talk_sessions(TALK_SESSION *sessions, int *count);
int netuser_get_upgrade_sessions(UPGRADE_SESSION *sessions, int *count);
int netuser_get_upload_sessions(UPLOAD_SESSION *sessions, int *count);

// User name (16 bytes, terminated) and rights of the first control session
// whose auth_id matches; either output may be null. -2 when both are null,
// -1 when no session matches, 0 otherwise.
int netuser_get_user_info(int auth_id, char *user_name, USER_PRIVILEGE *user_priv);

// --- heartbeat ------------------------------------------------------------------
// Restart the silence count of the control or preview session id: 0, or -2
// when no control or preview slot holds this id.
int netuser_update_heartbeat(int session_id);
// Set (non-zero) or clear the suspend flag of a control or preview session; a
// suspended session never expires for silence. 0, or -2 as above.
int set_session_suspend(int session_id, int suspend);
int netuser_suspend_heartbeat(int session_id);
int netuser_resume_heartbeat(int session_id);

// Store the progress of the upgrade session id: 0, or -2 when no slot holds it.
int netuser_update_upgrade_progress(int session_id, int progress);

// Record an operation (logtype: a TK_LOG_TYPE, LOG_MAJOR_OPT), done through
// session_id, as one line on standard output:
//   [oplog] 2024-05-01 12:00:00 session=0x0312abcd user=admin type=21 index=0
// user is the session's user name, "-" when no session holds the id. 0, or -2
// for an invalid id.
int netuser_write_log(int session_id, int logtype, int index);

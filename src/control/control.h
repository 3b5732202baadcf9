// The control connection: after a login (or an accepted registration) the
// connection's thread runs control_routine until the connection ends.
//
// Requests and replies are a NEW_PACKET_HEADER and its body. A reply's cmd is
// the result code (0 success, negative failure), never the command echoed.
// The dispatcher classifies each command by range, checks the session's
// rights, runs the command (itself or through a group handler, which writes
// its own reply) and waits 2 ms before the next request. docs/protocol.md
// has the command table with the rights and the shape of every reply.
#pragma once

#include <cstddef>

#include "common/tk_proto.h"

// Size of the work buffer every caller hands to control_routine.
constexpr int CONTROL_BUF_SIZE = 8192;

// Serve requests on the connected socket fd until the connection ends. buf is
// the caller's work buffer of CONTROL_BUF_SIZE bytes (payloads are read into
// it, most replies are built in it); session_id the control session in the
// registry; priv its rights; auth_id is handed on to the active preview,
// playback and talk requests. Returns -7 when a request cannot be read whole,
// its payload is longer than the work buffer, or a reply cannot be written;
// -1 after a logout; 0 after a refused command of the ranges that end the
// connection (0x30001-0x3002F, 0x60000-0x9FFFF); otherwise the non-zero result
// of a group handler. The caller closes the connection and removes the session.
int control_routine(int fd, char *buf, int session_id, USER_PRIVILEGE *priv, int auth_id);

// Write a reply: the 12-byte header, then head->len bytes of payload (nothing
// when len is 0). 0, or -7 with the log line of a failed header or payload write.
int control_write_reply(int fd, const NEW_PACKET_HEADER *head, const void *payload);

// Answer with a bare header carrying result: control_write_reply of a header
// filled by new_tknvi_noload_ack. 0 or -7.
int control_reply_result(int fd, int result);

// Whether the session's rights grant right (a TK_RIGHT): opt_rights[right] non-zero.
bool control_has_right(const USER_PRIVILEGE *priv, int right);

// Remove the system server's configuration files matching pattern (such as
// "config_record*") under env_conf_dir() with the shell command
// "rm -rf <conf>/<pattern>" run through env_system(); its result is not
// looked at. A command longer than 127 characters is not run (logged).
void control_reset_config(const char *pattern);

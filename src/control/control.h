// The control connection: after a login (or an accepted registration) the
// connection's thread runs control_routine until the connection ends.
//
// Requests and replies are a NEW_PACKET_HEADER and its body. A reply's cmd is
// the result code (0 success, negative failure), never the command echoed.
// For now the loop knows the session commands and active preview only:
// heartbeat 0x20003 refreshes the session and is answered 0, logout 0x20002
// is answered 0 and ends the connection, active preview 0x40005 is answered
// with the result of active_preview, and every other command is answered -4
// (unsupported).
#pragma once

#include "common/tk_proto.h"

// Size of the work buffer every caller hands to control_routine.
constexpr int CONTROL_BUF_SIZE = 8192;

// Serve requests on the connected socket fd until the connection ends. buf is
// the caller's work buffer of CONTROL_BUF_SIZE bytes (payloads are read into
// it); session_id the control session in the registry; priv its rights;
// auth_id is handed on to the active preview, playback and talk requests.
// Returns -7 when a request cannot be read whole, its payload is longer than
// the work buffer, or a reply cannot be written; -1 after a logout. The caller
// closes the connection and removes the session.
int control_routine(int fd, char *buf, int session_id, USER_PRIVILEGE *priv, int auth_id);

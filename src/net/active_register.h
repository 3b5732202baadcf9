// Active registration: the camera connects out to a central management server
// (the centre), presents itself with the rights the centre settings grant
// and, once accepted, serves the connection as a control connection.
//
// Message to the centre: header (cmd 0x20004, len 468), the 320-byte rights,
// the 148-byte TK_DEVICE_INFO. Acceptance: header (cmd 0, len 4) and the
// centre's 32-bit auth_id. Nothing is retried: when the connection ends the
// camera does not reconnect by itself.
#pragma once

#include "common/tk_proto.h"

// Connect to cc_server:port of para and start the registration thread. -2 for
// a null para; 0 when enable is 0 (nothing done) or the thread was started;
// -8 when the name cannot be resolved or the connection fails; -6 when a
// socket, memory or the thread cannot be had.
int active_register(const NET_CC_PARA *para);

// Split line in place at every delimiter character; runs of delimiters count
// as one. argv receives a pointer to each token (each NUL-terminated) and a
// null after the last, so it must hold max_tokens + 1 pointers; splitting
// stops after max_tokens tokens. Returns the number of tokens.
int parse(char *line, char **argv, char delimiter, int max_tokens = 16);

// The version number and release date made from a software version text such
// as "V1.3.5 20150102":
// - split at ".": with exactly three parts, version is the decimal value of
//   the first part without its first character, then the second and the
//   third part, read up to the first non-digit ("135 20150102" gives 135);
//   another count logs an error and leaves version 0 (V1.2.3.4 gives 0);
// - with a blank in the text, the text after the last blank is taken as
//   YYYYMMDD and release_date becomes "YYYY-MM-DD 00:00:00" and dev_type
//   "IP_CAMERA"; without a blank both stay empty.
// Only version, release_date and dev_type of info are written.
void active_register_version_info(const char *soft_version, TK_DEVICE_INFO *info);

// Login: the first message 0x20001 of a connection that becomes a control
// connection.
#pragma once

#include "common/tk_proto.h"

// Serve a login whose 12-byte header has been read: read the 32-byte
// NEW_PP_LOGIN_REQ, add a control session (any user name, first 15 bytes
// kept; the password is not examined; every right granted; heartbeat
// time-out 10), answer with the header (cmd 0, len 472) and the
// NEW_PP_LOGIN_RSP, run control_routine on the connection and remove the
// session when it returns. A full control table is answered with a bare
// header whose cmd is -6. Returns control_routine's result, -7 (short body or
// short write), -8 (peer unknown, no reply) or -6 (no free control session).
int login_routine(int fd);

// The device description of a login reply: DeviceId of the system server's
// device information (command 1) as serial number and the alarm input and
// output counts of its device capability (command 0), both filled only when
// both requests succeed; one video channel, one audio channel, one network
// port, everything else zero.
void login_fill_device_info(TK_DEVICE_INFO *info);

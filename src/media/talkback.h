// Talkback: two-way audio from a client to the camera's speaker. The protocol
// carries the commands, but no audio is exchanged: a talk connection is
// closed right after its first header, and an active talk request starts a
// thread that does nothing.
#pragma once

// Serve a connection whose first header was 0x60001: read nothing, send
// nothing, return 0 at once (the connection thread then closes the socket).
int talkback_routine(int fd);

// Active talk request of a control connection (0x60004): payload is the
// 52-byte NEW_ACTIVE_TALK_REQ (an empty ipaddr means the control peer's
// address). Copies it with auth_id into a package and starts a detached
// thread with it; no connection is made. 0; -1 when the peer address is
// needed but unknown; -6 when memory or the thread cannot be had.
int active_talkback(int sockfd, int auth_id, const char *payload);

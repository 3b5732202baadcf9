// TCP live preview: a connection whose first message is TK_CMD_PREVIEW_START
// (0x40001) becomes a live stream of one video stream of the frame cache (and
// the audio cache), each frame a FRAME_HDR, its info record and its data.
//
// Until the live stream is built the preview request is not served: the
// routine returns at once and the connection closes; active preview is refused.
#pragma once

// Serve a preview connection whose 12-byte header has been read: read the
// 16-byte NEW_PP_PERVIEW_REQ, add a preview session, answer the header (cmd 0,
// len 4) and the session id, then stream until a send fails or the client
// protocol leaves service. A refused session is answered with a bare header
// of cmd -6. Returns -6, -7 or the video loop's result. Never closes fd.
// For now: returns 0 at once without reading.
int preview_routine(int fd);

// Active preview request of a control connection (0x40005): payload is the
// 60-byte NEW_ACTIVE_PERVIEW_REQ; a thread connects out to ipaddr:port (the
// control peer when ipaddr is empty) and streams there. 0 when the thread was
// started, -1 when the peer address is unknown, -6 on a memory or thread
// failure. For now: -1.
int active_preview(int sockfd, int auth_id, const char *payload);

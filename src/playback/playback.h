// Playback: a connection whose first message is 0x50002 becomes a playback
// channel, on which the client opens a recording on the card and fetches it
// frame by frame.
//
// Until playback is built the channel is not served: the routine returns at
// once and the connection closes.
#pragma once

// Serve a playback connection whose 12-byte header has been read: read the
// 4-byte auth_id, check the user's rights and run the playback commands until
// the client leaves. Returns 0, -6, -7 or the user lookup's error. Never
// closes fd. For now: returns 0 at once without reading.
int playback_routine(int fd);

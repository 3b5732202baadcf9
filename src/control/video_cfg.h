// Channel overlay and privacy covers (control commands 0x30030, 0x30031):
// translation between the client's VIDEO_CHN_PARA and the system server's
// overlay record VideoOsd and cover record CoverArea.
//
// Client coordinates run from 0 to 8192, the server's from 0 to 10000; the
// client's channel name is GB2312, the server's overlay text UTF-8.
#pragma once

#include <cstddef>

#include "common/tk_proto.h"

// Read the overlay and covers of channel into vichn_para (zeroed first):
// osd_count 3, cover_count 8, one enabled cover per window the server holds
// (at most the four of the record), positions of shown items converted. 0, or
// the failing request's result; -7 for a null record.
int video_cfg_get_para(int channel, VIDEO_CHN_PARA *vichn_para);

// Write vichn_para: the time, name and information items with their
// positions (clamped to 8192, then converted) and the name text; the PTZ item
// is not written. Covers: eight entries are read at a 16-byte stride from
// vichn_para->cover, so the 64 bytes after the record must be readable (the
// dispatcher zeroes what the client did not send); every rectangle is
// written, WinCount is always 8 and CoverAreaEnable 1 when some entry's
// enable is exactly 1. Returns 0 whatever the server did; -7 for a null record.
int video_cfg_set_para(int channel, const VIDEO_CHN_PARA *vichn_para);

// Convert inlen bytes of inbuf from from_charset to to_charset (iconv names)
// into outbuf, whose outlen bytes are zeroed first. 0, or -1 when the
// conversion cannot be opened or fails (outbuf then holds what was converted).
int code_convert(const char *from_charset, const char *to_charset, const char *inbuf, size_t inlen, char *outbuf,
                 size_t outlen);

// Coordinate conversions (truncating): server to client x 0.8192; client to
// server x 10000/8192, overlay positions clamped to 8192 first.
int video_cfg_to_client(int server_pos);
int video_cfg_osd_to_server(int client_pos);
int video_cfg_cover_to_server(int client_pos);

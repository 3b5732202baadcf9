// TCP live preview: a connection whose first message is TK_CMD_PREVIEW_START
// (0x40001) becomes a live stream of one video stream of the frame cache and
// of the audio cache. Every frame goes out as a FRAME_HDR, its info record
// (IFRAME_INFO, PFRAME_INFO or AFRAME_INFO) and its data; a video thread and
// an audio thread share the socket, each frame sent whole under one mutex.
//
// The same streaming serves active preview, where the camera connects out to
// a client that asked for it over a control connection (0x40005).
//
// Video starts at the I-frame that opens the newest GOP and walks the cache
// serial by serial, paced a little above the stream's frame rate; a viewer
// that falls behind the cache resumes at the newest key frame. Audio starts
// at the newest audio frame.
#pragma once

#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <mutex>

// Frame buffers, allocated once per stream: a larger frame is never sent.
constexpr int PREVIEW_VIDEO_BUF_SIZE = 3145728;  // 3 MB
constexpr int PREVIEW_AUDIO_BUF_SIZE = 524288;   // 512 KB
// Longest FRAME_HDR plus info record (an I-frame's).
constexpr int PREVIEW_MAX_HEADER = 24;

// Hand-over of one stream's socket to its video and audio loops.
struct media_info {
    int fd = -1;
    int stream_index = 0;                  // video cache index
    std::mutex *fd_mutex = nullptr;        // keeps frames whole on the socket; owned by the caller
    std::atomic<bool> video_ended{false};  // set once the video loop has returned: the audio loop ends too
};

// Local wall-clock time with tm_mon 1..12 and tm_year the full year.
struct localtime_t {
    int tm_sec;
    int tm_min;
    int tm_hour;
    int tm_mday;
    int tm_mon;
    int tm_year;
};

// Serve a preview connection whose 12-byte header has been read: read the
// 16-byte NEW_PP_PERVIEW_REQ, add a preview session, answer the header (cmd 0,
// len 4) and the session id, then stream until a send fails or the client
// protocol leaves service. A refused session (8 viewers already) is answered
// with a bare header of cmd -6. Returns -6, -7 (short request or reply), or
// the video loop's result. Removes the session; never closes fd.
int preview_routine(int fd);

// The video loop on m_info->fd: blocks until the stream ends. -1 when the
// stream's media information cannot be read, -6 when its frame buffer cannot
// be had, otherwise -7 (a send failed, the viewer left, or the client
// protocol left service).
int do_preview(media_info *m_info);

// Start audio_stream_proc on m_info in a new thread (*tid, to be joined). 0, or -1.
int do_audio_preview(media_info *m_info, pthread_t *tid);

// The audio loop (thread body; arg: media_info*): asks the system server for
// the audio settings (ZQ_GETAUDIO) and stores their enable flag in
// tcl_info.audio_enable, then walks the audio cache from its newest frame,
// sending each frame while audio is enabled and dropping it otherwise. Ends
// when a send fails, the client protocol leaves service, the video loop has
// ended, or there is no audio cache.
void *audio_stream_proc(void *arg);

// Active preview request of a control connection (0x40005): payload is the
// 60-byte NEW_ACTIVE_PERVIEW_REQ; a detached thread (active_tcp_routine)
// connects out to ipaddr:port (the control peer's address when ipaddr is
// empty) and streams there. 0 when the thread was started, -1 when the peer
// address is needed but unknown, -6 when the thread cannot be had.
int active_preview(int sockfd, int auth_id, const char *payload);

// Thread body of an active preview (arg: NEW_ACTIVE_PACKAGE*, freed here):
// checks the preview right of the asking user for the channel, connects,
// presents itself with a preview request (0x40001), and on an answer with
// cmd 0 registers a preview session and streams as for a passive viewer.
void *active_tcp_routine(void *arg);

// Local time now.
void get_localtime(localtime_t *t);
// Milliseconds since the epoch, from the time of day.
long long getCurrentTime();

// --- framing and pacing (also used by tests) ----------------------------------

// A frame timestamp in seconds as the 16-bit pts of the info records:
// seconds x 1000 as an unsigned integer, cut to its low 16 bits.
unsigned short preview_pts_msec(double timestamp);

// Fill the header of a video frame of cache type frametype into out (at least
// PREVIEW_MAX_HEADER bytes): 0xF8 and IFRAME_INFO for an I-frame (rtc_time is
// the local time now), 0xF9 and PFRAME_INFO for a P-frame, 0x00 alone for any
// other type. Returns the header length: 24, 12 or 4.
int preview_video_header(char *out, int frametype, int fps, int width, int height, double timestamp, int length);

// Fill the 12-byte header of an audio frame (0xFA and AFRAME_INFO: G.711
// mu-law, 8000 Hz, 16-bit, mono). Returns 12.
int preview_audio_header(char *out, int length);

// Pacing state of one video loop.
struct preview_pacing {
    bool sent = false;    // a frame has been sent
    timeval last_send{};  // time of day of the previous send
    long max_delay = 0;   // microseconds; set at the first frame
};

// The pause after a frame sent at now: for the first frame half of
// 1000000/fps (the maximum delay becomes 1000000/fps); later 1000000/(fps+2)
// minus the time since the previous send, 1000 when that is negative, never
// more than the maximum delay. Records now as the last send. Microseconds.
long preview_pacing_delay(preview_pacing *p, int fps, const timeval &now);

#include "media/preview.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <memory>
#include <new>

#include "common/log.h"
#include "common/tk_proto.h"
#include "common/zq_proto.h"
#include "main/socketclientcmd.h"
#include "main/tcl_hook.h"
#include "media/frame_buffer.h"
#include "media/shm_cache.h"
#include "net/edci_protocol.h"
#include "net/net_comm.h"
#include "net/netctrl.h"
#include "net/netuser.h"

namespace {

constexpr int kAudioHeader = static_cast<int>(sizeof(FRAME_HDR) + sizeof(AFRAME_INFO));
constexpr int kSendTimeoutSec = 3;
constexpr useconds_t kRetryUs = 5000;  // a failed read other than -20/-21
constexpr useconds_t kAudioNoFrameUs = 40000;
constexpr useconds_t kAudioStepUs = 13333;  // at most 75 audio frames a second
constexpr int kActiveAnswerTimeoutSec = 10;

bool in_service()
{
    return get_g_tcl_info()->tcl_st.load() == con_suc;
}

// The serial after last; past the largest serial the cache starts again from
// 0, so the loop starts again at the newest key frame.
int next_serial(int *last, int newest_selector)
{
    if (*last == INT_MAX) {
        *last = -2;
        return newest_selector;
    }
    return *last + 1;
}

// The viewer closed its end: a client sends nothing after its request, so a
// readable socket with no data means it has gone.
bool viewer_gone(int fd)
{
    char c;
    return recv(fd, &c, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

// Sample-rate and bit-width codes of the audio settings as numbers, for the log.
int sample_rate_of(int code)
{
    static const int rates[] = {8000, 16000, 32000, 44100, 48000};
    return code >= 0 && code < static_cast<int>(sizeof rates / sizeof rates[0]) ? rates[code] : code;
}

int bit_width_of(int code)
{
    return code == 0 ? 8 : code == 1 ? 16 : code == 2 ? 24 : code;
}

void fill_rtc_time(TK_SYS_TIME *t)
{
    localtime_t now{};
    get_localtime(&now);
    t->tm_msec = static_cast<TK_U32>((now.tm_hour * 3600 + now.tm_min * 60 + now.tm_sec) * 1000);
    t->tm_mday = static_cast<TK_U8>(now.tm_mday);
    t->tm_mon = static_cast<TK_U8>(now.tm_mon);
    t->tm_year = static_cast<TK_U16>(now.tm_year);
}

// Stream on m's socket until the end: the audio thread alongside the video
// loop, joined once the video loop has returned. Returns do_preview's result.
int stream_media(media_info *m)
{
    pthread_t audio_tid{};
    const bool audio = do_audio_preview(m, &audio_tid) == 0;
    const int ret = do_preview(m);
    m->video_ended = true;
    if (audio) pthread_join(audio_tid, nullptr);
    return ret;
}

}  // namespace

void get_localtime(localtime_t *t)
{
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    t->tm_sec = local.tm_sec;
    t->tm_min = local.tm_min;
    t->tm_hour = local.tm_hour;
    t->tm_mday = local.tm_mday;
    t->tm_mon = local.tm_mon + 1;
    t->tm_year = local.tm_year + 1900;
}

long long getCurrentTime()
{
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return static_cast<long long>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
}

unsigned short preview_pts_msec(double timestamp)
{
    const double ms = timestamp * 1000.0;
    // An unsigned conversion of a value it cannot hold is undefined: such
    // stamps (negative, not a number, beyond 64 bits) give 0.
    if (!(ms >= 0.0) || ms >= 18446744073709551616.0) return 0;
    return static_cast<unsigned short>(static_cast<unsigned long long>(ms) & 0xFFFF);
}

int preview_video_header(char *out, int frametype, int fps, int width, int height, double timestamp, int length)
{
    FRAME_HDR hdr{{0x00, 0x00, 0x01}, TK_FRAME_OTHER};
    if (frametype == CACHE_FRAME_TYPE_I) {
        hdr.type = TK_FRAME_VIDEO_I;
        IFRAME_INFO info{};
        info.enc_std = 0;
        info.framerate = static_cast<TK_U8>(fps & 0xFF);
        info.pts_msec = preview_pts_msec(timestamp);
        info.pic_width = static_cast<TK_U16>(width);
        info.pic_height = static_cast<TK_U16>(height);
        fill_rtc_time(&info.rtc_time);
        info.length = static_cast<TK_U32>(length);
        std::memcpy(out, &hdr, sizeof hdr);
        std::memcpy(out + sizeof hdr, &info, sizeof info);
        return static_cast<int>(sizeof hdr + sizeof info);
    }
    if (frametype == CACHE_FRAME_TYPE_P) {
        hdr.type = TK_FRAME_VIDEO_P;
        PFRAME_INFO info{};
        info.pts_msec = preview_pts_msec(timestamp);
        info.reserved = 0;
        info.length = static_cast<TK_U32>(length);
        std::memcpy(out, &hdr, sizeof hdr);
        std::memcpy(out + sizeof hdr, &info, sizeof info);
        return static_cast<int>(sizeof hdr + sizeof info);
    }
    std::memcpy(out, &hdr, sizeof hdr);
    return static_cast<int>(sizeof hdr);
}

int preview_audio_header(char *out, int length)
{
    const FRAME_HDR hdr{{0x00, 0x00, 0x01}, TK_FRAME_AUDIO};
    AFRAME_INFO info{};
    info.enc_type = 1;     // G.711 mu-law
    info.sample_rate = 0;  // 8000 Hz
    info.bit_width = 1;    // 16-bit
    info.sound_mode = 0;   // mono
    info.length = static_cast<TK_U32>(length);
    std::memcpy(out, &hdr, sizeof hdr);
    std::memcpy(out + sizeof hdr, &info, sizeof info);
    return kAudioHeader;
}

long preview_pacing_delay(preview_pacing *p, int fps, const timeval &now)
{
    // The rate comes from the shared cache: in 64 bits so that no value overflows.
    const long long rate = fps > 0 ? fps : 25;
    long wanted;
    if (!p->sent) {
        p->max_delay = static_cast<long>(1000000LL / rate);
        wanted = p->max_delay / 2;
        p->sent = true;
    } else {
        const long elapsed = (now.tv_sec - p->last_send.tv_sec) * 1000000L + (now.tv_usec - p->last_send.tv_usec);
        wanted = static_cast<long>(1000000LL / (rate + 2)) - elapsed;
        if (wanted < 0) wanted = 1000;
    }
    p->last_send = now;
    return wanted < p->max_delay ? wanted : p->max_delay;
}

int do_preview(media_info *m_info)
{
    const int fd = m_info->fd;
    const int idx = m_info->stream_index;
    int mediatype = 0, bps = 0, fps = 0, width = 0, height = 0;
    if (shm_cache_get_media_info(idx, &mediatype, &bps, &fps, &width, &height) != CACHE_RET_OK) {
        ERR("InitVideoPara() error");
        return -1;
    }
    if (fps <= 0) fps = 25;

    timeval send_timeout{kSendTimeoutSec, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &send_timeout, sizeof send_timeout);

    // Room for the header in front of the data, so header and data leave in
    // one send from one buffer (the frame is copied once, by the read).
    const FrameBuffer buf(PREVIEW_MAX_HEADER + PREVIEW_VIDEO_BUF_SIZE);
    if (!buf) return -6;
    char *const data = buf.data() + PREVIEW_MAX_HEADER;

    const useconds_t no_frame_us = static_cast<useconds_t>((2000000 / fps) / 3);
    int cur = CACHE_SEL_NEWEST_GOP;  // the serial (or selector) to read next
    int last = -2;                   // the serial of the frame sent last
    preview_pacing pacing;
    for (;;) {
        const int selector = cur;
        int serial = selector, length = 0, type = 0;
        double timestamp = 0;
        int ret = shm_cache_read_frame(idx, &serial, data, PREVIEW_VIDEO_BUF_SIZE, &length, &type, &timestamp);
        if (ret == CACHE_RET_OK && serial <= last) {
            // A selector that hands back a frame sent already: ask again at
            // once, and if it is still old wait as for a frame not yet written.
            serial = selector;
            ret = shm_cache_read_frame(idx, &serial, data, PREVIEW_VIDEO_BUF_SIZE, &length, &type, &timestamp);
            if (ret == CACHE_RET_OK && serial <= last) {
                serial = selector;
                ret = CACHE_RET_NO_FRAME;
            }
        }
        cur = serial;

        if (ret == CACHE_RET_NO_FRAME) {
            if (viewer_gone(fd) || !in_service()) break;
            usleep(no_frame_us + kRetryUs);  // the two waits of a frame not yet written, in one sleep
            continue;
        }
        if (ret == CACHE_RET_OVER_WRITE) {
            DBG("CACHE_RET_OVER_WRITE.............");
            if (selector == CACHE_SEL_NEWEST_GOP) {
                // Frames but no key frame to start at yet: wait for one.
                if (viewer_gone(fd) || !in_service()) break;
                usleep(no_frame_us + kRetryUs);
            }
            cur = CACHE_SEL_NEWEST_GOP;
            last = -2;
            continue;
        }
        if (ret != CACHE_RET_OK) {
            // -11 (a frame larger than the buffer) and lock failures: the same
            // serial again until it is readable or overwritten.
            ERR("CACHE_RET_OVER_WRITE.............");
            if (!in_service()) break;
            usleep(kRetryUs);
            continue;
        }

        char header[PREVIEW_MAX_HEADER];
        const int hlen = preview_video_header(header, type, fps, width, height, timestamp, length);
        char *const out = data - hlen;
        std::memcpy(out, header, static_cast<size_t>(hlen));
        if (!in_service()) break;
        {
            std::lock_guard<std::mutex> lock(*m_info->fd_mutex);
            if (!in_service() || send_long_tcp_data(fd, out, hlen + length) != hlen + length) {
                ERR("writen failed!, errno %d, fd = %d", errno, fd);
                break;
            }
        }

        timeval now{};
        gettimeofday(&now, nullptr);
        const long delay = preview_pacing_delay(&pacing, fps, now);
        last = cur;
        cur = next_serial(&last, CACHE_SEL_NEWEST_GOP);
        usleep(static_cast<useconds_t>(delay));
    }
    DBG("do_preview exit! tid = %d", static_cast<int>(gettid()));
    return -7;
}

int do_audio_preview(media_info *m_info, pthread_t *tid)
{
    if (pthread_create(tid, nullptr, audio_stream_proc, m_info) != 0) {
        ERR("creat thread [audio_stream_proc] failed");
        return -1;
    }
    return 0;
}

void *audio_stream_proc(void *arg)
{
    if (arg == nullptr) {
        ERR("audio_stream_proc error, data is NULL");
        return nullptr;
    }
    auto *m = static_cast<media_info *>(arg);
    tcl_info *tcl = get_g_tcl_info();
    const int idx = get_audio_cache_idx(0);

    const unsigned char request = 0;
    AudioInfo settings{};
    int outlen = 0;
    errno = 0;
    const int iret = socket_client_cmd_Read(ZQ_GETAUDIO, &request, sizeof request, &settings, &outlen, sizeof settings);
    if (iret != 0 || outlen != static_cast<int>(sizeof settings)) {
        ERR("ZQ_GETAUDIO may be error, iRet = %d, errno = %d", iret, errno);
        std::memset(&settings, 0, sizeof settings);
    }
    tcl->audio_enable = settings.AudioEnable;
    DBG("audio_stream_proc AudioiDx = %d, tid = %d, sample_rate = %d,bit_width = %d, enable = %d, sound_mode = %d", idx,
        static_cast<int>(gettid()), sample_rate_of(settings.SampleRate), bit_width_of(settings.BitWidth),
        settings.AudioEnable, settings.SoundMode);

    const FrameBuffer buf(idx < 0 ? 0 : kAudioHeader + PREVIEW_AUDIO_BUF_SIZE);
    if (idx < 0) DBG("audio_stream_proc: no audio cache");
    if (buf) {
        char *const data = buf.data() + kAudioHeader;
        // The audio cache has no GOPs: -1 gives -20 while it is empty and -21
        // once audio is written, which moves on to 0, the newest frame.
        int serial = CACHE_SEL_NEWEST_GOP;
        int last = -2;
        while (!m->video_ended.load()) {
            int got = serial, length = 0, type = 0;
            double timestamp = 0;
            const int ret = shm_cache_read_frame(idx, &got, data, PREVIEW_AUDIO_BUF_SIZE, &length, &type, &timestamp);
            if (ret == CACHE_RET_OK && last >= got) {
                usleep(kAudioStepUs);
                continue;
            }
            if (ret == CACHE_RET_NO_FRAME) {
                if (!in_service()) break;
                usleep(kAudioNoFrameUs);
                continue;
            }
            if (ret == CACHE_RET_OVER_WRITE) {
                serial = serial == INT_MAX ? CACHE_SEL_NEWEST : serial + 1;
                continue;
            }
            if (ret != CACHE_RET_OK) {
                ERR("CACHE_RET_OVER_WRITE...........iRet = %d", ret);
                serial = got;
                if (!in_service()) break;
                usleep(kRetryUs);
                continue;
            }

            char *const out = data - kAudioHeader;
            preview_audio_header(out, length);
            if (!in_service()) break;
            if (tcl->audio_enable.load() != 0) {
                std::unique_lock<std::mutex> lock;
                if (m->fd_mutex != nullptr) lock = std::unique_lock<std::mutex>(*m->fd_mutex);
                if (send_long_tcp_data(m->fd, out, kAudioHeader + length) != kAudioHeader + length) {
                    ERR("writen audio head failed!, errno %d, fd = %d", errno, m->fd);
                    break;
                }
            }
            last = got;
            serial = next_serial(&last, CACHE_SEL_NEWEST);
            usleep(kAudioStepUs);
        }
    }
    DBG("stop audio_stream_proc, p_info->fd = %d, tid = %d", m->fd, static_cast<int>(gettid()));
    return nullptr;
}

int preview_routine(int fd)
{
    NEW_PP_PERVIEW_REQ req{};
    errno = 0;
    const int n = readn(fd, &req, sizeof req);
    if (n != static_cast<int>(sizeof req)) {
        ERR("preview read payload failed,len=[%d],errno=[%d]", n, errno);
        return TK_ERR_IO;
    }
    const int auth_id = static_cast<int>(req.auth_id);
    const int channel = static_cast<int>(req.channel);
    const int stream_index = static_cast<int>(req.stream_index);
    DBG("preview_req->auth_id=[%d],preview_req->protocol=[%d],preview_req->channel=[%d],preview_req->stream_index=[%d]",
        auth_id, static_cast<int>(req.protocol), channel, stream_index);

    // The viewer's session carries the name of the user whose login it names, when there is one.
    char user_name[16] = "";
    netuser_get_user_info(auth_id, user_name, nullptr);
    NEW_PACKET_HEADER head{};
    const int session_id = netuser_add_login_preview_session(auth_id, user_name, fd, channel, stream_index);
    if (session_id == -1) {
        ERR("preview_routine: add_preview_session failed!");
        new_tknvi_noload_ack(&head, TK_ERR_REFUSED);
        writen(fd, &head, sizeof head);
        return TK_ERR_REFUSED;
    }
    DBG("preview_routine: add_preview_session succ!session_id=[%d]", session_id);

    head.magic = TK_PROTO_MAGIC;
    head.cmd = TK_OK;
    head.len = sizeof(TK_S32);
    int w = writen(fd, &head, sizeof head);
    if (w != static_cast<int>(sizeof head)) {
        ERR("preview_routine: write head failed!len=[%d],errno=[%d]", w, errno);
        netuser_remove_preview_session(session_id);
        return TK_ERR_IO;
    }
    const TK_S32 id = session_id;
    w = writen(fd, &id, sizeof id);
    if (w != static_cast<int>(sizeof id)) {
        ERR("preview_routine: write session failed!len=[%d],errno=[%d]", w, errno);
        netuser_remove_preview_session(session_id);
        return TK_ERR_IO;
    }

    std::mutex fd_mutex;
    media_info m;
    m.fd = fd;
    m.stream_index = stream_index;
    m.fd_mutex = &fd_mutex;
    const int ret = stream_media(&m);
    if (ret == TK_ERR_REFUSED) {
        ERR("preview_routine: [start_preview] failed! id : %d, fd : %d, ret : %d", session_id, fd, ret);
        new_tknvi_noload_ack(&head, TK_ERR_REFUSED);
        writen(fd, &head, sizeof head);
    }
    netuser_remove_preview_session(session_id);
    return ret;
}

int active_preview(int sockfd, int auth_id, const char *payload)
{
    std::unique_ptr<NEW_ACTIVE_PACKAGE> pkg(new (std::nothrow) NEW_ACTIVE_PACKAGE());
    if (!pkg) {
        ERR("active_preview:malloc failed");
        return TK_ERR_REFUSED;
    }
    std::memcpy(&pkg->req, payload, sizeof pkg->req);
    pkg->req.ipaddr[sizeof pkg->req.ipaddr - 1] = '\0';
    if (pkg->req.ipaddr[0] == '\0') {
        sockaddr_in peer{};
        socklen_t len = sizeof peer;
        const int r = getpeername(sockfd, reinterpret_cast<sockaddr *>(&peer), &len);
        if (r != 0) {
            ERR("getpeername failed!errno=[%d]", errno);
            ERR("getpeername failed!");
            return -1;
        }
        inet_ntop(AF_INET, &peer.sin_addr, pkg->req.ipaddr, sizeof pkg->req.ipaddr);
    }
    pkg->auth_id = auth_id;
    pthread_t tid;
    if (pthread_create(&tid, nullptr, active_tcp_routine, pkg.get()) != 0) {
        ERR("creat thread [active_tcp_routine] failed");
        return TK_ERR_REFUSED;
    }
    pkg.release();  // the thread owns it now
    DBG("active_preview create pthread success!pid=[%ld]", static_cast<long>(tid));
    pthread_detach(tid);
    return 0;
}

void *active_tcp_routine(void *arg)
{
    std::unique_ptr<NEW_ACTIVE_PACKAGE> pkg(static_cast<NEW_ACTIVE_PACKAGE *>(arg));
    const int auth_id = pkg->auth_id;
    const int channel = static_cast<int>(pkg->req.channel);
    const int stream_index = static_cast<int>(pkg->req.stream_index);

    char user_name[16] = "";
    USER_PRIVILEGE priv{};
    if (netuser_get_user_info(auth_id, user_name, &priv) != 0) {
        ERR("active_tcp_routine:netuser_get_user_info failed");
        return nullptr;
    }
    if (pkg->req.channel >= sizeof priv.net_priview_right || priv.net_priview_right[channel] == 0) {
        ERR("active_tcp_routine:no rights to preview!");
        return nullptr;
    }

    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        ERR("active_tcp socket failed,new_fd=[%d]", fd);
        return nullptr;
    }
    DBG("active_tcp_routine socket success!fd=[%d]", fd);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(pkg->req.port));
    if (inet_pton(AF_INET, pkg->req.ipaddr, &to.sin_addr) != 1 ||
        connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to) != 0) {
        ERR("active_tcp connect failed");
        close(fd);
        return nullptr;
    }
    DBG("active_tcp_routine connect success!");

    // Present ourselves exactly as a viewer presents itself to the camera.
    struct CG_PACKED {
        NEW_PACKET_HEADER head;
        NEW_PP_PERVIEW_REQ req;
    } hello{};
    hello.head = {TK_PROTO_MAGIC, TK_CMD_PREVIEW_START, sizeof(NEW_PP_PERVIEW_REQ)};
    hello.req.auth_id = static_cast<TK_U32>(auth_id);
    hello.req.protocol = PROTOCOL_TYPE_TCP;
    hello.req.channel = pkg->req.channel;
    hello.req.stream_index = pkg->req.stream_index;
    writen(fd, &hello.head, sizeof hello.head);
    writen(fd, &hello.req, sizeof hello.req);

    // A remote side that never answers must not hold the thread for ever.
    timeval answer_timeout{kActiveAnswerTimeoutSec, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &answer_timeout, sizeof answer_timeout);
    NEW_PACKET_HEADER answer{};
    TK_S32 remote_id = 0;
    if (readn(fd, &answer, sizeof answer) != static_cast<int>(sizeof answer) || answer.cmd != 0) {
        ERR("active_tcp_routine:refused by romate!");
        close(fd);
        return nullptr;
    }
    if (readn(fd, &remote_id, sizeof remote_id) != static_cast<int>(sizeof remote_id)) {
        ERR("active_tcp_routine:refused by romate!");
        close(fd);
        return nullptr;
    }
    const int session_id = netuser_add_register_preview_session(auth_id, user_name, fd, channel, stream_index);
    if (session_id == -1) {
        ERR("active_tcp_routine:add session failed!");
        close(fd);
        return nullptr;
    }

    std::mutex fd_mutex;
    media_info m;
    m.fd = fd;
    m.stream_index = stream_index;
    m.fd_mutex = &fd_mutex;
    pthread_t audio_tid{};
    const bool audio = do_audio_preview(&m, &audio_tid) == 0;
    const int ret = do_preview(&m);
    m.video_ended = true;
    if (ret == TK_ERR_REFUSED) ERR("active_tcp_routine preview failed! nfd : %d, ret : %d", fd, ret);
    DBG("active_tcp_routine preview end!ret=[%d]", ret);
    netuser_remove_preview_session(session_id);
    if (audio) pthread_join(audio_tid, nullptr);
    close(fd);
    return nullptr;
}

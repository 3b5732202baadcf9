#include "control/video_cfg.h"

#include <iconv.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "common/log.h"
#include "common/zq_proto.h"
#include "main/socketclientcmd.h"

namespace {

constexpr int kClientMax = 8192;
constexpr double kToClient = 0.8192;
constexpr double kToServer = 1.220703125;  // 10000 / 8192
constexpr size_t kConvBufSize = 2048;
constexpr size_t kNameKept = sizeof(VIDEO_CHN_PARA::name) - 1;  // 47 bytes and the terminator
constexpr int kCoverEntries = 8;

// Closes an iconv descriptor when it goes out of scope.
struct IconvCloser {
    iconv_t cd;
    ~IconvCloser() { iconv_close(cd); }
};

int read_cover(int channel, CoverArea *cover, int *ret)
{
    CoverAreaReq req{};
    req.ChannelID = static_cast<uint8_t>(channel);
    req.sel[0] = 1;
    req.sel[1] = 1;
    std::memset(cover, 0, sizeof *cover);
    int outlen = 0;
    *ret = socket_client_cmd_Read(ZQ_GETCOVERAREA, &req, sizeof req, cover, &outlen, sizeof *cover);
    if (*ret != 0 || outlen != static_cast<int>(sizeof *cover)) {
        DBG("maybe get parameter error, RETResult = %d recvLen = %d - %d", *ret, outlen,
            static_cast<int>(sizeof *cover));
        return -1;
    }
    return 0;
}

int read_osd(VideoOsd *osd, int *ret)
{
    VideoOsdReq req{};  // all zero: channel 0, main stream
    std::memset(osd, 0, sizeof *osd);
    int outlen = 0;
    *ret = socket_client_cmd_Read(ZQ_GETVIDEOOSD, &req, sizeof req, osd, &outlen, sizeof *osd);
    if (*ret != 0 || outlen != static_cast<int>(sizeof *osd)) {
        // The expected length printed is that of the network-protocol record, as in the other handlers.
        DBG("maybe get parameter error, RETResult = %d recvLen = %d - %d", *ret, outlen,
            static_cast<int>(sizeof(NetworkProtocol)));
        return -1;
    }
    return 0;
}

// Length of a GB2312 text cut to at most max bytes without splitting a two-byte character.
size_t gb2312_cut(const char *text, size_t len, size_t max)
{
    if (len <= max) return len;
    size_t n = 0;
    while (n < max) {
        const bool wide = static_cast<unsigned char>(text[n]) >= 0x80;
        if (wide && n + 2 > max) break;
        n += wide ? 2 : 1;
    }
    return n;
}

void to_client(VIDEO_CH_OSD *item, uint8_t enable, uint16_t x, uint16_t y)
{
    item->enable = enable;
    if (enable != 1) return;  // a hidden item keeps position 0
    item->x = static_cast<TK_U16>(video_cfg_to_client(x));
    item->y = static_cast<TK_U16>(video_cfg_to_client(y));
}

}  // namespace

int video_cfg_to_client(int server_pos)
{
    return static_cast<int>(server_pos * kToClient);
}

int video_cfg_osd_to_server(int client_pos)
{
    if (client_pos > kClientMax) client_pos = kClientMax;
    return static_cast<int>(client_pos * kToServer);
}

int video_cfg_cover_to_server(int client_pos)
{
    return static_cast<int>(client_pos * kToServer);
}

int code_convert(const char *from_charset, const char *to_charset, const char *inbuf, size_t inlen, char *outbuf,
                 size_t outlen)
{
    iconv_t cd = iconv_open(to_charset, from_charset);
    if (cd == reinterpret_cast<iconv_t>(-1)) {
        LOG_BARE("open the char set failed,errno = %d,strerror(errno) = %s ", errno, std::strerror(errno));
        return -1;
    }
    IconvCloser closer{cd};
    std::memset(outbuf, 0, outlen);
    char *in = const_cast<char *>(inbuf);
    char *out = outbuf;
    size_t in_left = inlen;
    size_t out_left = outlen;
    if (iconv(cd, &in, &in_left, &out, &out_left) == static_cast<size_t>(-1)) {
        LOG_BARE("conver char set failed,errno = %d,strerror(errno) = %s ", errno, std::strerror(errno));
        return -1;
    }
    return 0;
}

int video_cfg_get_para(int channel, VIDEO_CHN_PARA *vichn_para)
{
    if (vichn_para == nullptr) {
        ERR("video_cfg_get_para error, vichn_para = [%p]", static_cast<void *>(vichn_para));
        return TK_ERR_IO;
    }
    std::memset(vichn_para, 0, sizeof *vichn_para);
    CoverArea cover{};
    auto osd = std::make_unique<VideoOsd>();
    int ret = 0;
    if (read_cover(channel, &cover, &ret) != 0) return ret;
    if (read_osd(osd.get(), &ret) != 0) return ret;

    auto name = std::make_unique<char[]>(kConvBufSize);
    const size_t main_len = wire_str_len(osd->StringMain, sizeof osd->StringMain);
    if (code_convert("utf-8", "gb2312", osd->StringMain, main_len, name.get(), main_len * 4) != 0)
        LOG_BARE("error, code_convert from utf-8 to utf-32le");

    to_client(&vichn_para->time, osd->TimeEnable, osd->TimePosX, osd->TimePosY);
    to_client(&vichn_para->ch_name, osd->StringMainEnable, osd->StringMainPosX, osd->StringMainPosY);
    if (osd->StringMainEnable == 1) {
        const size_t len = wire_str_len(name.get(), kConvBufSize);
        std::memcpy(vichn_para->name, name.get(), gb2312_cut(name.get(), len, kNameKept));
    }
    to_client(&vichn_para->enc_info, osd->InfoEnable, osd->InfoPosX, osd->InfoPosY);
    const VideoOsdString &ptz = osd->String[1];
    to_client(&vichn_para->ptz_info, ptz.Enable, ptz.PosX, ptz.PosY);

    vichn_para->osd_count = 3;
    vichn_para->cover_count = 8;
    DBG("CoverAreaEnable = %d", cover.CoverAreaEnable);
    constexpr int kCoversInRecord = sizeof vichn_para->cover / sizeof vichn_para->cover[0];
    for (int i = 0; i < cover.WinCount && i < kCoversInRecord; ++i) {
        VIDEO_COVER_ATTR &c = vichn_para->cover[i];
        const RectWind &w = cover.Windows[i];
        c.enable = 1;
        c.left = static_cast<TK_U16>(video_cfg_to_client(w.left));
        c.top = static_cast<TK_U16>(video_cfg_to_client(w.top));
        c.right = static_cast<TK_U16>(video_cfg_to_client(w.right));
        c.bottom = static_cast<TK_U16>(video_cfg_to_client(w.bottom));
    }
    return 0;
}

int video_cfg_set_para(int channel, const VIDEO_CHN_PARA *vichn_para)
{
    if (vichn_para == nullptr) {
        ERR("video_cfg_get_para error, vichn_para = [%p]", static_cast<const void *>(vichn_para));
        return TK_ERR_IO;
    }
    CoverArea cover{};
    auto osd = std::make_unique<VideoOsd>();
    int ret = 0;
    // Failed reads do not stop the set: the records are then zeros plus the client's fields.
    read_cover(channel, &cover, &ret);
    read_osd(osd.get(), &ret);

    osd->TimeEnable = vichn_para->time.enable;
    osd->TimePosX = static_cast<uint16_t>(video_cfg_osd_to_server(vichn_para->time.x));
    osd->TimePosY = static_cast<uint16_t>(video_cfg_osd_to_server(vichn_para->time.y));
    osd->StringMainEnable = vichn_para->ch_name.enable;
    osd->StringMainPosX = static_cast<uint16_t>(video_cfg_osd_to_server(vichn_para->ch_name.x));
    osd->StringMainPosY = static_cast<uint16_t>(video_cfg_osd_to_server(vichn_para->ch_name.y));
    osd->InfoEnable = vichn_para->enc_info.enable;
    osd->InfoPosX = static_cast<uint16_t>(video_cfg_osd_to_server(vichn_para->enc_info.x));
    osd->InfoPosY = static_cast<uint16_t>(video_cfg_osd_to_server(vichn_para->enc_info.y));
    // The PTZ item (String2) and every other overlay field keep the values read.

    const size_t name_len = wire_str_len(vichn_para->name, sizeof vichn_para->name);
    size_t out_len = name_len * 4;
    if (out_len > sizeof osd->StringMain - 1) out_len = sizeof osd->StringMain - 1;  // keep the terminator
    std::memset(osd->StringMain, 0, sizeof osd->StringMain);
    if (code_convert("GB2312", "UTF-8", vichn_para->name, name_len, osd->StringMain, out_len) != 0)
        LOG_BARE("error, code_convert from utf-8 to utf-32le");

    cover.ChannelID = static_cast<uint8_t>(channel);
    cover.CoverAreaEnable = 0;
    cover.WinCount = 0;
    std::memset(cover.Windows, 0, sizeof cover.Windows);
    // Eight entries: four in the record, four in the bytes after it.
    const auto *entries = reinterpret_cast<const VIDEO_COVER_ATTR *>(reinterpret_cast<const char *>(vichn_para) +
                                                                     offsetof(VIDEO_CHN_PARA, cover));
    for (int i = 0; i < kCoverEntries; ++i) {
        VIDEO_COVER_ATTR e;
        std::memcpy(&e, entries + i, sizeof e);
        if (e.enable == 1) {
            cover.CoverAreaEnable = 1;
            ++cover.WinCount;
        }
        RectWind &w = cover.Windows[i];
        w.left = static_cast<uint16_t>(video_cfg_cover_to_server(e.left));
        w.top = static_cast<uint16_t>(video_cfg_cover_to_server(e.top));
        w.right = static_cast<uint16_t>(video_cfg_cover_to_server(e.right));
        w.bottom = static_cast<uint16_t>(video_cfg_cover_to_server(e.bottom));
    }
    if (cover.WinCount < kCoverEntries) cover.WinCount = kCoverEntries;  // the server always gets eight windows

    socket_client_cmd_Write(ZQ_SETCOVERAREA, &cover, sizeof cover);
    socket_client_cmd_Write(ZQ_SETVIDEOOSD, osd.get(), sizeof *osd);
    return 0;
}

#include "control/cfg_base.h"

#include <cerrno>
#include <cstring>

#include "common/log.h"
#include "common/zq_proto.h"
#include "control/control.h"
#include "main/socketclientcmd.h"
#include "net/edci_protocol.h"
#include "net/netuser.h"

namespace {

int read_time(DeviceTime *t, int *outlen)
{
    DeviceTimeReq req{};
    std::memset(t, 0, sizeof *t);
    *outlen = 0;
    return socket_client_cmd_Read(ZQ_GETTIME, &req, sizeof req, t, outlen, sizeof *t);
}

// Read the overlay record of channel 0, main stream: 0 when a whole record came.
int read_osd(VideoOsd *osd, int *ret)
{
    VideoOsdReq req{};
    std::memset(&req, 1, sizeof req);
    req.ChannelID = 0;
    req.StreamId = 0;
    std::memset(osd, 0, sizeof *osd);
    int outlen = 0;
    *ret = socket_client_cmd_Read(ZQ_GETVIDEOOSD, &req, sizeof req, osd, &outlen, sizeof *osd);
    if (*ret != 0 || outlen != static_cast<int>(sizeof *osd)) {
        DBG("maybe get parameter error, RETResult = %d recvLen = %d - %d", *ret, outlen, static_cast<int>(sizeof *osd));
        return -1;
    }
    return 0;
}

int reply_record(int fd, char *buf, int len)
{
    NEW_PACKET_HEADER head{};
    new_tknvi_noload_ack(&head, TK_OK);
    head.len = static_cast<TK_U32>(len);
    return control_write_reply(fd, &head, buf);
}

int get_time(int fd, char *buf)
{
    DeviceTime t{};
    int outlen = 0;
    read_time(&t, &outlen);  // result and length are not looked at: a failed read reports zeros
    TK_SYS_TIME st{};
    st.tm_msec = 1000u * (t.Minute * 60u + t.Hours * 3600u + t.Seconds);
    st.tm_mday = t.Day;
    st.tm_mon = t.Month;
    st.tm_year = static_cast<TK_U16>(t.Year + 1900);
    DBG("cmd:get_time succ!time=[%d %d %d %d]", st.tm_year, st.tm_mon, st.tm_mday, static_cast<int>(st.tm_msec / 1000));
    std::memcpy(buf, &st, sizeof st);
    return reply_record(fd, buf, sizeof st);
}

int set_time(int fd, char *buf, int session_id)
{
    TK_SYS_TIME st{};
    std::memcpy(&st, buf, sizeof st);
    DeviceTime t{};
    int outlen = 0;
    const int ret = read_time(&t, &outlen);
    if (ret != 0 || outlen != static_cast<int>(sizeof t)) {
        // A read that went through with a wrong length answers 0 although nothing was set.
        DBG("ZQ_GETTIME get error, ret = %d, outlen = %d, errno = %d", ret, outlen, errno);
        return control_reply_result(fd, ret);
    }
    const TK_U32 secs = st.tm_msec / 1000;
    const TK_U32 hours = st.tm_msec / 3600000;
    const TK_U32 minutes = (secs - hours * 3600) / 60;
    t.Hours = static_cast<uint8_t>(hours);
    t.Minute = static_cast<uint8_t>(minutes);
    t.Seconds = static_cast<uint8_t>(secs - hours * 3600 - minutes * 60);
    t.Day = st.tm_mday;
    t.Month = st.tm_mon;
    t.Year = static_cast<uint8_t>(st.tm_year - 1900);  // one byte: 2156 and later wrap
    socket_client_cmd_Set(ZQ_SETTIME, &t, sizeof t);
    DBG("cmd:set_time success!");
    const int r = control_reply_result(fd, TK_OK);
    netuser_write_log(session_id, LOG_TIME_SET, 0);
    return r;
}

int get_date_format(int fd, char *buf)
{
    VideoOsd osd{};
    int ret = 0;
    if (read_osd(&osd, &ret) != 0) return control_reply_result(fd, ret);
    // Only two layouts are told apart: DDF_DDMMYYYY is never reported.
    const TK_U32 format = osd.TimeType > 1 ? DDF_MMDDYYYY : DDF_YYYYMMDD;
    std::memcpy(buf, &format, sizeof format);
    return reply_record(fd, buf, sizeof format);
}

int set_date_format(int fd, char *buf)
{
    TK_U32 format = 0;
    std::memcpy(&format, buf, sizeof format);
    VideoOsd osd{};
    int ret = 0;
    if (read_osd(&osd, &ret) == 0) {
        int result = 0;
        switch (format) {
            case DDF_YYYYMMDD:
                osd.TimeType = 0;
                break;
            case DDF_MMDDYYYY:
                osd.TimeType = 2;
                break;
            case DDF_DDMMYYYY:
                result = -1;  // not a layout of the overlay: refused, the client is not told
                break;
            default:
                break;
        }
        DBG("*datefm = %u,ret= %d, TimeType = %d", format, result, osd.TimeType);
        socket_client_cmd_Set(ZQ_SETVIDEOOSD, &osd, sizeof osd);
    }
    return control_reply_result(fd, TK_OK);
}

}  // namespace

int new_tknvi_cfg_base(int fd, int command, char *buf, int session_id)
{
    switch (command) {
        case TK_CMD_GET_TIME:
            return get_time(fd, buf);
        case TK_CMD_SET_TIME:
            return set_time(fd, buf, session_id);
        case TK_CMD_GET_DATE_FORMAT:
            return get_date_format(fd, buf);
        case TK_CMD_SET_DATE_FORMAT:
            return set_date_format(fd, buf);
        case TK_CMD_GET_DST_CFG:
            // Daylight saving is not reported: the server's fields are not asked for.
            std::memset(buf, 0, sizeof(DST_PARA));
            return reply_record(fd, buf, sizeof(DST_PARA));
        case TK_CMD_SET_DST_CFG:
        case TK_CMD_RESET_BASE_CFG:
            return control_reply_result(fd, TK_OK);  // no action
        default:
            return control_reply_result(fd, TK_ERR_UNSUPPORTED);
    }
}

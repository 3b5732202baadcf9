#include "control/cfg_channel_enc.h"

#include <cstring>

#include "common/log.h"
#include "control/control.h"
#include "control/video_cfg.h"
#include "media/shm_cache.h"
#include "net/edci_protocol.h"
#include "net/netuser.h"

namespace {

constexpr int kMaxVideoStreams = 7;

// The right a command of the group needs; -1 for none, -2 for a code the group does not serve.
int needed_right(int command)
{
    switch (command) {
        case TK_CMD_GET_CHN_CFG:
        case TK_CMD_SET_CHN_CFG:
        case TK_CMD_RESET_CHN_CFG:
        case 0x30036:
        case 0x30037:
            return RIGHT_CHANNEL_SET;
        case TK_CMD_GET_CAMERA_CFG:
        case TK_CMD_SET_CAMERA_CFG:
        case TK_CMD_RESET_CAMERA_CFG:
            return RIGHT_RECORD_SET;  // the camera image is gated by the recording right
        case TK_CMD_GET_ENC_CFG:
        case TK_CMD_SET_ENC_CFG:
            return -1;
        case TK_CMD_RESET_ENC_CFG:
        case TK_CMD_GET_ENC_ROI_CFG:
        case TK_CMD_SET_ENC_ROI_CFG:
        case TK_CMD_RESET_ENC_ROI_CFG:
            return RIGHT_ENCODE_SET;
        default:
            return -2;
    }
}

// A count-prefixed list of count records of size bytes, already at buf + 4.
int reply_list(int fd, char *buf, int size, int count)
{
    NEW_PACKET_HEADER head{};
    new_tknvi_load_ack(&head, buf, size, count);
    return control_write_reply(fd, &head, buf);
}

// A bare header with result, and the operation log when it is 0.
int reply_logged(int fd, int result, int session_id, int log_type)
{
    const int r = control_reply_result(fd, result);
    if (result == 0) netuser_write_log(session_id, log_type, 0);
    return r;
}

int reset(int fd, int session_id, const char *pattern, const char *message)
{
    control_reset_config(pattern);
    DBG("%s", message);
    return reply_logged(fd, TK_OK, session_id, LOG_CHANNEL_SET);
}

// The camera-image settings are not kept by the system server: a zeroed record.
int video_cfg_get_camera_para(char *record)
{
    std::memset(record, 0, TK_CAMERA_PARA_SIZE);
    return 0;
}

int video_cfg_set_camera_para(const char *record)
{
    (void)record;
    return 0;
}

}  // namespace

int video_cfg_get_enc_para(VIDEO_ENC_PARA *records, int max)
{
    int n = 0;
    for (int stream = 0; stream < kMaxVideoStreams && n < max; ++stream) {
        const int idx = get_video_cache_idx(stream);
        if (idx < 0) break;
        int type = CACHE_MEDIA_TYPE_END, bps = 0, fps = 0, width = 0, height = 0;
        if (shm_cache_get_media_info(idx, &type, &bps, &fps, &width, &height) != 0) type = CACHE_MEDIA_TYPE_END;
        VIDEO_ENC_PARA &r = records[n++];
        std::memset(&r, 0, sizeof r);
        r.channel = 0;
        r.stream_index = static_cast<TK_U32>(stream);
        switch (type) {
            case CACHE_MEDIA_TYPE_MJPG:
            case CACHE_MEDIA_TYPE_MPEG4:
            case CACHE_MEDIA_TYPE_H264:
                r.codec = static_cast<TK_U32>(type);
                r.width = static_cast<TK_U16>(width);
                r.height = static_cast<TK_U16>(height);
                r.frame_rate = static_cast<TK_U32>(fps);
                r.bit_rate = static_cast<TK_U32>(bps);
                break;
            default:
                r.codec = VIDEO_CODEC_UNKNOWN;  // the encoder has not described the stream yet
                break;
        }
    }
    return n;
}

int new_tknvi_cfg_channel_enc(int fd, int command, char *buf, int session_id, const USER_PRIVILEGE *priv)
{
    const int right = needed_right(command);
    if (right == -2) return control_reply_result(fd, TK_ERR_UNSUPPORTED);
    if (right >= 0 && !control_has_right(priv, right)) return control_reply_result(fd, TK_ERR_RIGHT);

    switch (command) {
        case TK_CMD_GET_CHN_CFG: {
            const int ret = video_cfg_get_para(0, reinterpret_cast<VIDEO_CHN_PARA *>(buf + 4));
            if (ret < 0) {
                DBG("cmd:video_cfg_get_para failed!ret=[%d]", ret);
                return control_reply_result(fd, ret);
            }
            DBG("cmd:video_cfg_get_para success!");
            return reply_list(fd, buf, sizeof(VIDEO_CHN_PARA), 1);
        }
        case TK_CMD_SET_CHN_CFG: {
            const int ret = video_cfg_set_para(0, reinterpret_cast<const VIDEO_CHN_PARA *>(buf));
            DBG("cmd:video_cfg_set_para ret=[%d]", ret);
            return reply_logged(fd, ret, session_id, LOG_CHANNEL_SET);
        }
        case TK_CMD_RESET_CHN_CFG:
            return reset(fd, session_id, "config_image*", "CMD:TK_CMD_RESET_CHN_CFG  success");
        case TK_CMD_GET_CAMERA_CFG:
            video_cfg_get_camera_para(buf + 4);
            DBG("cmd:video_cfg_get_camera_para success!");
            return reply_list(fd, buf, TK_CAMERA_PARA_SIZE, 1);
        case TK_CMD_SET_CAMERA_CFG:
            video_cfg_set_camera_para(buf);
            DBG("cmd:video_cfg_set_camera_para success!");
            return reply_logged(fd, TK_OK, session_id, LOG_CHANNEL_SET);
        case TK_CMD_RESET_CAMERA_CFG:
            // The camera-image reset removes the PTZ configuration files.
            return reset(fd, session_id, "config_ptz*", "cmd:TK_CMD_RESET_CAMERA_CFG succ");
        case TK_CMD_GET_ENC_CFG: {
            constexpr int kMax = (CONTROL_BUF_SIZE - 4) / static_cast<int>(sizeof(VIDEO_ENC_PARA));
            const int count = video_cfg_get_enc_para(reinterpret_cast<VIDEO_ENC_PARA *>(buf + 4), kMax);
            DBG("cmd:video_cfg_get_enc_para success!count=[%d]", count);
            return reply_list(fd, buf, sizeof(VIDEO_ENC_PARA), count);
        }
        case TK_CMD_SET_ENC_CFG:
            DBG("cmd:video_cfg_set_enc_para success!");
            return reply_logged(fd, TK_OK, session_id, LOG_ENCODE_SET);
        case TK_CMD_RESET_ENC_CFG:
            return reset(fd, session_id, "config_encode*", "cmd:TK_CMD_RESET_ENC_CFG succ");
        case TK_CMD_GET_ENC_ROI_CFG: {
            ENC_ROI_PARA roi{};
            roi.max_regions = 4;
            roi.region_count = 0;
            std::memcpy(buf + 4, &roi, sizeof roi);
            return reply_list(fd, buf, sizeof roi, 1);
        }
        case TK_CMD_SET_ENC_ROI_CFG:
        case TK_CMD_RESET_ENC_ROI_CFG:
            return reply_logged(fd, TK_OK, session_id, LOG_ENCODE_SET);
        default:  // 0x30036, 0x30037: no action
            return control_reply_result(fd, TK_OK);
    }
}

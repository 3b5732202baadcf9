#include "control/cfg_video_detect.h"

#include <cstring>

#include "common/log.h"
#include "common/tk_proto.h"
#include "common/zq_proto.h"
#include "control/control.h"
#include "main/socketclientcmd.h"
#include "net/edci_protocol.h"
#include "net/netuser.h"

namespace {

constexpr int kMaxAlarmRecords = (8192 - 4) / TK_ALARM_DETECT_PARA_SIZE;

int reply_list(int fd, char *buf, int size, int count)
{
    NEW_PACKET_HEADER head{};
    new_tknvi_load_ack(&head, buf, size, count);
    return control_write_reply(fd, &head, buf);
}

int reply_logged(int fd, int session_id, int log_type)
{
    const int r = control_reply_result(fd, TK_OK);
    netuser_write_log(session_id, log_type, 0);
    return r;
}

// The detection settings are not kept by the system server: zeroed records.
int video_detect_get_para(char *record)
{
    std::memset(record, 0, TK_VIDEO_DETECT_PARA_SIZE);
    return 1;
}

int alarm_detect_get_para(char *records)
{
    int count = alarm_detect_input_count();
    if (count > kMaxAlarmRecords) count = kMaxAlarmRecords;
    std::memset(records, 0, static_cast<size_t>(count) * TK_ALARM_DETECT_PARA_SIZE);
    return count;
}

int exception_detect_get_para(char *record)
{
    std::memset(record, 0, TK_EXCEPTION_PARA_SIZE);
    return 0;
}

int alarmout_get_mode(char *record)
{
    std::memset(record, 0, TK_ALARMOUT_MODE_SIZE);
    return 1;
}

}  // namespace

int alarm_detect_input_count()
{
    DeviceCapabilityReq req{};
    DeviceCapabilityRsp cap{};
    int outlen = 0;
    const int ret = socket_client_cmd_Read(ZQ_GETDEVICECAP, &req, sizeof req, &cap, &outlen, sizeof cap);
    if (ret != 0 || outlen < static_cast<int>(offsetof(DeviceCapabilityRsp, IoInputCount) + 1)) return 0;
    return cap.IoInputCount;
}

int new_tknvi_cfg_video_detect(int fd, int command, char *buf, int session_id, const unsigned char *right)
{
    if (right == nullptr || *right == 0) return control_reply_result(fd, TK_ERR_RIGHT);
    switch (command) {
        case TK_CMD_GET_VIDEO_DETECT_CFG: {
            const int count = video_detect_get_para(buf + 4);
            DBG("cmd:video_detect_get_para success!");
            return reply_list(fd, buf, TK_VIDEO_DETECT_PARA_SIZE, count);
        }
        case TK_CMD_SET_VIDEO_DETECT_CFG:
            DBG("cmd:video_detect_set_para success!");
            return reply_logged(fd, session_id, LOG_EVENT_DETECT_SET);
        case TK_CMD_RESET_VIDEO_DETECT_CFG:
        case TK_CMD_RESET_ALARM_DETECT_CFG:
            // Both detection resets remove the recording configuration files.
            control_reset_config("config_record*");
            DBG("cmd:TK_CMD_RESET_VIDEO_DETECT_CFG succ");
            return reply_logged(fd, session_id, LOG_EVENT_DETECT_SET);
        case TK_CMD_GET_ALARM_DETECT_CFG: {
            const int count = alarm_detect_get_para(buf + 4);
            DBG("cmd:alarm_detect_get_para success!count=[%d]", count);
            return reply_list(fd, buf, TK_ALARM_DETECT_PARA_SIZE, count);
        }
        case TK_CMD_SET_ALARM_DETECT_CFG:
            DBG("cmd:alarm_detect_set_para success!");
            return reply_logged(fd, session_id, LOG_EVENT_DETECT_SET);
        case TK_CMD_GET_EXCEPTION_DETECT_CFG: {
            exception_detect_get_para(buf);
            DBG("cmd:exception_detect_get_para success!");
            NEW_PACKET_HEADER head{};
            new_tknvi_noload_ack(&head, TK_OK);
            head.len = TK_EXCEPTION_PARA_SIZE;
            return control_write_reply(fd, &head, buf);
        }
        case TK_CMD_SET_EXCEPTION_DETECT_CFG:
            DBG("cmd:exception_detect_set_para success!");
            return reply_logged(fd, session_id, LOG_EVENT_DETECT_SET);
        case TK_CMD_GET_ALARMOUT_MODE: {
            const int count = alarmout_get_mode(buf + 4);
            DBG("cmd:alarmout_get_mode success!");
            return reply_list(fd, buf, TK_ALARMOUT_MODE_SIZE, count);
        }
        case TK_CMD_SET_ALARMOUT_MODE:
            DBG("cmd:alarmout_set_mode success!");
            return reply_logged(fd, session_id, LOG_EVENT_DETECT_SET);
        case 0x30078:
        case 0x30082:
            return control_reply_result(fd, TK_OK);  // no action
        default:
            return control_reply_result(fd, TK_ERR_UNSUPPORTED);
    }
}

// Records and codes of the client protocol (TCP port 6258 and UDP).
//
// Every message is a NEW_PACKET_HEADER followed by `len` body bytes. The
// records below travel exactly as laid out: packed, little-endian, 32-bit
// fields unless a field says otherwise. The client library, the daemon and
// the tools all use these definitions, so a change here changes the wire.
#pragma once

#include <cstdint>

#include "common/wire.h"

using TK_U8 = uint8_t;
using TK_U16 = uint16_t;
using TK_U32 = uint32_t;
using TK_S32 = int32_t;

// ---------------------------------------------------------------- header ---

// The four ASCII bytes "QVRM" read as a little-endian 32-bit value.
constexpr TK_U32 TK_PROTO_MAGIC = 0x4D525651;

struct CG_PACKED NEW_PACKET_HEADER {
    TK_U32 magic;  // "QVRM"
    TK_S32 cmd;    // command code in a request, result code in a control reply
    TK_U32 len;    // body bytes that follow
};
CG_SIZE(NEW_PACKET_HEADER, 12);
CG_OFFSET(NEW_PACKET_HEADER, cmd, 4);
CG_OFFSET(NEW_PACKET_HEADER, len, 8);

// Result codes shared by replies and the routines behind them.
enum TK_RESULT : int {
    TK_OK = 0,
    TK_ERR_SESSION = -2,      // invalid session id, user unknown
    TK_ERR_UNSUPPORTED = -4,  // command not supported
    TK_ERR_REFUSED = -6,      // refused, out of resources, session table full
    TK_ERR_IO = -7,           // short read or write on the client socket
    TK_ERR_SOCKET = -8,       // socket or peer-address failure
    TK_ERR_RIGHT = -11,       // right not granted
};

// ------------------------------------------------------------- commands ---

enum TK_CMD : TK_S32 {
    // UDP discovery
    TK_CMD_SEARCH_DEVICE = 0x10001,
    TK_CMD_SEARCH_DEVICE_ACK = 0x10002,
    TK_CMD_PROBE = 0x10003,
    TK_CMD_PROBE_ACK = 0x10004,
    // session
    TK_CMD_LOGIN = 0x20001,
    TK_CMD_LOGOUT = 0x20002,
    TK_CMD_HEARTBEAT = 0x20003,
    TK_CMD_REGISTER = 0x20004,
    // base settings
    TK_CMD_GET_TIME = 0x30001,
    TK_CMD_SET_TIME = 0x30002,
    TK_CMD_GET_DATE_FORMAT = 0x30003,
    TK_CMD_SET_DATE_FORMAT = 0x30004,
    TK_CMD_GET_DST_CFG = 0x30005,
    TK_CMD_SET_DST_CFG = 0x30006,
    TK_CMD_RESET_BASE_CFG = 0x3000F,
    // network settings
    TK_CMD_GET_NETWORK_CFG = 0x30010,
    TK_CMD_SET_NETWORK_CFG = 0x30011,
    TK_CMD_GET_PPPOE_CFG = 0x30012,
    TK_CMD_SET_PPPOE_CFG = 0x30013,
    TK_CMD_GET_NTP_CFG = 0x30014,
    TK_CMD_SET_NTP_CFG = 0x30015,
    TK_CMD_GET_EMAIL_CFG = 0x30016,
    TK_CMD_SET_EMAIL_CFG = 0x30017,
    TK_CMD_GET_FTP_CFG = 0x30018,
    TK_CMD_SET_FTP_CFG = 0x30019,
    TK_CMD_GET_DDNS_CFG = 0x3001A,
    TK_CMD_SET_DDNS_CFG = 0x3001B,
    TK_CMD_RESET_NETWORK_CFG = 0x3002F,
    // channel, camera image and encoding
    TK_CMD_GET_CHN_CFG = 0x30030,
    TK_CMD_SET_CHN_CFG = 0x30031,
    TK_CMD_RESET_CHN_CFG = 0x30032,
    TK_CMD_GET_CAMERA_CFG = 0x30033,
    TK_CMD_SET_CAMERA_CFG = 0x30034,
    TK_CMD_RESET_CAMERA_CFG = 0x30035,
    TK_CMD_GET_ENC_CFG = 0x30040,
    TK_CMD_SET_ENC_CFG = 0x30041,
    TK_CMD_RESET_ENC_CFG = 0x30042,
    TK_CMD_GET_ENC_ROI_CFG = 0x30043,
    TK_CMD_SET_ENC_ROI_CFG = 0x30044,
    TK_CMD_RESET_ENC_ROI_CFG = 0x30045,
    // recording and storage
    TK_CMD_GET_RECORD_SCHEDULE = 0x30050,
    TK_CMD_SET_RECORD_SCHEDULE = 0x30051,
    TK_CMD_GET_RECORD_MODE = 0x30052,
    TK_CMD_SET_RECORD_MODE = 0x30053,
    TK_CMD_GET_PRERECORD_TIME = 0x30054,
    TK_CMD_SET_PRERECORD_TIME = 0x30055,
    TK_CMD_RESET_RECORD_CFG = 0x3005F,
    TK_CMD_GET_OVERWRITE_MODE = 0x30060,
    TK_CMD_SET_OVERWRITE_MODE = 0x30061,
    TK_CMD_RESET_OVERWRITE_MODE = 0x30062,
    // detection and alarms
    TK_CMD_GET_VIDEO_DETECT_CFG = 0x30070,
    TK_CMD_SET_VIDEO_DETECT_CFG = 0x30071,
    TK_CMD_RESET_VIDEO_DETECT_CFG = 0x30072,
    TK_CMD_GET_ALARM_DETECT_CFG = 0x30073,
    TK_CMD_SET_ALARM_DETECT_CFG = 0x30074,
    TK_CMD_RESET_ALARM_DETECT_CFG = 0x30075,
    TK_CMD_GET_EXCEPTION_DETECT_CFG = 0x30076,
    TK_CMD_SET_EXCEPTION_DETECT_CFG = 0x30077,
    TK_CMD_GET_ALARMOUT_MODE = 0x30080,
    TK_CMD_SET_ALARMOUT_MODE = 0x30081,
    // users
    TK_CMD_GET_ALL_USER = 0x30090,
    TK_CMD_ADD_USER = 0x30091,
    TK_CMD_DEL_USER = 0x30092,
    TK_CMD_MODIFY_USER = 0x30093,
    TK_CMD_CHANGE_PASSWD = 0x30094,
    // serial and PTZ settings
    TK_CMD_GET_PTZ_CFG = 0x300A3,
    TK_CMD_SET_PTZ_CFG = 0x300A4,
    TK_CMD_RESET_PTZ_CFG = 0x300A5,
    // live preview
    TK_CMD_PREVIEW_START = 0x40001,
    TK_CMD_PREVIEW_STOP = 0x40002,
    TK_CMD_PREVIEW_HEARTBEAT = 0x40003,
    TK_CMD_PREVIEW_DATA = 0x40004,
    TK_CMD_ACTIVE_PREVIEW = 0x40005,
    // search and playback
    TK_CMD_SEARCH_REC_FILE = 0x50001,
    TK_CMD_START_PLAY = 0x50002,
    TK_CMD_POS_PLAY_REQ = 0x50008,
    TK_CMD_SEARCH_JPG_FILE = 0x50009,
    // talk
    TK_CMD_TALK_START = 0x60001,
    TK_CMD_ACTIVE_TALK = 0x60004,
    // remote control
    TK_CMD_REMOTE_REBOOT = 0x70001,
    TK_CMD_REMOTE_POWER_NOP = 0x70002,
    TK_CMD_PTZ_CONTROL = 0x70003,
    TK_CMD_REMOTE_LOG_NOP = 0x70004,
    TK_CMD_GET_EVENT_STATE = 0x70005,
    TK_CMD_GET_DISK_INFO = 0x70006,
    TK_CMD_REMOTE_STORAGE_NOP = 0x70007,
    TK_CMD_GET_REMOTE_INFO = 0x70009,
    TK_CMD_REMOTE_NOP = 0x70010,
    TK_CMD_REMOTE_SNAP = 0x70013,
    // first messages accepted without a service
    TK_CMD_UPGRADE_FIRST = 0x80001,
    TK_CMD_UPLOAD_FIRST = 0x90003,
};

// --------------------------------------------------------------- rights ---

enum TK_RIGHT {
    RIGHT_CHANNEL_SET = 0,
    RIGHT_ENCODE_SET = 1,
    RIGHT_RECORD_SET = 2,
    RIGHT_EVENT_DETECT_SET = 3,
    RIGHT_NETWORK_SET = 4,
    RIGHT_SERIAL_SET = 5,
    RIGHT_IA_SET = 6,
    RIGHT_RESET_FACTORY_SET = 7,
    RIGHT_SYSBASE_SET = 8,
    RIGHT_STORAGE_MANAGE = 9,
    RIGHT_SYSTEM_UPGRADE = 10,
    RIGHT_SYSTEM_POWER = 11,
    RIGHT_PTZ_CONTROL = 12,
    RIGHT_SYSTEM_LOG = 13,
    RIGHT_ONLINE_USER_MANAGE = 14,
    RIGHT_REMOTE_TALK = 15,
    RIGHT_COUNT = 16,
};

// Five arrays of 64 one-byte flags; non-zero = granted.
struct CG_PACKED USER_PRIVILEGE {
    TK_U8 opt_rights[64];            // indexed by TK_RIGHT
    TK_U8 local_priview_right[64];   // per channel
    TK_U8 local_playback_right[64];  // per channel
    TK_U8 net_priview_right[64];     // per channel
    TK_U8 net_playback_right[64];    // per channel
};
CG_SIZE(USER_PRIVILEGE, 320);
CG_OFFSET(USER_PRIVILEGE, local_priview_right, 64);
CG_OFFSET(USER_PRIVILEGE, local_playback_right, 128);
CG_OFFSET(USER_PRIVILEGE, net_priview_right, 192);
CG_OFFSET(USER_PRIVILEGE, net_playback_right, 256);

// Operation-log types (netuser_write_log).
enum TK_LOG_MAJOR { LOG_MAJOR_OPT = 0, LOG_MAJOR_ALARM = 1, LOG_MAJOR_EXCPT = 2 };
enum TK_LOG_TYPE {
    LOG_REBOOT = 2,
    LOG_REMOTE_LOGOUT = 6,
    LOG_CHANNEL_SET = 7,
    LOG_ENCODE_SET = 8,
    LOG_RECORD_SET = 9,
    LOG_EVENT_DETECT_SET = 10,
    LOG_NETWORK_SET = 11,
    LOG_SERIAL_SET = 12,
    LOG_PTZ_CONTROL = 16,
    LOG_USER_MANAGE = 19,
    LOG_TIME_SET = 21,
};

// ---------------------------------------------------------------- login ---

struct CG_PACKED NEW_PP_LOGIN_REQ {
    char uid[16];   // user name, NUL-padded
    char pass[16];  // password, NUL-padded
};
CG_SIZE(NEW_PP_LOGIN_REQ, 32);
CG_OFFSET(NEW_PP_LOGIN_REQ, pass, 16);

struct CG_PACKED TK_DEVICE_INFO {
    char serial_no[32];
    char dev_type[32];
    TK_U8 video_chns;
    TK_U8 audio_chns;
    TK_U8 alarmin_chns;
    TK_U8 alarmout_chns;
    TK_U8 serial_num;
    TK_U8 ipchan_num;
    TK_U8 disk_num;
    TK_U8 netport_num;
    TK_U8 usbport_num;
    TK_U8 reserved1[3];
    TK_U32 support_mask;
    TK_U32 version;
    char release_date[32];
    TK_U8 reserved2[32];
};
CG_SIZE(TK_DEVICE_INFO, 148);
CG_OFFSET(TK_DEVICE_INFO, dev_type, 32);
CG_OFFSET(TK_DEVICE_INFO, video_chns, 64);
CG_OFFSET(TK_DEVICE_INFO, audio_chns, 65);
CG_OFFSET(TK_DEVICE_INFO, alarmin_chns, 66);
CG_OFFSET(TK_DEVICE_INFO, alarmout_chns, 67);
CG_OFFSET(TK_DEVICE_INFO, serial_num, 68);
CG_OFFSET(TK_DEVICE_INFO, ipchan_num, 69);
CG_OFFSET(TK_DEVICE_INFO, disk_num, 70);
CG_OFFSET(TK_DEVICE_INFO, netport_num, 71);
CG_OFFSET(TK_DEVICE_INFO, usbport_num, 72);
CG_OFFSET(TK_DEVICE_INFO, reserved1, 73);
CG_OFFSET(TK_DEVICE_INFO, support_mask, 76);
CG_OFFSET(TK_DEVICE_INFO, version, 80);
CG_OFFSET(TK_DEVICE_INFO, release_date, 84);
CG_OFFSET(TK_DEVICE_INFO, reserved2, 116);

// Body of a successful login reply.
struct CG_PACKED NEW_PP_LOGIN_RSP {
    TK_S32 session_id;
    USER_PRIVILEGE priv;
    TK_DEVICE_INFO dev_info;
};
CG_SIZE(NEW_PP_LOGIN_RSP, 472);
CG_OFFSET(NEW_PP_LOGIN_RSP, priv, 4);
CG_OFFSET(NEW_PP_LOGIN_RSP, dev_info, 324);

// Body of the registration message (camera to centre, cmd 0x20004).
struct CG_PACKED NEW_PP_REGISTER_REQ {
    USER_PRIVILEGE reg_priv;
    TK_DEVICE_INFO dev_info;
};
CG_SIZE(NEW_PP_REGISTER_REQ, 468);
CG_OFFSET(NEW_PP_REGISTER_REQ, dev_info, 320);

// Centre settings of active registration.
struct CG_PACKED NET_CC_PARA {
    TK_U8 enable;
    TK_U8 reserved1;
    TK_U16 port;  // host order
    char cc_server[64];
    char auth_str[16];
    USER_PRIVILEGE reg_priv;
};
CG_SIZE(NET_CC_PARA, 404);
CG_OFFSET(NET_CC_PARA, port, 2);
CG_OFFSET(NET_CC_PARA, cc_server, 4);
CG_OFFSET(NET_CC_PARA, auth_str, 68);
CG_OFFSET(NET_CC_PARA, reg_priv, 84);

// ----------------------------------------------------------------- time ---

struct CG_PACKED TK_SYS_TIME {
    TK_U32 tm_msec;  // milliseconds since local midnight
    TK_U8 tm_mday;
    TK_U8 tm_mon;
    TK_U16 tm_year;  // full year
};
CG_SIZE(TK_SYS_TIME, 8);
CG_OFFSET(TK_SYS_TIME, tm_mday, 4);
CG_OFFSET(TK_SYS_TIME, tm_mon, 5);
CG_OFFSET(TK_SYS_TIME, tm_year, 6);

enum TK_DATE_FORMAT { DDF_YYYYMMDD = 0, DDF_MMDDYYYY = 1, DDF_DDMMYYYY = 2 };

struct CG_PACKED DST_POINT {
    TK_U32 mouth;
    TK_U32 week_no;
    TK_U32 week_day;
    TK_U32 hour;
    TK_U32 min;
};
CG_SIZE(DST_POINT, 20);

struct CG_PACKED DST_PARA {
    TK_U8 enable;
    TK_U8 dst_bias;
    TK_U8 reserved[2];
    DST_POINT enter_time;
    DST_POINT leave_time;
};
CG_SIZE(DST_PARA, 44);
CG_OFFSET(DST_PARA, enter_time, 4);
CG_OFFSET(DST_PARA, leave_time, 24);

// -------------------------------------------------------------- network ---

struct CG_PACKED TK_IPADDR {
    char ipv4[16];  // dotted text
    char ipv6[48];
};
CG_SIZE(TK_IPADDR, 64);

struct CG_PACKED TK_ETH_PARA {
    TK_IPADDR ipaddr;
    TK_IPADDR net_mask;
    char mac_addr[20];
};
CG_SIZE(TK_ETH_PARA, 148);
CG_OFFSET(TK_ETH_PARA, net_mask, 64);
CG_OFFSET(TK_ETH_PARA, mac_addr, 128);

struct CG_PACKED NET_COMM_PARA {
    TK_U8 dhcp;
    TK_U8 reserved1[3];
    TK_ETH_PARA eths[2];
    TK_IPADDR default_gw;
    TK_IPADDR dns_server1;
    TK_IPADDR dns_server2;
    TK_IPADDR mcast_ip;
    TK_U16 tcp_port;
    TK_U16 web_port;
    TK_U32 reserved2[4];
};
CG_SIZE(NET_COMM_PARA, 576);
CG_OFFSET(NET_COMM_PARA, eths, 4);
CG_OFFSET(NET_COMM_PARA, default_gw, 300);
CG_OFFSET(NET_COMM_PARA, dns_server1, 364);
CG_OFFSET(NET_COMM_PARA, dns_server2, 428);
CG_OFFSET(NET_COMM_PARA, mcast_ip, 492);
CG_OFFSET(NET_COMM_PARA, tcp_port, 556);
CG_OFFSET(NET_COMM_PARA, web_port, 558);
CG_OFFSET(NET_COMM_PARA, reserved2, 560);

struct CG_PACKED NET_PPPOE_PARA {
    TK_U8 enable;
    TK_U8 reserved1[3];
    char user_name[32];
    char passwd[32];
    TK_IPADDR pppoe_ip;
};
CG_SIZE(NET_PPPOE_PARA, 132);
CG_OFFSET(NET_PPPOE_PARA, user_name, 4);
CG_OFFSET(NET_PPPOE_PARA, passwd, 36);
CG_OFFSET(NET_PPPOE_PARA, pppoe_ip, 68);

struct CG_PACKED NET_NTP_PARA {
    TK_U8 enable;
    TK_U8 time_zone;
    TK_U8 reserved1[2];
    char ntp_server[64];
    TK_U16 port;
    TK_U16 interval;
};
CG_SIZE(NET_NTP_PARA, 72);
CG_OFFSET(NET_NTP_PARA, time_zone, 1);
CG_OFFSET(NET_NTP_PARA, ntp_server, 4);
CG_OFFSET(NET_NTP_PARA, port, 68);
CG_OFFSET(NET_NTP_PARA, interval, 70);

struct CG_PACKED NET_EMAIL_PARA {
    TK_U8 enable;
    TK_U8 ssl_enable;
    TK_U16 smtp_port;
    char sendto[64];
    char from[64];
    char smtp_server[64];
    char user[32];
    char passwd[32];
};
CG_SIZE(NET_EMAIL_PARA, 260);
CG_OFFSET(NET_EMAIL_PARA, ssl_enable, 1);
CG_OFFSET(NET_EMAIL_PARA, smtp_port, 2);
CG_OFFSET(NET_EMAIL_PARA, sendto, 4);
CG_OFFSET(NET_EMAIL_PARA, from, 68);
CG_OFFSET(NET_EMAIL_PARA, smtp_server, 132);
CG_OFFSET(NET_EMAIL_PARA, user, 196);
CG_OFFSET(NET_EMAIL_PARA, passwd, 228);

struct CG_PACKED NET_FTP_PARA {
    char ftp_server[64];
    char user[32];
    char passwd[32];
    char path[128];
};
CG_SIZE(NET_FTP_PARA, 256);
CG_OFFSET(NET_FTP_PARA, user, 64);
CG_OFFSET(NET_FTP_PARA, passwd, 96);
CG_OFFSET(NET_FTP_PARA, path, 128);

struct CG_PACKED NET_DDNS_PARA {
    TK_U8 enable;
    TK_U8 type;
    TK_U8 reserved1[2];
    char domain[64];
    char user[32];
    char passwd[32];
};
CG_SIZE(NET_DDNS_PARA, 132);
CG_OFFSET(NET_DDNS_PARA, type, 1);
CG_OFFSET(NET_DDNS_PARA, domain, 4);
CG_OFFSET(NET_DDNS_PARA, user, 68);
CG_OFFSET(NET_DDNS_PARA, passwd, 100);

// Body of the UDP search reply (cmd 0x10002).
struct CG_PACKED TK_SEARCH_REPLY {
    TK_DEVICE_INFO dev_info;
    NET_COMM_PARA net;
};
CG_SIZE(TK_SEARCH_REPLY, 724);
CG_OFFSET(TK_SEARCH_REPLY, net, 148);

// ------------------------------------------------------ overlay, covers ---

struct CG_PACKED VIDEO_CH_OSD {
    TK_U8 enable;
    TK_U8 reserved1;
    TK_U16 x;  // 0..8192
    TK_U16 y;  // 0..8192
    TK_U8 reserved2[2];
};
CG_SIZE(VIDEO_CH_OSD, 8);
CG_OFFSET(VIDEO_CH_OSD, x, 2);
CG_OFFSET(VIDEO_CH_OSD, y, 4);

struct CG_PACKED VIDEO_COVER_ATTR {
    TK_U32 enable;
    TK_U32 color;
    TK_U16 left;
    TK_U16 top;
    TK_U16 right;
    TK_U16 bottom;
};
CG_SIZE(VIDEO_COVER_ATTR, 16);
CG_OFFSET(VIDEO_COVER_ATTR, left, 8);
CG_OFFSET(VIDEO_COVER_ATTR, bottom, 14);

struct CG_PACKED VIDEO_CHN_PARA {
    TK_U8 osd_count;
    TK_U8 cover_count;
    TK_U8 reserved1[2];
    char name[48];  // GB2312
    VIDEO_CH_OSD time;
    VIDEO_CH_OSD ch_name;
    VIDEO_CH_OSD enc_info;
    VIDEO_CH_OSD ptz_info;
    VIDEO_COVER_ATTR cover[4];
};
CG_SIZE(VIDEO_CHN_PARA, 148);
CG_OFFSET(VIDEO_CHN_PARA, name, 4);
CG_OFFSET(VIDEO_CHN_PARA, time, 52);
CG_OFFSET(VIDEO_CHN_PARA, ch_name, 60);
CG_OFFSET(VIDEO_CHN_PARA, enc_info, 68);
CG_OFFSET(VIDEO_CHN_PARA, ptz_info, 76);
CG_OFFSET(VIDEO_CHN_PARA, cover, 84);

// ------------------------------------------------------------------ PTZ ---

enum TK_PTZ_CTRL {
    PTZ_CTRL_UP = 0,
    PTZ_CTRL_DOWN = 1,
    PTZ_CTRL_LEFT = 2,
    PTZ_CTRL_RIGHT = 3,
    PTZ_CTRL_LEFT_UP = 4,
    PTZ_CTRL_LEFT_DOWN = 5,
    PTZ_CTRL_RIGHT_UP = 6,
    PTZ_CTRL_RIGHT_DOWN = 7,
    PTZ_CTRL_ZOOM_TELE = 8,
    PTZ_CTRL_ZOOM_WIDE = 9,
    PTZ_CTRL_FOCUS_FAR = 10,
    PTZ_CTRL_FOCUS_NEAR = 11,
    PTZ_CTRL_IRIS_OPEN = 12,
    PTZ_CTRL_IRIS_CLOSE = 13,
    PTZ_CTRL_AUTOPAN = 14,
    PTZ_CTRL_CALL_PRESET = 15,
    PTZ_CTRL_SAVE_PRESET = 16,
    PTZ_CTRL_AUX = 17,
    PTZ_CTRL_LIGHT = 18,
    PTZ_CTRL_WIPER = 19,
    PTZ_ADD_PRESET_TO_CRUISE = 20,
    PTZ_DEL_PRESET_FRM_CRUISE = 21,
    PTZ_CTRL_DEL_CRUISE = 22,
    PTZ_CTRL_CRUISE = 23,
    PTZ_CTRL_PAN_START = 24,
    PTZ_CTRL_PAN_STOP = 25,
    PTZ_CTRL_PAN_RUN = 26,
    PTZ_CTRL_NR = 27,
};

struct CG_PACKED PTZ_CMD_PACKAGE {
    TK_U32 channel;
    TK_U32 ptz_cmd;  // TK_PTZ_CTRL
    TK_U32 param1;
    TK_U32 param2;   // speed 0..7 where a speed is meant
    TK_U32 stop;
};
CG_SIZE(PTZ_CMD_PACKAGE, 20);
CG_OFFSET(PTZ_CMD_PACKAGE, ptz_cmd, 4);
CG_OFFSET(PTZ_CMD_PACKAGE, param1, 8);
CG_OFFSET(PTZ_CMD_PACKAGE, param2, 12);
CG_OFFSET(PTZ_CMD_PACKAGE, stop, 16);

enum TK_PTZ_PROT {
    PTZ_PROT_PELCO_P = 0,
    PTZ_PROT_PELCO_D = 1,
    PTZ_PROT_SAMSUNG = 2,
    PTZ_PROT_SONY = 3,
    PTZ_PROT_PANASONIC = 4,
};

enum TK_BAUD_RATE {
    BAUD_RATE_1200 = 0,
    BAUD_RATE_2400 = 1,
    BAUD_RATE_4800 = 2,
    BAUD_RATE_9600 = 3,
    BAUD_RATE_19200 = 4,
    BAUD_RATE_38400 = 5,
    BAUD_RATE_57600 = 6,
    BAUD_RATE_115200 = 7,
    BAUD_RATE_230400 = 8,
    BAUD_RATE_460800 = 9,
    BAUD_RATE_921600 = 10,
};

enum TK_SERIAL_DATA_BITS { SERIAL_DATA_BITS_5 = 0, SERIAL_DATA_BITS_6 = 1, SERIAL_DATA_BITS_7 = 2, SERIAL_DATA_BITS_8 = 3 };

struct CG_PACKED SERIAL_ATTR {
    TK_U32 baudrate;  // TK_BAUD_RATE
    TK_U8 databits;
    TK_U8 parity;
    TK_U8 stopbits;
    TK_U8 flowctrl;
};
CG_SIZE(SERIAL_ATTR, 8);

struct CG_PACKED PTZ_PARA {
    TK_U32 prot_mask;
    TK_U8 decoder_addr;
    TK_U8 protocol;  // TK_PTZ_PROT
    TK_U8 reserved1[2];
    SERIAL_ATTR serail_attr;
};
CG_SIZE(PTZ_PARA, 16);
CG_OFFSET(PTZ_PARA, decoder_addr, 4);
CG_OFFSET(PTZ_PARA, protocol, 5);
CG_OFFSET(PTZ_PARA, serail_attr, 8);

// ---------------------------------------------------------------- users ---

struct CG_PACKED USER_INFO {
    TK_U32 usr_id;
    char name[16];
    char passwd[16];
    USER_PRIVILEGE privilege;
};
CG_SIZE(USER_INFO, 356);
CG_OFFSET(USER_INFO, name, 4);
CG_OFFSET(USER_INFO, passwd, 20);
CG_OFFSET(USER_INFO, privilege, 36);

// ---------------------------------------------------- recording, storage ---

constexpr TK_U32 REC_TYPE_TIMER_MASK = 8;  // bit REC_TYPE_TIMER (3)

struct CG_PACKED REC_SEGMENT {
    TK_U32 start_time;
    TK_U32 end_time;
    TK_U32 type_mask;
};
CG_SIZE(REC_SEGMENT, 12);

struct CG_PACKED REC_DAY_SCHE {
    REC_SEGMENT segment[4];
};
CG_SIZE(REC_DAY_SCHE, 48);

struct CG_PACKED REC_SCHE_PARA {
    REC_DAY_SCHE week_day[7];
};
CG_SIZE(REC_SCHE_PARA, 336);

// Disk status (DISK_INFO.status).
enum TK_DISK_STATUS { DISK_STATUS_NORMAL = 0, DISK_STATUS_UNFORMATTED = 1, DISK_STATUS_NO_DISK = 2 };

struct CG_PACKED DISK_FIXED_INFO {
    char dev_path[32];    // mount point of the card
    uint64_t total_size;  // capacity in bytes
    TK_U8 reserved[16];
};
CG_SIZE(DISK_FIXED_INFO, 56);
CG_OFFSET(DISK_FIXED_INFO, total_size, 32);

struct CG_PACKED DISK_INFO {
    TK_U32 status;  // TK_DISK_STATUS
    TK_U8 reserved1[4];
    TK_SYS_TIME start_time;  // first recording held (zero: not known)
    TK_SYS_TIME end_time;    // last recording held (zero: not known)
    uint64_t used;           // bytes in use
    DISK_FIXED_INFO fixed_info;
};
CG_SIZE(DISK_INFO, 88);
CG_OFFSET(DISK_INFO, start_time, 8);
CG_OFFSET(DISK_INFO, end_time, 16);
CG_OFFSET(DISK_INFO, used, 24);
CG_OFFSET(DISK_INFO, fixed_info, 32);

// Latched alarm flags, one byte a channel or input (1 = event seen).
struct CG_PACKED EVENT_STATE {
    TK_U8 motion_mask[64];
    TK_U8 blind_mask[64];
    TK_U8 loss_mask[64];
    TK_U8 alarmin_mask[64];
    TK_U8 diskerror_mask[32];
    TK_U8 cable_broken[2];
    TK_U8 ip_conflict[2];
    TK_U8 no_disk;
    TK_U8 disk_full;
    TK_U8 reserved[2];
};
CG_SIZE(EVENT_STATE, 296);
CG_OFFSET(EVENT_STATE, blind_mask, 64);
CG_OFFSET(EVENT_STATE, loss_mask, 128);
CG_OFFSET(EVENT_STATE, alarmin_mask, 192);
CG_OFFSET(EVENT_STATE, diskerror_mask, 256);
CG_OFFSET(EVENT_STATE, cable_broken, 288);
CG_OFFSET(EVENT_STATE, ip_conflict, 290);
CG_OFFSET(EVENT_STATE, no_disk, 292);
CG_OFFSET(EVENT_STATE, disk_full, 293);

// -------------------------------------------------------- media framing ---

enum TK_FRAME_TYPE : TK_U8 {
    TK_FRAME_OTHER = 0x00,
    TK_FRAME_VIDEO_I = 0xF8,
    TK_FRAME_VIDEO_P = 0xF9,
    TK_FRAME_AUDIO = 0xFA,
};

struct CG_PACKED FRAME_HDR {
    TK_U8 sync_code[3];  // 00 00 01
    TK_U8 type;          // TK_FRAME_TYPE
};
CG_SIZE(FRAME_HDR, 4);

struct CG_PACKED IFRAME_INFO {
    TK_U8 enc_std;    // 0
    TK_U8 framerate;  // low 8 bits of the stream's rate
    TK_U16 pts_msec;  // timestamp x 1000, low 16 bits
    TK_U16 pic_width;
    TK_U16 pic_height;
    TK_SYS_TIME rtc_time;  // wall clock when sent
    TK_U32 length;
};
CG_SIZE(IFRAME_INFO, 20);
CG_OFFSET(IFRAME_INFO, pts_msec, 2);
CG_OFFSET(IFRAME_INFO, pic_width, 4);
CG_OFFSET(IFRAME_INFO, pic_height, 6);
CG_OFFSET(IFRAME_INFO, rtc_time, 8);
CG_OFFSET(IFRAME_INFO, length, 16);

struct CG_PACKED PFRAME_INFO {
    TK_U16 pts_msec;
    TK_U16 reserved;
    TK_U32 length;
};
CG_SIZE(PFRAME_INFO, 8);
CG_OFFSET(PFRAME_INFO, length, 4);

struct CG_PACKED AFRAME_INFO {
    TK_U8 enc_type;     // 1: G.711 mu-law
    TK_U8 sample_rate;  // 0: 8000 Hz
    TK_U8 bit_width;    // 1: 16-bit
    TK_U8 sound_mode;   // 0: mono
    TK_U32 length;
};
CG_SIZE(AFRAME_INFO, 8);
CG_OFFSET(AFRAME_INFO, length, 4);

// ------------------------------------------------------------- previews ---

enum TK_PROTOCOL_TYPE {
    PROTOCOL_TYPE_TCP = 0,
    PROTOCOL_TYPE_UDP = 1,
    PROTOCOL_TYPE_MULTICAST = 2,
    PROTOCOL_TYPE_RTSP = 3,
};

struct CG_PACKED NEW_PP_PERVIEW_REQ {
    TK_U32 auth_id;
    TK_U32 protocol;  // TK_PROTOCOL_TYPE
    TK_U32 channel;
    TK_U32 stream_index;
};
CG_SIZE(NEW_PP_PERVIEW_REQ, 16);
CG_OFFSET(NEW_PP_PERVIEW_REQ, protocol, 4);
CG_OFFSET(NEW_PP_PERVIEW_REQ, channel, 8);
CG_OFFSET(NEW_PP_PERVIEW_REQ, stream_index, 12);

struct CG_PACKED NEW_ACTIVE_PERVIEW_REQ {
    char ipaddr[48];  // dotted text; empty = the control peer's address
    TK_U32 port;
    TK_U32 channel;
    TK_U32 stream_index;
};
CG_SIZE(NEW_ACTIVE_PERVIEW_REQ, 60);
CG_OFFSET(NEW_ACTIVE_PERVIEW_REQ, port, 48);
CG_OFFSET(NEW_ACTIVE_PERVIEW_REQ, channel, 52);
CG_OFFSET(NEW_ACTIVE_PERVIEW_REQ, stream_index, 56);

struct CG_PACKED NEW_ACTIVE_PACKAGE {
    NEW_ACTIVE_PERVIEW_REQ req;
    TK_S32 auth_id;
};
CG_SIZE(NEW_ACTIVE_PACKAGE, 64);

struct CG_PACKED NEW_ACTIVE_TALK_REQ {
    char ipaddr[48];
    TK_U32 port;
};
CG_SIZE(NEW_ACTIVE_TALK_REQ, 52);

struct CG_PACKED NEW_ACTIVE_TALK_PACKAGE {
    NEW_ACTIVE_TALK_REQ req;
    TK_S32 auth_id;
};
CG_SIZE(NEW_ACTIVE_TALK_PACKAGE, 56);

// One datagram of a UDP preview stream (cmd 0x40004): header, chunk index, data.
constexpr int TK_UDP_CHUNK_SIZE = 1024;
struct CG_PACKED TK_UDP_CHUNK_HDR {
    NEW_PACKET_HEADER head;  // cmd 0x40004, len = chunk size + 4
    TK_U32 chunk_index;      // 0 at the start of each frame
};
CG_SIZE(TK_UDP_CHUNK_HDR, 16);

// ------------------------------------------------------------- sessions ---
// The public records of the session registry, also the items of the session
// listings sent to clients. Addresses and ports are in host order.

enum TK_LOGIN_MODE { LOGIN_MODE_LOGIN = 0, LOGIN_MODE_REGISTER = 1 };

struct CG_PACKED CTRL_SESSION {
    TK_S32 auth_id;
    TK_S32 login_mode;  // TK_LOGIN_MODE
    TK_S32 sockfd;
    TK_U32 remote_addr;
    TK_U32 remote_port;
    char user_name[16];
};
CG_SIZE(CTRL_SESSION, 36);
CG_OFFSET(CTRL_SESSION, login_mode, 4);
CG_OFFSET(CTRL_SESSION, sockfd, 8);
CG_OFFSET(CTRL_SESSION, remote_addr, 12);
CG_OFFSET(CTRL_SESSION, remote_port, 16);
CG_OFFSET(CTRL_SESSION, user_name, 20);

struct CG_PACKED PREVIEW_SESSION {
    TK_S32 auth_id;
    TK_S32 login_mode;
    TK_S32 sockfd;
    TK_S32 channel;
    TK_S32 stream_index;
    TK_S32 protocol;  // TK_PROTOCOL_TYPE
    TK_U32 addr;
    TK_U32 port;
    char user_name[16];
};
CG_SIZE(PREVIEW_SESSION, 48);
CG_OFFSET(PREVIEW_SESSION, channel, 12);
CG_OFFSET(PREVIEW_SESSION, stream_index, 16);
CG_OFFSET(PREVIEW_SESSION, protocol, 20);
CG_OFFSET(PREVIEW_SESSION, addr, 24);
CG_OFFSET(PREVIEW_SESSION, port, 28);
CG_OFFSET(PREVIEW_SESSION, user_name, 32);

struct CG_PACKED PLAY_SESSION {
    TK_S32 auth_id;
    TK_S32 login_mode;
    TK_S32 sockfd;
    TK_U32 remote_addr;
    TK_U32 remote_port;
    char user_name[16];
};
CG_SIZE(PLAY_SESSION, 36);
CG_OFFSET(PLAY_SESSION, remote_addr, 12);
CG_OFFSET(PLAY_SESSION, user_name, 20);

using TALK_SESSION = PLAY_SESSION;

struct CG_PACKED UPGRADE_SESSION {
    TK_S32 auth_id;
    TK_S32 login_mode;
    TK_S32 sockfd;
    TK_S32 progress;
    TK_U32 remote_addr;
    TK_U32 remote_port;
    char user_name[16];
};
CG_SIZE(UPGRADE_SESSION, 40);
CG_OFFSET(UPGRADE_SESSION, progress, 12);
CG_OFFSET(UPGRADE_SESSION, remote_addr, 16);
CG_OFFSET(UPGRADE_SESSION, user_name, 24);

struct CG_PACKED UPLOAD_SESSION {
    TK_S32 auth_id;
    TK_S32 login_mode;
    TK_S32 sockfd;
    TK_S32 alarm_type;
    TK_U32 remote_addr;
    TK_U32 remote_port;
    char user_name[16];
};
CG_SIZE(UPLOAD_SESSION, 40);
CG_OFFSET(UPLOAD_SESSION, alarm_type, 12);
CG_OFFSET(UPLOAD_SESSION, remote_addr, 16);
CG_OFFSET(UPLOAD_SESSION, user_name, 24);

// ------------------------------------------- control command payloads ---
// Records of the control commands that the sections above do not define.

// Eight bytes ahead of the record in the payload of 0x30051 (schedule),
// 0x30071 (video detection), 0x30081 (alarm output) and 0x300A4 (PTZ serial
// settings). The camera ignores them; clients send zeros.
struct CG_PACKED TK_SET_PREFIX {
    TK_U32 channel;
    TK_U32 reserved;
};
CG_SIZE(TK_SET_PREFIX, 8);

// Payload of 0x30094, changing a password: three 16-byte strings.
struct CG_PACKED TK_CHANGE_PASSWD_REQ {
    char name[16];
    char old_passwd[16];
    char new_passwd[16];
};
CG_SIZE(TK_CHANGE_PASSWD_REQ, 48);
CG_OFFSET(TK_CHANGE_PASSWD_REQ, old_passwd, 16);
CG_OFFSET(TK_CHANGE_PASSWD_REQ, new_passwd, 32);

// Codec of a video stream (VIDEO_ENC_PARA.codec); the values of the frame cache's media types.
enum TK_VIDEO_CODEC {
    VIDEO_CODEC_MJPEG = 0,
    VIDEO_CODEC_MPEG4 = 3,
    VIDEO_CODEC_H264 = 4,
    VIDEO_CODEC_UNKNOWN = 6,  // the encoder has not published the stream's parameters yet
};

// One video stream's encoding (0x30040 answers one per stream, count-prefixed).
struct CG_PACKED VIDEO_ENC_PARA {
    TK_U32 channel;       // 0
    TK_U32 stream_index;  // 0 main stream, 1 sub stream, ...
    TK_U32 codec;         // TK_VIDEO_CODEC
    TK_U16 width;         // pixels
    TK_U16 height;        // pixels
    TK_U32 frame_rate;    // frames a second
    TK_U32 bit_rate;      // kilobits a second
    TK_U8 reserved[92];
};
CG_SIZE(VIDEO_ENC_PARA, 116);
CG_OFFSET(VIDEO_ENC_PARA, stream_index, 4);
CG_OFFSET(VIDEO_ENC_PARA, codec, 8);
CG_OFFSET(VIDEO_ENC_PARA, width, 12);
CG_OFFSET(VIDEO_ENC_PARA, height, 14);
CG_OFFSET(VIDEO_ENC_PARA, frame_rate, 16);
CG_OFFSET(VIDEO_ENC_PARA, bit_rate, 20);
CG_OFFSET(VIDEO_ENC_PARA, reserved, 24);

// Regions of interest of the encoder (0x30043): a fixed record, no region set.
struct CG_PACKED ENC_ROI_PARA {
    TK_U32 max_regions;   // 4
    TK_U32 region_count;  // 0
    TK_U8 regions[3][16];
    TK_U8 reserved[12];
};
CG_SIZE(ENC_ROI_PARA, 68);
CG_OFFSET(ENC_ROI_PARA, regions, 8);
CG_OFFSET(ENC_ROI_PARA, reserved, 56);

// Sizes of the settings records whose content this camera does not keep:
// answered as zeroed records of these sizes.
constexpr int TK_CAMERA_PARA_SIZE = 228;         // 0x30033, count-prefixed
constexpr int TK_VIDEO_DETECT_PARA_SIZE = 2284;  // 0x30070, count-prefixed
constexpr int TK_ALARM_DETECT_PARA_SIZE = 740;   // 0x30073, count-prefixed, one per alarm input
constexpr int TK_EXCEPTION_PARA_SIZE = 64;       // 0x30076, no count
constexpr int TK_ALARMOUT_MODE_SIZE = 4;         // 0x30080, count-prefixed
constexpr int TK_REMOTE_INFO_SIZE = 128;         // 0x70009, no count; first byte 2

// A recording found by a search (0x50001 answers a count and these).
struct CG_PACKED REC_FILE_INFO {
    TK_U8 channel;
    TK_U8 lock;
    TK_U8 type;  // 3: a recording
    TK_U8 reserved1;
    TK_SYS_TIME start_time;
    TK_SYS_TIME end_time;
    TK_U32 file_id;
    TK_U32 size;  // bytes
};
CG_SIZE(REC_FILE_INFO, 28);
CG_OFFSET(REC_FILE_INFO, start_time, 4);
CG_OFFSET(REC_FILE_INFO, end_time, 12);
CG_OFFSET(REC_FILE_INFO, file_id, 20);
CG_OFFSET(REC_FILE_INFO, size, 24);

// A snapshot found by a search (0x50009 answers a count and these).
struct CG_PACKED JPG_FILE_INFO {
    TK_U8 channel;
    TK_U8 lock;
    TK_U8 type;  // 1: a snapshot
    TK_U8 reserved1;
    TK_SYS_TIME time;
    TK_U32 file_id;
    TK_U32 size;  // bytes
};
CG_SIZE(JPG_FILE_INFO, 20);
CG_OFFSET(JPG_FILE_INFO, time, 4);
CG_OFFSET(JPG_FILE_INFO, file_id, 12);
CG_OFFSET(JPG_FILE_INFO, size, 16);

// Payload of the searches 0x50001 and 0x50009: the time range.
struct CG_PACKED TK_SEARCH_REQ {
    TK_SYS_TIME start_time;
    TK_SYS_TIME end_time;
};
CG_SIZE(TK_SEARCH_REQ, 16);

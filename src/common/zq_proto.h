// Records and command words of the system-server channel (TCP 127.0.0.1:19436).
//
// The system server owns every setting of the camera; the daemon reads and
// writes whole records through numbered commands. A frame on the channel is
// the 10-byte head below, a 16-bit command word and the record. Records are
// packed and little-endian; the offsets asserted here are those the server
// uses. The daemon (socketclientcmd and the handlers) and the simulator
// camgate-sysd share these definitions.
#pragma once

#include <cstdint>

#include "common/wire.h"

// ------------------------------------------------------------ the frame ---

constexpr uint32_t SOCKET_DEVICE_CMD_FLAG = 0x75EC429A;  // bytes 9A 42 EC 75
constexpr int SOCKET_DEVICE_CMD_FLAG_WIDTH = 4;
constexpr int SOCKET_DEVICE_ID_WIDTH = 1;
constexpr int SOCKET_DEVICE_PARAM_WIDTH = 1;
constexpr int SOCKET_DEVICE_CMD_LEN_WIDTH = 4;
constexpr int SOCKET_CMD_LEN_WIDTH = 2;
constexpr int SOCKET_DEVICE_CMD_HEAD_WIDTH = 10;
constexpr int SOCKET_DEVICE_READ_BUF_MAX_LEN = 409600;
constexpr int SOCKET_DEVICE_WRITE_BUF_MAX_LEN = 819200;

enum socket_device_param { SOCKET_DEVICE_NOBLOCK = 0, SOCKET_DEVICE_BLOCK = 1 };

enum socket_device_table {
    SOCKET_SYSTEM_SERVER = 0,
    SOCKET_REMOTE_CLIENT = 1,
    SOCKET_RTSP = 2,
    SOCKET_AV_SERVER = 3,
    SOCKET_HTTPD = 4,
    SOCKET_RECORD = 5,
    SOCKET_THIRD_PARTY_PROTOCOL = 6,
    SOCKET_AI_SERVER = 7,
    SOCKET_SNMP = 8,
    SOCKET_TYCO_I8 = 9,
    SOCKET_P2P = 10,
    SOCKET_MAX_DEVICE = 11,
};

// State of the channel as the reader thread sees it.
enum socket_device_status {
    SOCKET_STATUS_IDEL = 0,     // not started
    SOCKET_STATUS_INIT = 1,     // connecting
    SOCKET_STATUS_CONNECT = 2,  // connected
    SOCKET_ERR = 3,             // connection lost
};

struct CG_PACKED ZQ_FRAME_HEAD {
    uint32_t flag;     // SOCKET_DEVICE_CMD_FLAG
    uint8_t device_id; // sender's client id
    uint8_t param;     // socket_device_param
    uint32_t cmd_len;  // 2 + data bytes
    uint16_t cmd;      // command word
};
CG_SIZE(ZQ_FRAME_HEAD, 12);
CG_OFFSET(ZQ_FRAME_HEAD, device_id, 4);
CG_OFFSET(ZQ_FRAME_HEAD, param, 5);
CG_OFFSET(ZQ_FRAME_HEAD, cmd_len, 6);
CG_OFFSET(ZQ_FRAME_HEAD, cmd, 10);

// -------------------------------------------------------- command words ---

enum ZQ_CMD : uint16_t {
    ZQ_GETDEVICECAP = 0,           // DeviceCapabilityReq -> DeviceCapabilityRsp
    ZQ_GETDEVICEINFO = 1,          // DeviceInfoReq -> DeviceInfoRsp
    ZQ_PUSH_SERVICE_STOP = 0x204,  // push: service stopped
    ZQ_GETVIDEOOSD = 0x205,        // VideoOsdReq -> VideoOsd
    ZQ_SETVIDEOOSD = 0x206,        // VideoOsd
    ZQ_GETCOVERAREA = 0x207,       // CoverAreaReq -> CoverArea
    ZQ_SETCOVERAREA = 0x208,       // CoverArea
    ZQ_GETAUDIO = 0x209,           // 1 zero byte -> AudioInfo
    ZQ_GETNETWORK = 0x301,         // NetworkConfigReq -> NetworkConfig
    ZQ_SETNETWORK = 0x302,         // NetworkConfig
    ZQ_GETNETWORKPROTOCOL = 0x305, // NetworkProtocolReq -> NetworkProtocol
    ZQ_SETNETWORKPROTOCOL = 0x306, // NetworkProtocol; also the push "settings changed"
    ZQ_PUSH_NETWORKPROTOCOL = 0x306,
    ZQ_HEARTBEAT = 0x311,          // notice: HEARTBEAT
    ZQ_GETTIME = 0x30C,            // DeviceTimeReq -> DeviceTime
    ZQ_SETTIME = 0x30D,            // DeviceTime
    ZQ_GETUSER = 0x30E,            // 3 zero bytes -> user list
    ZQ_SETUSER = 0x30F,            // OperatorUser
    ZQ_GETCAMERAPARAM = 0x401,     // CameraParamReq -> CameraParam (light, serial)
    ZQ_SETCAMERAPARAM = 0x402,     // CameraParam
    ZQ_PTOPERATOR = 0x404,         // PTOperator
    ZQ_GETPTZTOUR = 0x405,         // PtzTourReq -> PtzTourInfo + nodes
    ZQ_SETPTZTOUR = 0x406,         // PtzTourInfo + nodes
    ZQ_RUNPTZTOUR = 0x407,         // PtzTourReq
    ZQ_PTZZONE = 0x408,            // PtzZone
    ZQ_PTZPRESET = 0x40C,          // PtzPreset
    ZQ_CAMERAAF = 0x412,           // CameraAF
    ZQ_CAMERAZOOM = 0x413,         // CameraZoom
    ZQ_CAMERAIRIS = 0x414,         // CameraIris
    ZQ_PUSH_ALARM = 0x508,         // push: AlarmInfo
    ZQ_GETRECORDPARAM = 0x603,     // RecordParamReq -> RecordParam
    ZQ_SETRECORDPARAM = 0x604,     // RecordParam
    ZQ_GETSDCARDINFO = 0x605,      // 4-byte request -> SDCardInfo
};

// ------------------------------------------------------------- records ---

struct CG_PACKED HEARTBEAT {
    int32_t Pid;
    int32_t DataIndex;
};
CG_SIZE(HEARTBEAT, 8);

struct CG_PACKED DeviceCapabilityReq {
    uint8_t ChannelCount, SerialSupported, IoInputCount, IoOutputCount, RamSize, VoutSupported;
};
CG_SIZE(DeviceCapabilityReq, 6);

// The daemon accepts an answer of at least 4 bytes (bytes 2 and 3 are the I/O counts).
struct CG_PACKED DeviceCapabilityRsp {
    uint8_t ChannelCount;
    uint8_t SerialSupported;
    uint8_t IoInputCount;
    uint8_t IoOutputCount;
    uint32_t RamSize;
    uint8_t VoutSupported;
};
CG_SIZE(DeviceCapabilityRsp, 9);
CG_OFFSET(DeviceCapabilityRsp, IoInputCount, 2);
CG_OFFSET(DeviceCapabilityRsp, IoOutputCount, 3);

struct CG_PACKED DeviceInfoReq {
    uint8_t DeviceName, DeviceId, HardwareVersion, UbootVersion, LinuxVersion, SoftWareVersion, PtzVersion, RamInfo;
};
CG_SIZE(DeviceInfoReq, 8);

struct CG_PACKED DeviceInfoRsp {
    char DeviceName[32];
    char DeviceId[32];
    char HardwareVersion[32];
    char UbootVersion[32];
    char LinuxVersion[32];
    char SoftWareVersion[32];
    char PtzVersion[32];
    char RamInfo[1024];
};
CG_SIZE(DeviceInfoRsp, 1248);
CG_OFFSET(DeviceInfoRsp, DeviceId, 32);
CG_OFFSET(DeviceInfoRsp, SoftWareVersion, 160);
CG_OFFSET(DeviceInfoRsp, RamInfo, 224);

struct CG_PACKED DDNS_info {
    char DdnsDevName[64];
    char DdnsName[64];
    char DdnsPassword[64];
    uint16_t DdnsPort;
    uint16_t reserve;
};
CG_SIZE(DDNS_info, 196);
CG_OFFSET(DDNS_info, DdnsName, 64);
CG_OFFSET(DDNS_info, DdnsPassword, 128);
CG_OFFSET(DDNS_info, DdnsPort, 192);

// All service settings in one record. Fields the daemon does not use are
// kept as opaque byte ranges and carried back unchanged on every set.
struct CG_PACKED NetworkProtocol {
    uint8_t UpnpEnable;         // 0
    uint8_t DdnsProtocol;       // 1: 0 off, 1 slot 0, 2 slot 1
    DDNS_info Ddns_info[2];     // 2
    uint8_t opaque1[1178 - 394];
    uint8_t SnmpEnable;         // 1178: the e-mail switch
    uint8_t pad1;
    uint16_t SnmpPort;          // 1180
    uint8_t opaque2[1246 - 1182];
    char FtpAddress[64];        // 1246
    uint16_t FtpPort;           // 1310
    char FtpName[16];           // 1312
    char FtpPassword[16];       // 1328
    char FtpUploadPath[128];    // 1344
    char SmtpServerAddress[128];// 1472
    uint16_t SmtpServerPort;    // 1600
    uint8_t SmtpServerAuther;   // 1602: the SSL switch
    char SmtpName[32];          // 1603
    char SmtpPassword[32];      // 1635
    char SmtpSend[32];          // 1667
    char SmtpReceive[32];       // 1699
    uint8_t pad2[2];            // 1731
    uint8_t ThirdPartyProtocolEnable;  // 1733
    uint8_t ThirdPartyProtocolType;    // 1734: 1 = this protocol
    uint8_t pad3;
    uint16_t TclPort;           // 1736: the client port
    uint8_t opaque3[2668 - 1738];
    uint16_t RtspPort;          // 2668
    uint16_t HttpPort;          // 2670
};
CG_SIZE(NetworkProtocol, 2672);
CG_OFFSET(NetworkProtocol, DdnsProtocol, 1);
CG_OFFSET(NetworkProtocol, Ddns_info, 2);
CG_OFFSET(NetworkProtocol, SnmpEnable, 1178);
CG_OFFSET(NetworkProtocol, SnmpPort, 1180);
CG_OFFSET(NetworkProtocol, FtpAddress, 1246);
CG_OFFSET(NetworkProtocol, FtpPort, 1310);
CG_OFFSET(NetworkProtocol, FtpName, 1312);
CG_OFFSET(NetworkProtocol, FtpPassword, 1328);
CG_OFFSET(NetworkProtocol, FtpUploadPath, 1344);
CG_OFFSET(NetworkProtocol, SmtpServerAddress, 1472);
CG_OFFSET(NetworkProtocol, SmtpServerPort, 1600);
CG_OFFSET(NetworkProtocol, SmtpServerAuther, 1602);
CG_OFFSET(NetworkProtocol, SmtpName, 1603);
CG_OFFSET(NetworkProtocol, SmtpPassword, 1635);
CG_OFFSET(NetworkProtocol, SmtpSend, 1667);
CG_OFFSET(NetworkProtocol, SmtpReceive, 1699);
CG_OFFSET(NetworkProtocol, ThirdPartyProtocolEnable, 1733);
CG_OFFSET(NetworkProtocol, ThirdPartyProtocolType, 1734);
CG_OFFSET(NetworkProtocol, TclPort, 1736);
CG_OFFSET(NetworkProtocol, RtspPort, 2668);
CG_OFFSET(NetworkProtocol, HttpPort, 2670);

// One selector byte per field of NetworkProtocol, in field order.
struct CG_PACKED NetworkProtocolReq {
    uint8_t sel[54];
};
CG_SIZE(NetworkProtocolReq, 54);

// Positions in NetworkProtocolReq.sel of the fields the daemon selects. The
// platform fields the daemon never reads (SNMP address, CGI, ONVIF and the
// other platforms) take the positions in between. The server answers the
// whole record whatever is selected.
enum NetworkProtocolSel {
    NP_SEL_UPNP_ENABLE = 0,
    NP_SEL_DDNS_PROTOCOL = 1,
    NP_SEL_DDNS_INFO = 2,
    NP_SEL_SNMP_ENABLE = 18,
    NP_SEL_SNMP_PORT = 19,
    NP_SEL_FTP_ADDRESS = 21,
    NP_SEL_FTP_PORT = 22,
    NP_SEL_FTP_NAME = 23,
    NP_SEL_FTP_PASSWORD = 24,
    NP_SEL_FTP_UPLOAD_PATH = 25,
    NP_SEL_SMTP_SERVER_ADDRESS = 26,
    NP_SEL_SMTP_SERVER_PORT = 27,
    NP_SEL_SMTP_SERVER_AUTHER = 28,
    NP_SEL_SMTP_NAME = 29,
    NP_SEL_SMTP_PASSWORD = 30,
    NP_SEL_SMTP_SEND = 31,
    NP_SEL_SMTP_RECEIVE = 32,
    NP_SEL_THIRD_PARTY_PROTOCOL_ENABLE = 33,
    NP_SEL_THIRD_PARTY_PROTOCOL_TYPE = 34,
    NP_SEL_TCL_PORT = 35,
    NP_SEL_RTSP_PORT = 52,
    NP_SEL_HTTP_PORT = 53,
};

struct CG_PACKED NetworkConfig {
    uint8_t IPType;
    uint8_t pad1[3];
    uint32_t IPv4Address;  // network byte order, as inet_addr gives it
    uint32_t IPv4Mask;
    uint32_t IPv4Gateway;
    uint32_t IPv4DNS;
    uint8_t IPv6Address[16];
    uint8_t IPv6Mask[16];
    uint8_t IPv6Gateway[16];
    uint8_t IPv6DNS[16];
    uint8_t MacAddress[6];
    uint8_t pad2[2];
};
CG_SIZE(NetworkConfig, 92);
CG_OFFSET(NetworkConfig, IPv4Address, 4);
CG_OFFSET(NetworkConfig, IPv4Mask, 8);
CG_OFFSET(NetworkConfig, IPv4Gateway, 12);
CG_OFFSET(NetworkConfig, IPv4DNS, 16);
CG_OFFSET(NetworkConfig, IPv6Address, 20);
CG_OFFSET(NetworkConfig, IPv6Mask, 36);
CG_OFFSET(NetworkConfig, IPv6Gateway, 52);
CG_OFFSET(NetworkConfig, IPv6DNS, 68);
CG_OFFSET(NetworkConfig, MacAddress, 84);

struct CG_PACKED NetworkConfigReq {
    uint8_t sel[10];
};
CG_SIZE(NetworkConfigReq, 10);

struct CG_PACKED DeviceTime {
    uint8_t Seconds;
    uint8_t Minute;
    uint8_t Hours;
    uint8_t Day;
    uint8_t Month;
    uint8_t Year;  // years since 1900
    uint8_t NtpEnable;
    char NtpAddress[64];
    uint8_t TimeZoneId;
    uint8_t DaylightSaveTimeEnable;
    uint8_t StartMonth;
    uint8_t StartWeek;
    uint8_t StartDay;
    uint8_t StartHour;
    uint8_t EndMonth;
    uint8_t EndWeek;
    uint8_t EndDay;
    uint8_t EndHour;
    uint8_t pad;
    int16_t OffsetTime;
};
CG_SIZE(DeviceTime, 84);
CG_OFFSET(DeviceTime, Year, 5);
CG_OFFSET(DeviceTime, NtpEnable, 6);
CG_OFFSET(DeviceTime, NtpAddress, 7);
CG_OFFSET(DeviceTime, TimeZoneId, 71);
CG_OFFSET(DeviceTime, DaylightSaveTimeEnable, 72);
CG_OFFSET(DeviceTime, StartMonth, 73);
CG_OFFSET(DeviceTime, EndMonth, 77);
CG_OFFSET(DeviceTime, EndHour, 80);
CG_OFFSET(DeviceTime, OffsetTime, 82);

struct CG_PACKED DeviceTimeReq {
    uint8_t sel[19];
};
CG_SIZE(DeviceTimeReq, 19);

// One text item of the overlay.
struct CG_PACKED VideoOsdString {
    uint8_t Enable;
    uint8_t pad;
    uint16_t PosX;  // 0..10000
    uint16_t PosY;
    char Text[256];  // UTF-8
};
CG_SIZE(VideoOsdString, 262);

struct CG_PACKED VideoOsd {
    uint8_t ChannelID;   // 0
    uint8_t StreamId;    // 1
    uint8_t FontSize;    // 2
    uint8_t FontColor;   // 3
    uint8_t FontType;    // 4
    uint8_t TimeEnable;  // 5
    uint8_t TimeType;    // 6: date layout of the time overlay
    uint8_t pad1;
    uint16_t TimePosX;   // 8
    uint16_t TimePosY;   // 10
    uint8_t StringMainEnable;  // 12
    uint8_t pad2;
    uint16_t StringMainPosX;   // 14
    uint16_t StringMainPosY;   // 16
    char StringMain[256];      // 18, UTF-8
    VideoOsdString String[5];  // String1..String5 at 274, 536, 798, 1060, 1322
    uint8_t InfoEnable;        // 1584
    uint8_t pad3;
    uint16_t InfoPosX;         // 1586
    uint16_t InfoPosY;         // 1588
};
CG_SIZE(VideoOsd, 1590);
CG_OFFSET(VideoOsd, TimeEnable, 5);
CG_OFFSET(VideoOsd, TimeType, 6);
CG_OFFSET(VideoOsd, TimePosX, 8);
CG_OFFSET(VideoOsd, TimePosY, 10);
CG_OFFSET(VideoOsd, StringMainEnable, 12);
CG_OFFSET(VideoOsd, StringMainPosX, 14);
CG_OFFSET(VideoOsd, StringMainPosY, 16);
CG_OFFSET(VideoOsd, StringMain, 18);
CG_OFFSET(VideoOsd, String, 274);
CG_OFFSET(VideoOsd, InfoEnable, 1584);
CG_OFFSET(VideoOsd, InfoPosX, 1586);
CG_OFFSET(VideoOsd, InfoPosY, 1588);
static_assert(offsetof(VideoOsd, String) + 1 * sizeof(VideoOsdString) == 536, "String2Enable at 536");
static_assert(offsetof(VideoOsd, String) + 4 * sizeof(VideoOsdString) == 1322, "String5Enable at 1322");

struct CG_PACKED VideoOsdReq {
    uint8_t ChannelID;
    uint8_t StreamId;
    uint8_t sel[34];
};
CG_SIZE(VideoOsdReq, 36);

struct CG_PACKED RectWind {
    uint16_t left, top, right, bottom;  // 0..10000
};
CG_SIZE(RectWind, 8);

struct CG_PACKED CoverArea {
    uint8_t ChannelID;
    uint8_t CoverAreaEnable;
    uint8_t WinCount;
    uint8_t pad;
    RectWind Windows[8];
};
CG_SIZE(CoverArea, 68);
CG_OFFSET(CoverArea, WinCount, 2);
CG_OFFSET(CoverArea, Windows, 4);

struct CG_PACKED CoverAreaReq {
    uint8_t ChannelID;
    uint8_t sel[2];
};
CG_SIZE(CoverAreaReq, 3);

// Answer of ZQ_GETAUDIO.
struct CG_PACKED AudioInfo {
    uint8_t ChannelID;
    uint8_t AudioEnable;
    uint8_t EncodeType;
    uint8_t SampleRate;  // code
    uint8_t BitWidth;    // code
    uint8_t SoundMode;   // code
    uint8_t reserved[9];
};
CG_SIZE(AudioInfo, 15);
CG_OFFSET(AudioInfo, SoundMode, 5);

// Data of the alarm push 0x508.
struct CG_PACKED AlarmInfo {
    uint8_t ChannelID;
    uint8_t AlarmType;
    uint8_t AlarmValue[578];
};
CG_SIZE(AlarmInfo, 580);

// --------------------------------------------------------------- users ---

enum ZQ_USER_OP { ZQ_USER_ADD = 0, ZQ_USER_DEL = 1, ZQ_USER_MODIFY = 2 };

struct CG_PACKED OperatorUser {
    uint8_t OperatorCammand;  // ZQ_USER_OP
    char UserName[16];
    char UserPassword[16];
    uint8_t Authority;  // 0 all rights, 1 settings, 2 viewing
};
CG_SIZE(OperatorUser, 34);
CG_OFFSET(OperatorUser, UserName, 1);
CG_OFFSET(OperatorUser, UserPassword, 17);
CG_OFFSET(OperatorUser, Authority, 33);

// One entry of the user list; the list is a count byte and then the entries.
struct CG_PACKED ZQ_USER_ENTRY {
    char UserName[16];
    char UserPassword[16];
    uint8_t Authority;
};
CG_SIZE(ZQ_USER_ENTRY, 33);

// ----------------------------------------------------------------- PTZ ---

struct CG_PACKED PTOperator {
    uint8_t ChannelID;
    uint8_t PtCmd;  // 0 stop, 1 left, 2 right, 3 up, 4 down, 5 left-up, 6 right-up, 7 left-down, 8 right-down
    uint8_t Speedx;
    uint8_t Speedy;
};
CG_SIZE(PTOperator, 4);

struct CG_PACKED CameraZoom {
    uint8_t ChannelID;
    uint8_t ZoomModel;  // 0 tele, 1 wide, 2 stop
    uint16_t EngineZoomVlaue;
    uint16_t DigitZoomVlaue;
    uint16_t ZoomSpeed;
};
CG_SIZE(CameraZoom, 8);
CG_OFFSET(CameraZoom, EngineZoomVlaue, 2);
CG_OFFSET(CameraZoom, DigitZoomVlaue, 4);
CG_OFFSET(CameraZoom, ZoomSpeed, 6);

struct CG_PACKED CameraAF {
    uint8_t ChannelID;
    uint8_t AFModel;
    uint16_t AFArea;  // 0 far, 1 near
    uint16_t AFStepLen;
    uint16_t AFPos;
};
CG_SIZE(CameraAF, 8);
CG_OFFSET(CameraAF, AFArea, 2);
CG_OFFSET(CameraAF, AFStepLen, 4);
CG_OFFSET(CameraAF, AFPos, 6);

struct CG_PACKED CameraIris {
    uint8_t ChannelID;
    uint8_t IrisControl;  // 1 open, 0 close
};
CG_SIZE(CameraIris, 2);

struct CG_PACKED PtzZone {
    uint8_t ChannelID;
    uint8_t ZoneId;
    uint8_t ControlType;
    uint8_t RotatingDirection;
    uint8_t Speed;
};
CG_SIZE(PtzZone, 5);

struct CG_PACKED PtzTourReq {
    uint8_t ChannelID;
    uint8_t TourId;
};
CG_SIZE(PtzTourReq, 2);

struct CG_PACKED PTZTourPreset {
    uint8_t PresetId;
    uint8_t reseve[3];
    uint32_t delay;
};
CG_SIZE(PTZTourPreset, 8);
CG_OFFSET(PTZTourPreset, delay, 4);

// Tour header; NodeCount PTZTourPreset nodes follow it on the wire.
struct CG_PACKED PtzTourInfo {
    uint8_t ChannelID;
    uint8_t TourId;
    char TourName[20];
    uint8_t NodeCount;
};
CG_SIZE(PtzTourInfo, 23);
CG_OFFSET(PtzTourInfo, TourName, 2);
CG_OFFSET(PtzTourInfo, NodeCount, 22);

// The server's limit on the nodes of one tour.
constexpr int ZQ_PTZ_TOUR_MAX_NODES = 32;

enum ZQ_PRESET_OP { ZQ_PRESET_SAVE = 0, ZQ_PRESET_CALL = 1 };

struct CG_PACKED PtzPreset {
    uint8_t ChannelID;
    uint8_t Operation;  // ZQ_PRESET_OP
    uint8_t PresetId;
    uint8_t reserved[20];
};
CG_SIZE(PtzPreset, 23);

// Camera record behind 0x401/0x402: the PTZ serial settings and the light.
struct CG_PACKED CameraParam {
    uint8_t ChannelID;        // 0
    uint8_t PtzProtocol;      // 1: the server's protocol code
    uint8_t reserved1[2];
    uint32_t PtzBaudRate;     // 4: bits per second
    uint8_t PtzAddress;       // 8: decoder address
    uint8_t Light;            // 9: light setting
    uint8_t opaque[248 - 10];
};
CG_SIZE(CameraParam, 248);
CG_OFFSET(CameraParam, PtzProtocol, 1);
CG_OFFSET(CameraParam, PtzBaudRate, 4);
CG_OFFSET(CameraParam, PtzAddress, 8);
CG_OFFSET(CameraParam, Light, 9);

struct CG_PACKED CameraParamReq {
    uint8_t sel[47];
};
CG_SIZE(CameraParamReq, 47);

// ----------------------------------------------------------- recording ---

struct CG_PACKED RecordSegment {
    uint32_t type;
    uint32_t StartTime;
    uint32_t EndTime;
};
CG_SIZE(RecordSegment, 12);

struct CG_PACKED RecordDay {
    uint8_t SegmentCount;
    uint8_t pad[3];
    RecordSegment Segment[10];
};
CG_SIZE(RecordDay, 124);

struct CG_PACKED RecordParam {
    uint8_t ChannelID;
    uint8_t RecordTimeEnable;
    uint8_t RecordTimeLen;
    uint8_t LowSpaceMethod;  // 1 = overwrite the oldest recordings
    char PathName[32];
    RecordDay TaskDayList[7];
};
CG_SIZE(RecordParam, 904);
CG_OFFSET(RecordParam, LowSpaceMethod, 3);
CG_OFFSET(RecordParam, PathName, 4);
CG_OFFSET(RecordParam, TaskDayList, 36);

struct CG_PACKED RecordParamReq {
    uint8_t ChannelID;
    uint8_t RecordTimeEnable;
};
CG_SIZE(RecordParamReq, 2);

struct CG_PACKED SDCardInfo {
    uint8_t SdLoad;
    uint8_t SdFormat;
    uint8_t pad[2];
    uint32_t SdSize;
    uint32_t SdUseSize;
};
CG_SIZE(SDCardInfo, 12);
CG_OFFSET(SDCardInfo, SdSize, 4);
CG_OFFSET(SDCardInfo, SdUseSize, 8);

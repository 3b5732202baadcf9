#include "sysd_store.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace sysd {

namespace {

template <class T>
std::vector<uint8_t> bytes_of(const T &rec)
{
    const auto *p = reinterpret_cast<const uint8_t *>(&rec);
    return std::vector<uint8_t>(p, p + sizeof rec);
}

template <class T>
T record_as(const std::vector<uint8_t> &raw)
{
    T rec{};
    std::memcpy(&rec, raw.data(), std::min(raw.size(), sizeof rec));
    return rec;
}

uint32_t ipv4(const char *text)
{
    in_addr a{};
    inet_pton(AF_INET, text, &a);
    return a.s_addr;  // network byte order, as inet_addr gives it
}

NetworkProtocol default_protocol()
{
    NetworkProtocol p{};
    p.UpnpEnable = 1;
    p.DdnsProtocol = 0;
    wire_set_str(p.Ddns_info[0].DdnsDevName, "ipc0123456789.dyndns.example");
    wire_set_str(p.Ddns_info[0].DdnsName, "camera");
    wire_set_str(p.Ddns_info[0].DdnsPassword, "ddns-secret");
    p.Ddns_info[0].DdnsPort = 80;
    p.Ddns_info[1].DdnsPort = 80;
    p.SnmpEnable = 0;
    p.SnmpPort = 161;
    wire_set_str(p.FtpAddress, "192.168.1.10");
    p.FtpPort = 21;
    wire_set_str(p.FtpName, "ftpuser");
    wire_set_str(p.FtpPassword, "ftppass");
    wire_set_str(p.FtpUploadPath, "/ipcamera/upload");
    wire_set_str(p.SmtpServerAddress, "smtp.example.com");
    p.SmtpServerPort = 25;
    p.SmtpServerAuther = 0;
    wire_set_str(p.SmtpName, "camera");
    wire_set_str(p.SmtpPassword, "mail-secret");
    wire_set_str(p.SmtpSend, "camera@example.com");
    wire_set_str(p.SmtpReceive, "alarm@example.com");
    p.ThirdPartyProtocolEnable = 1;
    p.ThirdPartyProtocolType = 1;
    p.TclPort = 6258;
    p.RtspPort = 554;
    p.HttpPort = 80;
    return p;
}

NetworkConfig default_network()
{
    NetworkConfig n{};
    n.IPType = 0;
    n.IPv4Address = ipv4("192.168.1.88");
    n.IPv4Mask = ipv4("255.255.255.0");
    n.IPv4Gateway = ipv4("192.168.1.1");
    n.IPv4DNS = ipv4("192.168.1.1");
    const uint8_t mac[6] = {0x00, 0x12, 0x41, 0x5C, 0x88, 0x01};
    std::memcpy(n.MacAddress, mac, sizeof mac);
    return n;
}

VideoOsd default_osd()
{
    VideoOsd o{};
    o.ChannelID = 0;
    o.StreamId = 0;
    o.FontSize = 1;
    o.FontColor = 0;
    o.FontType = 0;
    o.TimeEnable = 1;
    o.TimeType = 0;
    o.TimePosX = 400;
    o.TimePosY = 400;
    o.StringMainEnable = 1;
    o.StringMainPosX = 400;
    o.StringMainPosY = 9200;
    wire_set_str(o.StringMain, "Camera 1 \xE5\x89\x8D\xE9\x97\xA8");  // "Camera 1 front door" in UTF-8
    o.String[1].PosX = 7000;                                          // the PTZ position line, off
    o.String[1].PosY = 400;
    o.InfoEnable = 0;
    o.InfoPosX = 7000;
    o.InfoPosY = 9200;
    return o;
}

DeviceCapabilityRsp default_capability()
{
    DeviceCapabilityRsp c{};
    c.ChannelCount = 1;
    c.SerialSupported = 1;
    c.IoInputCount = 2;
    c.IoOutputCount = 1;
    c.RamSize = 128;
    c.VoutSupported = 0;
    return c;
}

DeviceInfoRsp default_info()
{
    DeviceInfoRsp d{};
    wire_set_str(d.DeviceName, "IPCamera");
    wire_set_str(d.DeviceId, "IPC0123456789");
    wire_set_str(d.HardwareVersion, "H1.2");
    wire_set_str(d.UbootVersion, "U-Boot 2010.06");
    wire_set_str(d.LinuxVersion, "Linux 3.0.8");
    wire_set_str(d.SoftWareVersion, "V1.0.5 20130512");
    wire_set_str(d.PtzVersion, "P1.0");
    wire_set_str(d.RamInfo, "DDR2 128MB");
    return d;
}

CameraParam default_camera()
{
    CameraParam c{};
    c.ChannelID = 0;
    c.PtzProtocol = 1;  // Pelco-D in the server's codes
    c.PtzBaudRate = 9600;
    c.PtzAddress = 1;
    c.Light = 0;
    return c;
}

RecordParam default_recording()
{
    RecordParam r{};
    r.ChannelID = 0;
    r.RecordTimeEnable = 1;
    r.RecordTimeLen = 30;
    r.LowSpaceMethod = 1;
    wire_set_str(r.PathName, "/media/IPCamera");
    for (RecordDay &day : r.TaskDayList) {
        day.SegmentCount = 1;
        day.Segment[0].type = 0;
        day.Segment[0].StartTime = 0;
        day.Segment[0].EndTime = 86399;
    }
    return r;
}

SDCardInfo default_card()
{
    SDCardInfo s{};
    s.SdLoad = 1;
    s.SdFormat = 1;
    s.SdSize = 7580;  // MB
    s.SdUseSize = 1264;
    return s;
}

AudioInfo default_audio()
{
    AudioInfo a{};
    a.ChannelID = 0;
    a.AudioEnable = 1;
    a.EncodeType = 1;  // G.711 mu-law
    a.SampleRate = 0;  // 8000 Hz
    a.BitWidth = 1;    // 16 bit
    a.SoundMode = 0;   // mono
    return a;
}

ZQ_USER_ENTRY user(const char *name, const char *password, uint8_t authority)
{
    ZQ_USER_ENTRY u{};
    wire_set_str(u.UserName, name);
    wire_set_str(u.UserPassword, password);
    u.Authority = authority;
    return u;
}

std::vector<uint8_t> make_tour(uint8_t tour_id, const char *name, const std::vector<PTZTourPreset> &nodes)
{
    PtzTourInfo head{};
    head.ChannelID = 0;
    head.TourId = tour_id;
    wire_set_str(head.TourName, name);
    head.NodeCount = static_cast<uint8_t>(nodes.size());
    std::vector<uint8_t> out = bytes_of(head);
    for (const PTZTourPreset &n : nodes) {
        std::vector<uint8_t> b = bytes_of(n);
        out.insert(out.end(), b.begin(), b.end());
    }
    return out;
}

PTZTourPreset node(uint8_t preset, uint32_t delay)
{
    PTZTourPreset n{};
    n.PresetId = preset;
    n.delay = delay;
    return n;
}

// Tours are stored with NodeCount equal to the nodes actually present.
std::vector<uint8_t> normalise_tour(uint8_t tour_id, const std::vector<uint8_t> &wire)
{
    PtzTourInfo head = record_as<PtzTourInfo>(wire);
    size_t present = (wire.size() - sizeof head) / sizeof(PTZTourPreset);
    size_t count = std::min<size_t>({head.NodeCount, present, static_cast<size_t>(ZQ_PTZ_TOUR_MAX_NODES)});
    head.TourId = tour_id;
    head.NodeCount = static_cast<uint8_t>(count);
    std::vector<uint8_t> out = bytes_of(head);
    out.insert(out.end(), wire.begin() + sizeof head, wire.begin() + sizeof head + count * sizeof(PTZTourPreset));
    return out;
}

bool is_action(uint16_t cmd)
{
    switch (cmd) {
        case ZQ_PTOPERATOR:
        case ZQ_RUNPTZTOUR:
        case ZQ_PTZZONE:
        case ZQ_PTZPRESET:
        case ZQ_CAMERAAF:
        case ZQ_CAMERAZOOM:
        case ZQ_CAMERAIRIS:
            return true;
        default:
            return false;
    }
}

// --- state file -----------------------------------------------------------
// "CGSYSD01", payload length (u32), FNV-1a of the payload (u32), payload.
// The payload is a list of entries: kind (u8), key (u16), length (u32), bytes.
constexpr char kMagic[8] = {'C', 'G', 'S', 'Y', 'S', 'D', '0', '1'};
constexpr size_t kFileHead = sizeof kMagic + 8;
enum EntryKind : uint8_t { kRecord = 'R', kUsers = 'U', kTour = 'T', kClock = 'C', kTimeFields = 'Z' };

std::string hex_word(uint16_t v)
{
    char buf[8];
    std::snprintf(buf, sizeof buf, "0x%X", v);
    return buf;
}

uint32_t fnv1a(const std::string &s, size_t from)
{
    uint32_t h = 2166136261u;
    for (size_t i = from; i < s.size(); ++i) {
        h ^= static_cast<uint8_t>(s[i]);
        h *= 16777619u;
    }
    return h;
}

void put_u32(std::string &out, uint32_t v)
{
    out.append(reinterpret_cast<const char *>(&v), sizeof v);
}

void put_entry(std::string &out, EntryKind kind, uint16_t key, const void *data, size_t len)
{
    out.push_back(static_cast<char>(kind));
    out.append(reinterpret_cast<const char *>(&key), sizeof key);
    put_u32(out, static_cast<uint32_t>(len));
    out.append(static_cast<const char *>(data), len);
}

}  // namespace

size_t Store::record_size(uint16_t get_cmd)
{
    switch (get_cmd) {
        case ZQ_GETDEVICECAP:
            return sizeof(DeviceCapabilityRsp);
        case ZQ_GETDEVICEINFO:
            return sizeof(DeviceInfoRsp);
        case ZQ_GETVIDEOOSD:
            return sizeof(VideoOsd);
        case ZQ_GETCOVERAREA:
            return sizeof(CoverArea);
        case ZQ_GETAUDIO:
            return sizeof(AudioInfo);
        case ZQ_GETNETWORK:
            return sizeof(NetworkConfig);
        case ZQ_GETNETWORKPROTOCOL:
            return sizeof(NetworkProtocol);
        case ZQ_GETTIME:
            return sizeof(DeviceTime);
        case ZQ_GETCAMERAPARAM:
            return sizeof(CameraParam);
        case ZQ_GETRECORDPARAM:
            return sizeof(RecordParam);
        case ZQ_GETSDCARDINFO:
            return sizeof(SDCardInfo);
        default:
            return 0;
    }
}

uint16_t Store::get_of_set(uint16_t set_cmd)
{
    switch (set_cmd) {
        case ZQ_SETVIDEOOSD:
            return ZQ_GETVIDEOOSD;
        case ZQ_SETCOVERAREA:
            return ZQ_GETCOVERAREA;
        case ZQ_SETNETWORK:
            return ZQ_GETNETWORK;
        case ZQ_SETNETWORKPROTOCOL:
            return ZQ_GETNETWORKPROTOCOL;
        case ZQ_SETTIME:
            return ZQ_GETTIME;
        case ZQ_SETCAMERAPARAM:
            return ZQ_GETCAMERAPARAM;
        case ZQ_SETRECORDPARAM:
            return ZQ_GETRECORDPARAM;
        default:
            return 0;
    }
}

Store::Store()
{
    records_[ZQ_GETDEVICECAP] = bytes_of(default_capability());
    records_[ZQ_GETDEVICEINFO] = bytes_of(default_info());
    records_[ZQ_GETVIDEOOSD] = bytes_of(default_osd());
    CoverArea cover{};
    records_[ZQ_GETCOVERAREA] = bytes_of(cover);
    records_[ZQ_GETAUDIO] = bytes_of(default_audio());
    records_[ZQ_GETNETWORK] = bytes_of(default_network());
    records_[ZQ_GETNETWORKPROTOCOL] = bytes_of(default_protocol());
    records_[ZQ_GETCAMERAPARAM] = bytes_of(default_camera());
    records_[ZQ_GETRECORDPARAM] = bytes_of(default_recording());
    records_[ZQ_GETSDCARDINFO] = bytes_of(default_card());
    wire_set_str(time_fields_.NtpAddress, "pool.ntp.org");
    time_fields_.NtpEnable = 0;
    time_fields_.TimeZoneId = 31;  // GMT+08:00 in the server's zone list
    users_.push_back(user("admin", "admin", 0));
    tours_[1] = make_tour(1, "Tour 1", {node(1, 5), node(2, 5), node(3, 5)});
}

DeviceTime Store::render_time() const
{
    DeviceTime t = time_fields_;
    const time_t now = time(nullptr) + static_cast<time_t>(clock_offset_);
    struct tm tm {};
    localtime_r(&now, &tm);
    t.Seconds = static_cast<uint8_t>(tm.tm_sec);
    t.Minute = static_cast<uint8_t>(tm.tm_min);
    t.Hours = static_cast<uint8_t>(tm.tm_hour);
    t.Day = static_cast<uint8_t>(tm.tm_mday);
    t.Month = static_cast<uint8_t>(tm.tm_mon + 1);
    t.Year = static_cast<uint8_t>(tm.tm_year);
    return t;
}

void Store::apply_time(const DeviceTime &t)
{
    struct tm tm {};
    tm.tm_sec = t.Seconds;
    tm.tm_min = t.Minute;
    tm.tm_hour = t.Hours;
    tm.tm_mday = t.Day;
    tm.tm_mon = t.Month - 1;
    tm.tm_year = t.Year;
    tm.tm_isdst = -1;
    const time_t set = mktime(&tm);
    if (set != static_cast<time_t>(-1)) clock_offset_ = static_cast<int64_t>(set) - static_cast<int64_t>(time(nullptr));
    time_fields_ = t;
}

void Store::apply_user(const OperatorUser &op, std::string *note, bool *changed)
{
    char name[16];
    wire_get_str(name, sizeof name, op.UserName, sizeof op.UserName);
    auto it = std::find_if(users_.begin(), users_.end(), [&](const ZQ_USER_ENTRY &u) {
        return std::strncmp(u.UserName, name, sizeof u.UserName) == 0;
    });
    switch (op.OperatorCammand) {
        case ZQ_USER_ADD:
            if (name[0] == '\0') {
                *note = "add: empty user name";
            } else if (it != users_.end()) {
                *note = std::string("add: user ") + name + " exists";
            } else if (users_.size() >= kMaxUsers) {
                *note = "add: user list full";
            } else {
                char password[16];
                wire_get_str(password, sizeof password, op.UserPassword, sizeof op.UserPassword);
                users_.push_back(user(name, password, op.Authority));
                *changed = true;
            }
            break;
        case ZQ_USER_DEL:
            if (it == users_.end()) {
                *note = std::string("delete: no user ") + name;
            } else {
                users_.erase(it);
                *changed = true;
            }
            break;
        case ZQ_USER_MODIFY:
            if (it == users_.end()) {
                *note = std::string("modify: no user ") + name;
            } else {
                char password[16];
                wire_get_str(password, sizeof password, op.UserPassword, sizeof op.UserPassword);
                *it = user(name, password, op.Authority);
                *changed = true;
            }
            break;
        default:
            *note = "unknown user operation " + std::to_string(op.OperatorCammand);
            break;
    }
}

Store::Result Store::handle(uint16_t cmd, const uint8_t *data, size_t len)
{
    Result r;
    r.known = true;
    if (cmd == ZQ_GETUSER) {
        r.answer = record(ZQ_GETUSER);
    } else if (cmd == ZQ_SETUSER) {
        if (len != sizeof(OperatorUser)) {
            r.note = "user operation of " + std::to_string(len) + " bytes";
        } else {
            OperatorUser op{};
            std::memcpy(&op, data, sizeof op);
            apply_user(op, &r.note, &r.changed);
        }
    } else if (cmd == ZQ_GETPTZTOUR) {
        const uint8_t id = len >= sizeof(PtzTourReq) ? data[offsetof(PtzTourReq, TourId)] : 0;
        r.answer = tour(id);
    } else if (cmd == ZQ_SETPTZTOUR) {
        if (len < sizeof(PtzTourInfo)) {
            r.note = "tour of " + std::to_string(len) + " bytes";
        } else {
            std::vector<uint8_t> wire(data, data + len);
            r.changed = set_tour(data[offsetof(PtzTourInfo, TourId)], wire);
        }
    } else if (record_size(cmd) != 0) {
        r.answer = record(cmd);
    } else if (uint16_t get = get_of_set(cmd)) {
        if (set_record(get, data, len)) {
            r.changed = true;
            r.push_protocol = cmd == ZQ_SETNETWORKPROTOCOL;
        } else {
            r.note = "set of " + std::to_string(len) + " bytes, the record has " + std::to_string(record_size(get));
        }
    } else if (!is_action(cmd) && cmd != ZQ_HEARTBEAT) {
        r.known = false;
    }
    return r;
}

std::vector<uint8_t> Store::record(uint16_t get_cmd) const
{
    if (get_cmd == ZQ_GETTIME) return bytes_of(render_time());
    if (get_cmd == ZQ_GETUSER) {
        std::vector<uint8_t> out{static_cast<uint8_t>(users_.size())};
        for (const ZQ_USER_ENTRY &u : users_) {
            std::vector<uint8_t> b = bytes_of(u);
            out.insert(out.end(), b.begin(), b.end());
        }
        return out;
    }
    auto it = records_.find(get_cmd);
    return it != records_.end() ? it->second : std::vector<uint8_t>();
}

bool Store::set_record(uint16_t get_cmd, const void *data, size_t len)
{
    const size_t size = record_size(get_cmd);
    if (size == 0 || len != size || data == nullptr) return false;
    if (get_cmd == ZQ_GETTIME) {
        DeviceTime t{};
        std::memcpy(&t, data, sizeof t);
        apply_time(t);
        return true;
    }
    const auto *p = static_cast<const uint8_t *>(data);
    records_[get_cmd].assign(p, p + len);
    return true;
}

void Store::set_users(const std::vector<ZQ_USER_ENTRY> &users)
{
    users_.assign(users.begin(), users.begin() + static_cast<long>(std::min(users.size(), kMaxUsers)));
}

std::vector<uint8_t> Store::tour(uint8_t tour_id) const
{
    auto it = tours_.find(tour_id);
    if (it != tours_.end()) return it->second;
    PtzTourInfo empty{};
    empty.TourId = tour_id;
    return bytes_of(empty);
}

bool Store::set_tour(uint8_t tour_id, const std::vector<uint8_t> &tour)
{
    if (tour.size() < sizeof(PtzTourInfo)) return false;
    tours_[tour_id] = normalise_tour(tour_id, tour);
    return true;
}

std::string Store::serialize() const
{
    std::string payload;
    for (const auto &kv : records_) put_entry(payload, kRecord, kv.first, kv.second.data(), kv.second.size());
    std::vector<uint8_t> list = record(ZQ_GETUSER);
    put_entry(payload, kUsers, 0, list.data(), list.size());
    for (const auto &kv : tours_) put_entry(payload, kTour, kv.first, kv.second.data(), kv.second.size());
    put_entry(payload, kClock, 0, &clock_offset_, sizeof clock_offset_);
    put_entry(payload, kTimeFields, 0, &time_fields_, sizeof time_fields_);

    std::string out(kMagic, sizeof kMagic);
    put_u32(out, static_cast<uint32_t>(payload.size()));
    put_u32(out, 0);
    out += payload;
    const uint32_t sum = fnv1a(out, kFileHead);
    std::memcpy(&out[sizeof kMagic + 4], &sum, sizeof sum);
    return out;
}

bool Store::deserialize(const std::string &bytes, std::string *why)
{
    auto fail = [why](const std::string &reason) {
        if (why) *why = reason;
        return false;
    };
    if (bytes.size() < kFileHead || std::memcmp(bytes.data(), kMagic, sizeof kMagic) != 0)
        return fail("not a camgate-sysd state file");
    uint32_t length = 0, sum = 0;
    std::memcpy(&length, bytes.data() + sizeof kMagic, 4);
    std::memcpy(&sum, bytes.data() + sizeof kMagic + 4, 4);
    if (bytes.size() - kFileHead != length) return fail("truncated (or has trailing bytes)");
    if (fnv1a(bytes, kFileHead) != sum) return fail("checksum mismatch");

    Store next;  // starts from the defaults, so a record missing from the file keeps its default
    next.tours_.clear();
    size_t pos = kFileHead;
    while (pos < bytes.size()) {
        if (bytes.size() - pos < 7) return fail("entry head cut short");
        const auto kind = static_cast<uint8_t>(bytes[pos]);
        uint16_t key = 0;
        uint32_t len = 0;
        std::memcpy(&key, bytes.data() + pos + 1, 2);
        std::memcpy(&len, bytes.data() + pos + 3, 4);
        pos += 7;
        if (bytes.size() - pos < len) return fail("entry runs past the end");
        const auto *p = reinterpret_cast<const uint8_t *>(bytes.data() + pos);
        pos += len;
        switch (kind) {
            case kRecord:
                if (key == ZQ_GETTIME || !next.set_record(key, p, len))
                    return fail("record " + hex_word(key) + " has a wrong length");
                break;
            case kUsers: {
                if (len < 1 || len != 1 + static_cast<size_t>(p[0]) * sizeof(ZQ_USER_ENTRY) || p[0] > kMaxUsers)
                    return fail("user list has a wrong length");
                next.users_.resize(p[0]);
                if (p[0] > 0) std::memcpy(next.users_.data(), p + 1, len - 1);
                for (ZQ_USER_ENTRY &u : next.users_) {
                    u.UserName[sizeof u.UserName - 1] = '\0';
                    u.UserPassword[sizeof u.UserPassword - 1] = '\0';
                }
                break;
            }
            case kTour:
                if (key > 0xFF || !next.set_tour(static_cast<uint8_t>(key), std::vector<uint8_t>(p, p + len)))
                    return fail("tour has a wrong length");
                break;
            case kClock:
                if (len != sizeof next.clock_offset_) return fail("clock entry has a wrong length");
                std::memcpy(&next.clock_offset_, p, len);
                break;
            case kTimeFields:
                if (len != sizeof next.time_fields_) return fail("time entry has a wrong length");
                std::memcpy(&next.time_fields_, p, len);
                break;
            default:
                return fail("unknown entry kind");
        }
    }
    *this = next;
    return true;
}

}  // namespace sysd

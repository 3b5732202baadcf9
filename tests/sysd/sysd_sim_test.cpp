// The simulated settings server seen from a plain client: the records it
// keeps, its user and tour operations, its pushes, its state file and the
// behaviour knobs tests rely on.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "sysd/sysd_client.h"

namespace {

using cgtest::bytes_of;
using cgtest::SysdClient;

std::string text(const char *field, size_t n)
{
    return std::string(field, wire_str_len(field, n));
}

std::string ip(uint32_t net_order)
{
    char buf[INET_ADDRSTRLEN] = "";
    in_addr a{};
    a.s_addr = net_order;
    inet_ntop(AF_INET, &a, buf, sizeof buf);
    return buf;
}

OperatorUser user_op(uint8_t op, const char *name, const char *password, uint8_t authority)
{
    OperatorUser u{};
    u.OperatorCammand = op;
    wire_set_str(u.UserName, name);
    wire_set_str(u.UserPassword, password);
    u.Authority = authority;
    return u;
}

// The user list answered to ZQ_GETUSER, as name:password:authority words.
std::vector<std::string> user_list(SysdClient &c)
{
    std::vector<uint8_t> raw = c.request(ZQ_GETUSER, "\0\0\0", 3);
    std::vector<std::string> out;
    if (raw.empty() || raw.size() != 1 + raw[0] * sizeof(ZQ_USER_ENTRY)) return {"bad list"};
    for (size_t i = 0; i < raw[0]; ++i) {
        ZQ_USER_ENTRY e{};
        std::memcpy(&e, raw.data() + 1 + i * sizeof e, sizeof e);
        out.push_back(text(e.UserName, sizeof e.UserName) + ":" + text(e.UserPassword, sizeof e.UserPassword) + ":" +
                      std::to_string(e.Authority));
    }
    return out;
}

std::vector<uint8_t> tour_wire(uint8_t id, const char *name, std::vector<std::pair<uint8_t, uint32_t>> nodes,
                               int claimed_count = -1)
{
    PtzTourInfo head{};
    head.TourId = id;
    wire_set_str(head.TourName, name);
    head.NodeCount = static_cast<uint8_t>(claimed_count >= 0 ? claimed_count : static_cast<int>(nodes.size()));
    std::vector<uint8_t> out = bytes_of(head);
    for (auto &n : nodes) {
        PTZTourPreset p{};
        p.PresetId = n.first;
        p.delay = n.second;
        std::vector<uint8_t> b = bytes_of(p);
        out.insert(out.end(), b.begin(), b.end());
    }
    return out;
}

class Sysd : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(sim_.start()); }
    sysd::SysServerSim sim_;
};

TEST_F(Sysd, AnswersEveryGetWithTheWholeRecordOfANewCamera)
{
    SysdClient c(sim_.port());
    ASSERT_TRUE(c.ok());
    const std::pair<uint16_t, size_t> sizes[] = {
        {ZQ_GETDEVICECAP, 9},     {ZQ_GETDEVICEINFO, 1248}, {ZQ_GETVIDEOOSD, 1590},        {ZQ_GETCOVERAREA, 68},
        {ZQ_GETAUDIO, 15},        {ZQ_GETNETWORK, 92},      {ZQ_GETNETWORKPROTOCOL, 2672}, {ZQ_GETTIME, 84},
        {ZQ_GETCAMERAPARAM, 248}, {ZQ_GETRECORDPARAM, 904}, {ZQ_GETSDCARDINFO, 12},
    };
    for (auto &s : sizes) {
        sysd::Frame f;
        ASSERT_TRUE(c.send(s.first, "\0\0\0\0", 4));
        ASSERT_TRUE(c.read(&f)) << std::hex << s.first;
        EXPECT_EQ(f.cmd, s.first);
        EXPECT_EQ(f.param, SOCKET_DEVICE_BLOCK);
        EXPECT_EQ(f.device_id, SOCKET_SYSTEM_SERVER);
        EXPECT_EQ(f.data.size(), s.second) << std::hex << s.first;
    }

    auto p = c.get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
    EXPECT_EQ(p.ThirdPartyProtocolEnable, 1);
    EXPECT_EQ(p.ThirdPartyProtocolType, 1);
    EXPECT_EQ(p.TclPort, 6258);
    EXPECT_EQ(p.HttpPort, 80);
    EXPECT_EQ(p.RtspPort, 554);
    EXPECT_EQ(p.SmtpServerPort, 25);
    EXPECT_EQ(p.FtpPort, 21);
    auto n = c.get<NetworkConfig>(ZQ_GETNETWORK);
    EXPECT_EQ(ip(n.IPv4Address), "192.168.1.88");
    EXPECT_EQ(ip(n.IPv4Mask), "255.255.255.0");
    EXPECT_EQ(ip(n.IPv4Gateway), "192.168.1.1");
    EXPECT_NE(std::count(n.MacAddress, n.MacAddress + 6, 0), 6) << "a MAC is set";
    auto d = c.get<DeviceInfoRsp>(ZQ_GETDEVICEINFO);
    EXPECT_EQ(text(d.DeviceId, sizeof d.DeviceId), "IPC0123456789");
    EXPECT_EQ(text(d.SoftWareVersion, sizeof d.SoftWareVersion), "V1.0.5 20130512");
    auto cap = c.get<DeviceCapabilityRsp>(ZQ_GETDEVICECAP);
    EXPECT_EQ(cap.IoInputCount, 2);
    EXPECT_EQ(cap.IoOutputCount, 1);
    auto cam = c.get<CameraParam>(ZQ_GETCAMERAPARAM);
    EXPECT_EQ(cam.PtzBaudRate, 9600u);
    EXPECT_EQ(cam.PtzAddress, 1);
    auto osd = c.get<VideoOsd>(ZQ_GETVIDEOOSD);
    EXPECT_EQ(osd.TimeEnable, 1);
    EXPECT_LE(osd.TimePosX, 10000);
    EXPECT_LE(osd.StringMainPosY, 10000);
    EXPECT_GT(text(osd.StringMain, sizeof osd.StringMain).size(), 0u);
    auto audio = c.get<AudioInfo>(ZQ_GETAUDIO);
    EXPECT_EQ(audio.AudioEnable, 1);
    auto card = c.get<SDCardInfo>(ZQ_GETSDCARDINFO);
    EXPECT_EQ(card.SdLoad, 1);
    EXPECT_LE(card.SdUseSize, card.SdSize);
    EXPECT_EQ(user_list(c), std::vector<std::string>{"admin:admin:0"});

    // Commands it does not know are answered empty rather than left to time out.
    bool ok = false;
    EXPECT_TRUE(c.request(0x7777, "x", 1, &ok).empty());
    EXPECT_TRUE(ok);
}

TEST_F(Sysd, SetsReplaceWholeRecordsAndOnlyRequestsAreAnswered)
{
    SysdClient c(sim_.port());
    NetworkConfig n = c.get<NetworkConfig>(ZQ_GETNETWORK);
    n.IPv4Address = inet_addr("10.1.2.3");
    bool ok = false;
    EXPECT_TRUE(c.request(ZQ_SETNETWORK, &n, sizeof n, &ok).empty()) << "a blocking set gets an empty answer";
    EXPECT_TRUE(ok);
    EXPECT_EQ(c.request(ZQ_GETNETWORK), bytes_of(n));

    // A set sent as a notice changes the record without an answer; so does a heartbeat even when it asks for one.
    RecordParam r = c.get<RecordParam>(ZQ_GETRECORDPARAM);
    r.LowSpaceMethod = 0;
    ASSERT_TRUE(c.send(ZQ_SETRECORDPARAM, &r, sizeof r, SOCKET_DEVICE_NOBLOCK));
    HEARTBEAT hb{1, 0};
    ASSERT_TRUE(c.send(ZQ_HEARTBEAT, &hb, sizeof hb, SOCKET_DEVICE_BLOCK));
    sysd::Frame f;
    ASSERT_TRUE(c.send(ZQ_GETRECORDPARAM, "\0\0", 2));
    ASSERT_TRUE(c.read(&f));
    EXPECT_EQ(f.cmd, ZQ_GETRECORDPARAM) << "the first frame back answers the get";
    EXPECT_EQ(f.data, bytes_of(r));
    ASSERT_TRUE(sim_.wait_for(ZQ_HEARTBEAT, 1000, &f));
    EXPECT_EQ(f.as<HEARTBEAT>().Pid, 1);

    // A set of the wrong size is refused whole.
    std::vector<uint8_t> before = c.request(ZQ_GETVIDEOOSD);
    std::vector<uint8_t> short_osd(1000, 0x11);
    c.request(ZQ_SETVIDEOOSD, short_osd.data(), short_osd.size());
    EXPECT_EQ(c.request(ZQ_GETVIDEOOSD), before);

    // The frame log keeps what the client sent.
    ASSERT_TRUE(sim_.wait_for(ZQ_SETNETWORK, 1000, &f));
    EXPECT_EQ(f.device_id, SOCKET_THIRD_PARTY_PROTOCOL);
    EXPECT_EQ(f.data, bytes_of(n));
    EXPECT_EQ(sim_.get<NetworkConfig>(ZQ_GETNETWORK).IPv4Address, n.IPv4Address);
}

TEST_F(Sysd, ClockFollowsTheHostUntilSetThenRunsOnFromTheSetValue)
{
    SysdClient c(sim_.port());
    DeviceTime t = c.get<DeviceTime>(ZQ_GETTIME);
    const time_t now = time(nullptr);
    struct tm host {};
    localtime_r(&now, &host);
    struct tm got {};
    got.tm_sec = t.Seconds;
    got.tm_min = t.Minute;
    got.tm_hour = t.Hours;
    got.tm_mday = t.Day;
    got.tm_mon = t.Month - 1;
    got.tm_year = t.Year;
    got.tm_isdst = -1;
    EXPECT_LE(std::llabs(static_cast<long long>(mktime(&got) - now)), 2) << "the host's local time, month 1-12";

    DeviceTime set = t;
    set.Year = 112;  // 2012
    set.Month = 3;
    set.Day = 4;
    set.Hours = 5;
    set.Minute = 6;
    set.Seconds = 7;
    set.NtpEnable = 1;
    wire_set_str(set.NtpAddress, "ntp.example.org");
    set.TimeZoneId = 12;
    set.OffsetTime = -60;
    c.request(ZQ_SETTIME, &set, sizeof set);
    DeviceTime back = c.get<DeviceTime>(ZQ_GETTIME);
    EXPECT_EQ(back.Year, 112);
    EXPECT_EQ(back.Month, 3);
    EXPECT_EQ(back.Day, 4);
    EXPECT_EQ(back.Hours, 5);
    EXPECT_EQ(back.Minute, 6);
    EXPECT_LE(back.Seconds - 7, 1);
    EXPECT_EQ(text(back.NtpAddress, sizeof back.NtpAddress), "ntp.example.org");
    EXPECT_EQ(back.TimeZoneId, 12);
    EXPECT_EQ(back.OffsetTime, -60);
    EXPECT_TRUE(cgtest::wait_until([&] { return c.get<DeviceTime>(ZQ_GETTIME).Seconds >= 9; }, 4000, 100))
        << "the clock runs on";
}

TEST_F(Sysd, UserOperationsAddDeleteAndModifyByName)
{
    SysdClient c(sim_.port());
    auto op = [&c](const OperatorUser &u) { c.request(ZQ_SETUSER, &u, sizeof u); };
    op(user_op(ZQ_USER_ADD, "guard", "g1", 2));
    op(user_op(ZQ_USER_ADD, "guard", "other", 0));  // exists: ignored
    op(user_op(ZQ_USER_ADD, "", "x", 0));           // no name: ignored
    op(user_op(ZQ_USER_ADD, "installer", "i1", 1));
    EXPECT_EQ(user_list(c), (std::vector<std::string>{"admin:admin:0", "guard:g1:2", "installer:i1:1"}));

    op(user_op(ZQ_USER_MODIFY, "guard", "g2", 1));
    op(user_op(ZQ_USER_MODIFY, "nobody", "n", 0));
    op(user_op(ZQ_USER_DEL, "installer", "", 0));
    EXPECT_EQ(user_list(c), (std::vector<std::string>{"admin:admin:0", "guard:g2:1"}));

    // A password change arrives as operation 1 with the new password: the server simply applies it.
    op(user_op(ZQ_USER_DEL, "guard", "newpass", 0));
    EXPECT_EQ(user_list(c), std::vector<std::string>{"admin:admin:0"});

    // Names of 16 bytes without terminator are cut to 15; the list is bounded.
    OperatorUser longname = user_op(ZQ_USER_ADD, "x", "p", 2);
    std::memset(longname.UserName, 'L', sizeof longname.UserName);
    op(longname);
    EXPECT_EQ(user_list(c).back(), std::string(15, 'L') + ":p:2");
    for (int i = 0; i < 30; ++i) op(user_op(ZQ_USER_ADD, ("u" + std::to_string(i)).c_str(), "p", 2));
    EXPECT_EQ(user_list(c).size(), 16u);
    EXPECT_EQ(sim_.users().size(), 16u);
}

TEST_F(Sysd, ToursAreKeptPerIdWithTheirNodes)
{
    SysdClient c(sim_.port());
    PtzTourReq req{0, 1};
    std::vector<uint8_t> tour1 = c.request(ZQ_GETPTZTOUR, &req, sizeof req);
    ASSERT_GE(tour1.size(), sizeof(PtzTourInfo));
    PtzTourInfo head{};
    std::memcpy(&head, tour1.data(), sizeof head);
    EXPECT_EQ(head.TourId, 1);
    EXPECT_GT(head.NodeCount, 0);
    EXPECT_EQ(tour1.size(), sizeof head + head.NodeCount * sizeof(PTZTourPreset));

    std::vector<uint8_t> tour2 = tour_wire(2, "Gate", {{4, 10}, {7, 3}});
    c.request(ZQ_SETPTZTOUR, tour2.data(), tour2.size());
    req.TourId = 2;
    EXPECT_EQ(c.request(ZQ_GETPTZTOUR, &req, sizeof req), tour2);
    req.TourId = 1;
    EXPECT_EQ(c.request(ZQ_GETPTZTOUR, &req, sizeof req), tour1) << "other tours untouched";

    // A header alone (as a tour deletion sends it) leaves an empty tour, whatever its count says.
    std::vector<uint8_t> bare = tour_wire(2, "Gate", {}, 2);
    c.request(ZQ_SETPTZTOUR, bare.data(), bare.size());
    req.TourId = 2;
    EXPECT_EQ(c.request(ZQ_GETPTZTOUR, &req, sizeof req), tour_wire(2, "Gate", {}));

    req.TourId = 9;
    EXPECT_EQ(c.request(ZQ_GETPTZTOUR, &req, sizeof req), tour_wire(9, "", {})) << "an unknown tour is empty";
}

TEST_F(Sysd, NetworkProtocolSetIsPushedToEveryClient)
{
    SysdClient a(sim_.port()), b(sim_.port());
    ASSERT_TRUE(sim_.wait_connections(2, 2000));
    NetworkProtocol p = a.get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
    p.TclPort = 7100;
    ASSERT_TRUE(a.send(ZQ_SETNETWORKPROTOCOL, &p, sizeof p));
    sysd::Frame f;
    ASSERT_TRUE(a.read(&f));
    EXPECT_EQ(f.param, SOCKET_DEVICE_BLOCK) << "the answer first";
    ASSERT_TRUE(a.read(&f));
    EXPECT_EQ(f.param, SOCKET_DEVICE_NOBLOCK);
    EXPECT_EQ(f.cmd, ZQ_PUSH_NETWORKPROTOCOL);
    EXPECT_EQ(f.data, bytes_of(p));
    ASSERT_TRUE(b.read(&f));
    EXPECT_EQ(f.cmd, ZQ_PUSH_NETWORKPROTOCOL);
    EXPECT_EQ(f.data, bytes_of(p));

    // Other sets, and refused ones, push nothing.
    NetworkConfig n{};
    a.request(ZQ_SETNETWORK, &n, sizeof n);
    a.request(ZQ_SETNETWORKPROTOCOL, &p, 100);
    EXPECT_FALSE(b.read(&f, 300));

    // Pushes sent by hand reach everyone too.
    AlarmInfo alarm{};
    alarm.AlarmType = 4;
    ASSERT_TRUE(sim_.push(ZQ_PUSH_ALARM, &alarm, sizeof alarm));
    ASSERT_TRUE(a.read(&f));
    EXPECT_EQ(f.cmd, ZQ_PUSH_ALARM);
    ASSERT_TRUE(b.read(&f));
    EXPECT_EQ(f.as<AlarmInfo>().AlarmType, 4);
}

TEST(SysdOptions, NoPushOnSetWhenSwitchedOff)
{
    sysd::Options opt;
    opt.push_protocol_on_set = false;
    sysd::SysServerSim sim(opt);
    ASSERT_TRUE(sim.start());
    SysdClient a(sim.port());
    NetworkProtocol p = a.get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
    p.ThirdPartyProtocolEnable = 0;
    bool ok = false;
    a.request(ZQ_SETNETWORKPROTOCOL, &p, sizeof p, &ok);
    EXPECT_TRUE(ok);
    sysd::Frame f;
    EXPECT_FALSE(a.read(&f, 300));
    EXPECT_EQ(sim.get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL).ThirdPartyProtocolEnable, 0);
}

TEST(SysdState, SettingsSurviveARestartAndABrokenFileFallsBackToTheDefaults)
{
    cgtest::TempDir dir;
    sysd::Options opt;
    opt.state_file = dir.file("sysd.state");
    NetworkProtocol p{};
    std::vector<uint8_t> gate = tour_wire(3, "Gate", {{5, 8}});
    {
        sysd::SysServerSim sim(opt);
        EXPECT_EQ(sim.state_error(), "") << "no file yet is not an error";
        ASSERT_TRUE(sim.start());
        SysdClient c(sim.port());
        p = c.get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
        p.TclPort = 7200;
        p.ThirdPartyProtocolType = 2;
        c.request(ZQ_SETNETWORKPROTOCOL, &p, sizeof p);
        OperatorUser u = user_op(ZQ_USER_ADD, "guard", "g1", 2);
        c.request(ZQ_SETUSER, &u, sizeof u);
        c.request(ZQ_SETPTZTOUR, gate.data(), gate.size());
        DeviceTime t = c.get<DeviceTime>(ZQ_GETTIME);
        t.Year = 112;
        t.TimeZoneId = 5;
        c.request(ZQ_SETTIME, &t, sizeof t);
    }
    const std::string saved = cgtest::read_file(opt.state_file);
    ASSERT_FALSE(saved.empty());
    {
        sysd::SysServerSim sim(opt);
        EXPECT_EQ(sim.state_error(), "");
        EXPECT_EQ(sim.get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL).TclPort, 7200);
        EXPECT_EQ(sim.record(ZQ_GETNETWORKPROTOCOL), bytes_of(p));
        ASSERT_EQ(sim.users().size(), 2u);
        EXPECT_EQ(text(sim.users()[1].UserName, 16), "guard");
        EXPECT_EQ(sim.tour(3), gate);
        EXPECT_EQ(sim.get<DeviceTime>(ZQ_GETTIME).Year, 112) << "the clock runs on from the set value";
        EXPECT_EQ(sim.get<DeviceTime>(ZQ_GETTIME).TimeZoneId, 5);
    }

    const sysd::SysServerSim defaults;
    std::string flipped = saved;
    flipped[saved.size() / 2] = static_cast<char>(flipped[saved.size() / 2] ^ 0x40);
    const std::string broken[] = {flipped, saved.substr(0, saved.size() - 7), saved.substr(0, 10),
                                  "",      std::string(saved.size(), 'x'),    saved + "tail"};
    for (const std::string &bytes : broken) {
        SCOPED_TRACE(testing::Message() << "state file of " << bytes.size() << " bytes");
        ASSERT_TRUE(cgtest::write_file(opt.state_file, bytes));
        sysd::SysServerSim sim(opt);
        EXPECT_NE(sim.state_error(), "");
        EXPECT_EQ(sim.record(ZQ_GETNETWORKPROTOCOL), defaults.record(ZQ_GETNETWORKPROTOCOL));
        EXPECT_EQ(sim.users().size(), 1u);
    }
}

TEST_F(Sysd, DelaysSilenceCannedAnswersAndDroppedConnections)
{
    SysdClient c(sim_.port());
    sim_.set_delay(ZQ_GETNETWORK, 400);
    const int64_t t0 = cgtest::now_ms();
    ASSERT_TRUE(c.send(ZQ_GETNETWORK, nullptr, 0));
    ASSERT_TRUE(c.send(ZQ_GETAUDIO, "\0", 1));
    sysd::Frame f;
    ASSERT_TRUE(c.read(&f));
    EXPECT_EQ(f.cmd, ZQ_GETAUDIO) << "served while the delayed answer waits";
    ASSERT_TRUE(c.read(&f));
    EXPECT_EQ(f.cmd, ZQ_GETNETWORK);
    EXPECT_GE(cgtest::now_ms() - t0, 390);
    EXPECT_TRUE(sim_.wait_idle(1000));

    sim_.set_silent(ZQ_GETAUDIO, true);
    ASSERT_TRUE(c.send(ZQ_GETAUDIO, "\0", 1));
    EXPECT_FALSE(c.read(&f, 300));
    sim_.set_canned_answer(ZQ_GETTIME, {1, 2, 3});
    EXPECT_EQ(c.request(ZQ_GETTIME), (std::vector<uint8_t>{1, 2, 3}));
    sim_.reset_behaviour();
    EXPECT_EQ(c.request(ZQ_GETTIME).size(), 84u);
    EXPECT_EQ(c.request(ZQ_GETAUDIO).size(), 15u);

    // Dropped connections end on the client's side; a stop keeps store and port.
    sim_.drop_connections();
    EXPECT_EQ(sim_.connections(), 0);
    EXPECT_FALSE(c.read(&f, 1000));
    NetworkConfig n{};
    n.IPType = 1;
    sim_.put(ZQ_GETNETWORK, n);
    const int port = sim_.port();
    sim_.stop();
    EXPECT_FALSE(SysdClient(port).ok());
    ASSERT_TRUE(sim_.start());
    EXPECT_EQ(sim_.port(), port);
    SysdClient again(port);
    EXPECT_EQ(again.get<NetworkConfig>(ZQ_GETNETWORK).IPType, 1);
}

}  // namespace

// Base settings (clock, date layout, daylight saving) and the network group,
// seen from both sides: the client's replies and the records the settings
// server receives.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <string>

#include "control/control_fixture.h"
#include "support/text.h"

namespace {

using cgtest::bytes_of;
using cgtest::CtrlReply;

using Settings = cgtest::ControlConn;
using cgtest::field_text;

DeviceTime server_time()
{
    DeviceTime t{};
    t.Seconds = 5;
    t.Minute = 4;
    t.Hours = 3;
    t.Day = 2;
    t.Month = 1;
    t.Year = 112;
    t.NtpEnable = 1;
    wire_set_str(t.NtpAddress, "ntp.example.org");
    t.TimeZoneId = 17;
    t.DaylightSaveTimeEnable = 1;
    t.StartMonth = 3;
    t.StartWeek = 5;
    t.EndMonth = 10;
    t.EndHour = 2;
    t.OffsetTime = -60;
    return t;
}

}  // namespace

TEST_F(Settings, TimeIsTranslatedBothWaysKeepingTheOtherClockFields)
{
    const DeviceTime t = server_time();
    sim().set_canned_answer(ZQ_GETTIME, bytes_of(t));
    CtrlReply r = ask(TK_CMD_GET_TIME);
    ASSERT_EQ(r.result, 0);
    ASSERT_EQ(r.body.size(), sizeof(TK_SYS_TIME));  // no count
    const auto st = r.as<TK_SYS_TIME>();
    EXPECT_EQ(st.tm_msec, 1000u * (3 * 3600 + 4 * 60 + 5));
    EXPECT_EQ(st.tm_mday, 2);
    EXPECT_EQ(st.tm_mon, 1);
    EXPECT_EQ(st.tm_year, 2012);
    EXPECT_EQ(frame(ZQ_GETTIME).data, std::vector<uint8_t>(sizeof(DeviceTimeReq), 0));

    // The last millisecond of a day, and the years around the one-byte wrap.
    struct Case {
        TK_SYS_TIME in;
        uint8_t hours, minute, seconds, year;
    };
    const Case cases[] = {
        {{86399999, 29, 2, 2012}, 23, 59, 59, 112},
        {{0, 1, 1, 2155}, 0, 0, 0, 255},
        {{45296789, 31, 12, 2156}, 12, 34, 56, 0},
    };
    int n = 0;
    testing::internal::CaptureStdout();
    for (const Case &c : cases) {
        ASSERT_EQ(ask_rec(TK_CMD_SET_TIME, c.in).result, 0);
        const sysd::Frame f = frame(ZQ_SETTIME, ++n);
        ASSERT_EQ(f.data.size(), sizeof(DeviceTime));
        DeviceTime want = t;
        want.Hours = c.hours;
        want.Minute = c.minute;
        want.Seconds = c.seconds;
        want.Day = c.in.tm_mday;
        want.Month = c.in.tm_mon;
        want.Year = c.year;
        EXPECT_EQ(f.data, bytes_of(want)) << c.in.tm_year;  // NTP, zone and daylight saving as the server had them
    }
    EXPECT_EQ(ask(TK_CMD_HEARTBEAT).result, 0);  // the last entry is written before the next request is read
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(cgtest::count_lines(out, "[[]oplog] * user=tester type=21 index=0"), 3) << out;

    // A read that went through with a wrong length: answered 0, nothing set.
    sim().set_canned_answer(ZQ_GETTIME, std::vector<uint8_t>(10, 7));
    sim().clear_received();
    EXPECT_EQ(ask_rec(TK_CMD_SET_TIME, TK_SYS_TIME{1000, 1, 1, 2013}).result, 0);
    EXPECT_TRUE(sim().wait_for(ZQ_GETTIME, 2000));
    EXPECT_EQ(ask(TK_CMD_HEARTBEAT).result, 0);
    EXPECT_EQ(sim().count(ZQ_SETTIME), 0);
}

TEST_F(Settings, DateFormatTellsTwoLayoutsAndRefusesTheThirdSilently)
{
    CtrlReply r = ask(TK_CMD_GET_DATE_FORMAT);
    ASSERT_EQ(r.body.size(), 4u);
    EXPECT_EQ(r.as<uint32_t>(), TK_U32{DDF_YYYYMMDD});
    VideoOsdReq mask{};
    std::memset(&mask, 1, sizeof mask);
    mask.ChannelID = 0;
    mask.StreamId = 0;
    EXPECT_EQ(frame(ZQ_GETVIDEOOSD).data, bytes_of(mask));

    const VideoOsd before = sim().get<VideoOsd>(ZQ_GETVIDEOOSD);
    EXPECT_EQ(ask_rec(TK_CMD_SET_DATE_FORMAT, TK_U32{DDF_MMDDYYYY}).result, 0);
    VideoOsd want = before;
    want.TimeType = 2;
    EXPECT_EQ(frame(ZQ_SETVIDEOOSD).data, bytes_of(want));  // the whole record, only TimeType changed
    EXPECT_EQ(ask(TK_CMD_GET_DATE_FORMAT).as<uint32_t>(), TK_U32{DDF_MMDDYYYY});

    // Day first is not a layout of the overlay: answered 0, the record goes back unchanged.
    EXPECT_EQ(ask_rec(TK_CMD_SET_DATE_FORMAT, TK_U32{DDF_DDMMYYYY}).result, 0);
    EXPECT_EQ(frame(ZQ_SETVIDEOOSD, 2).data, bytes_of(want));
    EXPECT_EQ(ask(TK_CMD_GET_DATE_FORMAT).as<uint32_t>(), TK_U32{DDF_MMDDYYYY});

    // Only a layout above 1 reads as month first.
    want.TimeType = 1;
    sim().put(ZQ_GETVIDEOOSD, want);
    EXPECT_EQ(ask(TK_CMD_GET_DATE_FORMAT).as<uint32_t>(), TK_U32{DDF_YYYYMMDD});
    // A short overlay record: answered 0 with nothing, and a set writes nothing.
    sim().set_canned_answer(ZQ_GETVIDEOOSD, std::vector<uint8_t>(100, 0));
    r = ask(TK_CMD_GET_DATE_FORMAT);
    EXPECT_EQ(r.result, 0);
    EXPECT_TRUE(r.body.empty());
    sim().clear_received();
    EXPECT_EQ(ask_rec(TK_CMD_SET_DATE_FORMAT, TK_U32{DDF_YYYYMMDD}).result, 0);
    EXPECT_EQ(ask(TK_CMD_HEARTBEAT).result, 0);
    EXPECT_EQ(sim().count(ZQ_SETVIDEOOSD), 0);
}

TEST_F(Settings, NetworkGetReportsTheServersAddressesAndPorts)
{
    const CtrlReply r = ask(TK_CMD_GET_NETWORK_CFG);
    ASSERT_EQ(r.result, 0);
    // Only the server's addresses, the six MAC octets and the two ports; every other byte zero.
    NET_COMM_PARA want{};
    wire_set_str(want.eths[0].ipaddr.ipv4, "192.168.1.88");
    wire_set_str(want.eths[0].net_mask.ipv4, "255.255.255.0");
    wire_set_str(want.default_gw.ipv4, "192.168.1.1");
    wire_set_str(want.dns_server1.ipv4, "192.168.1.1");
    const uint8_t mac[6] = {0x00, 0x12, 0x41, 0x5C, 0x88, 0x01};
    std::memcpy(want.eths[0].mac_addr, mac, sizeof mac);
    want.tcp_port = 6258;
    want.web_port = 80;
    EXPECT_EQ(r.body, bytes_of(want));  // no count
}

TEST_F(Settings, NetworkSetStoresAddressesAndTheClientPortAndIgnoresDhcp)
{
    const NetworkConfig cfg_before = sim().get<NetworkConfig>(ZQ_GETNETWORK);
    const NetworkProtocol proto_before = sim().get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
    NET_COMM_PARA n{};
    n.dhcp = 1;
    wire_set_str(n.eths[0].ipaddr.ipv4, "10.1.2.3");
    wire_set_str(n.eths[0].net_mask.ipv4, "255.0.0.0");
    std::memset(n.eths[0].mac_addr, 0xEE, sizeof n.eths[0].mac_addr);
    wire_set_str(n.default_gw.ipv4, "10.1.2.254");
    wire_set_str(n.dns_server1.ipv4, "10.1.2.253");
    wire_set_str(n.dns_server2.ipv4, "8.8.8.8");
    wire_set_str(n.mcast_ip.ipv4, "239.1.1.1");
    n.tcp_port = 6000;
    n.web_port = 8080;
    testing::internal::CaptureStdout();
    ASSERT_EQ(ask_rec(TK_CMD_SET_NETWORK_CFG, n).result, 0);

    NetworkConfig cfg = cfg_before;
    cfg.IPv4Address = inet_addr("10.1.2.3");
    cfg.IPv4Mask = inet_addr("255.0.0.0");
    cfg.IPv4Gateway = inet_addr("10.1.2.254");
    cfg.IPv4DNS = inet_addr("10.1.2.253");
    EXPECT_EQ(frame(ZQ_SETNETWORK).data, bytes_of(cfg));  // the MAC as the server had it
    NetworkProtocol proto = proto_before;
    proto.TclPort = 6000;
    proto.HttpPort = 8080;
    EXPECT_EQ(frame(ZQ_SETNETWORKPROTOCOL).data, bytes_of(proto));
    // The addresses are written before the ports.
    EXPECT_EQ(sent({ZQ_SETNETWORK, ZQ_SETNETWORKPROTOCOL}),
              (std::vector<uint16_t>{ZQ_SETNETWORK, ZQ_SETNETWORKPROTOCOL}));

    EXPECT_EQ(ask(TK_CMD_HEARTBEAT).result, 0);  // the log entry is written before the next request is read
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(cgtest::has_line(out, "[[]oplog] * user=tester type=11 index=0")) << out;
}

TEST_F(Settings, NtpLivesInTheClockRecordWithAFixedInterval)
{
    auto ntp = ask(TK_CMD_GET_NTP_CFG).as<NET_NTP_PARA>();
    EXPECT_EQ(ntp.enable, 0);
    EXPECT_EQ(field_text(ntp.ntp_server), "pool.ntp.org");
    EXPECT_EQ(ntp.time_zone, 31);
    EXPECT_EQ(ntp.interval, 2);  // port and interval are not kept
    EXPECT_EQ(ntp.port, 0);

    NET_NTP_PARA set{};
    set.enable = 1;
    set.time_zone = 20;
    wire_set_str(set.ntp_server, "time.example.org");
    set.port = 123;
    set.interval = 60;
    ASSERT_EQ(ask_rec(TK_CMD_SET_NTP_CFG, set).result, 0);
    const auto t = frame(ZQ_SETTIME).as<DeviceTime>();
    EXPECT_EQ(t.NtpEnable, 1);
    EXPECT_EQ(field_text(t.NtpAddress), "time.example.org");
    EXPECT_EQ(t.TimeZoneId, 20);
    ntp = ask(TK_CMD_GET_NTP_CFG).as<NET_NTP_PARA>();
    EXPECT_EQ(ntp.enable, 1);
    EXPECT_EQ(ntp.time_zone, 20);
}

TEST_F(Settings, EmailSwitchIsKeptInTheSnmpFieldAndFtpStringsAreCut)
{
    NET_EMAIL_PARA e{};
    e.enable = 1;
    e.ssl_enable = 1;
    e.smtp_port = 465;
    wire_set_str(e.sendto, "ops@example.org");
    wire_set_str(e.from, "cam@example.org");
    wire_set_str(e.smtp_server, "mail.example.org");
    wire_set_str(e.user, "cam");
    wire_set_str(e.passwd, "secret");
    ASSERT_EQ(ask_rec(TK_CMD_SET_EMAIL_CFG, e).result, 0);
    auto p = frame(ZQ_SETNETWORKPROTOCOL).as<NetworkProtocol>();
    EXPECT_EQ(p.SnmpEnable, 1);
    EXPECT_EQ(p.SmtpServerAuther, 1);
    EXPECT_EQ(p.SmtpServerPort, 465);
    EXPECT_EQ(field_text(p.SmtpSend), "cam@example.org");
    EXPECT_EQ(field_text(p.SmtpReceive), "ops@example.org");
    EXPECT_EQ(field_text(p.SmtpServerAddress), "mail.example.org");
    EXPECT_EQ(field_text(p.SmtpName), "cam");
    EXPECT_EQ(field_text(p.SmtpPassword), "secret");
    EXPECT_EQ(ask(TK_CMD_GET_EMAIL_CFG).body, bytes_of(e));

    // FTP strings are cut to the server's fields.
    NET_FTP_PARA f{};
    wire_set_str(f.ftp_server, "ftp.example.org");
    wire_set_str(f.user, std::string(31, 'u').c_str());
    wire_set_str(f.passwd, "a-password-of-20-chr");
    wire_set_str(f.path, "/upload/cam1");
    ASSERT_EQ(ask_rec(TK_CMD_SET_FTP_CFG, f).result, 0);
    p = frame(ZQ_SETNETWORKPROTOCOL, 2).as<NetworkProtocol>();
    EXPECT_EQ(field_text(p.FtpName), std::string(15, 'u').c_str());
    EXPECT_EQ(field_text(p.FtpPassword), "a-password-of-2");
    EXPECT_EQ(p.FtpPort, 21);  // neither reported nor set
    const auto got = ask(TK_CMD_GET_FTP_CFG).as<NET_FTP_PARA>();
    EXPECT_EQ(field_text(got.ftp_server), "ftp.example.org");
    EXPECT_EQ(field_text(got.user), std::string(15, 'u').c_str());
    EXPECT_EQ(field_text(got.path), "/upload/cam1");
}

TEST_F(Settings, DdnsChoosesAProviderSlotAndSwitchesOffAfterStoring)
{
    EXPECT_EQ(ask(TK_CMD_GET_DDNS_CFG).body, std::vector<uint8_t>(sizeof(NET_DDNS_PARA), 0));

    const NetworkProtocol before = sim().get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
    NET_DDNS_PARA d{};
    d.enable = 0;
    d.type = 1;
    wire_set_str(d.domain, "cam.example.net");
    wire_set_str(d.user, "dyn");
    wire_set_str(d.passwd, "dynpw");
    ASSERT_EQ(ask_rec(TK_CMD_SET_DDNS_CFG, d).result, 0);
    auto p = frame(ZQ_SETNETWORKPROTOCOL).as<NetworkProtocol>();
    EXPECT_EQ(p.DdnsProtocol, 0);
    EXPECT_EQ(field_text(p.Ddns_info[1].DdnsDevName), "cam.example.net");
    EXPECT_EQ(field_text(p.Ddns_info[1].DdnsName), "dyn");
    EXPECT_EQ(field_text(p.Ddns_info[1].DdnsPassword), "dynpw");
    EXPECT_EQ(std::memcmp(&p.Ddns_info[0], &before.Ddns_info[0], sizeof(DDNS_info)), 0);
    EXPECT_EQ(ask(TK_CMD_GET_DDNS_CFG).body, std::vector<uint8_t>(sizeof(NET_DDNS_PARA), 0));

    d.enable = 1;
    ASSERT_EQ(ask_rec(TK_CMD_SET_DDNS_CFG, d).result, 0);
    EXPECT_EQ(frame(ZQ_SETNETWORKPROTOCOL, 2).as<NetworkProtocol>().DdnsProtocol, 2);
    EXPECT_EQ(ask(TK_CMD_GET_DDNS_CFG).body, bytes_of(d));
    d.type = 0;
    ASSERT_EQ(ask_rec(TK_CMD_SET_DDNS_CFG, d).result, 0);
    EXPECT_EQ(frame(ZQ_SETNETWORKPROTOCOL, 3).as<NetworkProtocol>().DdnsProtocol, 1);

    // An unknown provider and a short answer both read as switched off.
    p = sim().get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
    p.DdnsProtocol = 7;
    sim().put(ZQ_GETNETWORKPROTOCOL, p);
    EXPECT_EQ(ask(TK_CMD_GET_DDNS_CFG).body, std::vector<uint8_t>(sizeof(NET_DDNS_PARA), 0));
    sim().set_canned_answer(ZQ_GETNETWORKPROTOCOL, std::vector<uint8_t>(100, 1));
    const CtrlReply r = ask(TK_CMD_GET_DDNS_CFG);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.body, std::vector<uint8_t>(sizeof(NET_DDNS_PARA), 0));
}

TEST_F(Settings, NetworkResetWritesTheFactorySettings)
{
    DeviceTime t = server_time();
    sim().put(ZQ_GETTIME, t);
    NetworkProtocol p = sim().get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
    p.SnmpEnable = 1;
    p.DdnsProtocol = 1;
    p.TclPort = 7000;
    sim().put(ZQ_GETNETWORKPROTOCOL, p);
    ASSERT_EQ(ask(TK_CMD_RESET_NETWORK_CFG).result, 0);

    const auto cfg = sim().get<NetworkConfig>(ZQ_GETNETWORK);
    EXPECT_EQ(cfg.IPv4Address, inet_addr("192.168.2.158"));
    EXPECT_EQ(cfg.IPv4Mask, inet_addr("255.255.255.0"));
    EXPECT_EQ(cfg.IPv4Gateway, inet_addr("192.168.2.1"));
    EXPECT_EQ(cfg.IPv4DNS, inet_addr("192.168.2.1"));
    p = sim().get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
    EXPECT_EQ(p.TclPort, 6258);
    EXPECT_EQ(p.HttpPort, 80);
    EXPECT_EQ(p.SnmpEnable, 0);
    EXPECT_EQ(p.DdnsProtocol, 0);
    EXPECT_EQ(field_text(p.FtpAddress), "");
    EXPECT_EQ(field_text(p.SmtpServerAddress), "");
    t = sim().get<DeviceTime>(ZQ_GETTIME);
    EXPECT_EQ(t.NtpEnable, 0);
    EXPECT_EQ(field_text(t.NtpAddress), "");
    // NTP first, then the network, e-mail, FTP and DDNS.
    EXPECT_EQ(sent({ZQ_SETTIME, ZQ_SETNETWORK, ZQ_SETNETWORKPROTOCOL}),
              (std::vector<uint16_t>{ZQ_SETTIME, ZQ_SETNETWORK, ZQ_SETNETWORKPROTOCOL, ZQ_SETNETWORKPROTOCOL,
                                     ZQ_SETNETWORKPROTOCOL, ZQ_SETNETWORKPROTOCOL}));
}

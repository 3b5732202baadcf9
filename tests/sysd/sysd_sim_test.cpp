// The simulated settings server seen from a plain client, for what the
// daemon's tests do not show: its clock, the bounds of its user list, which
// sets it pushes, and its state file. (Its records, sets, tours and
// behaviour knobs are what every control and channel test runs against.)
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "sysd/sysd_client.h"

namespace {

using cgtest::bytes_of;
using cgtest::field_text;
using cgtest::SysdClient;

OperatorUser user_op(uint8_t op, const char *name, const char *password, uint8_t authority)
{
    OperatorUser u{};
    u.OperatorCammand = op;
    wire_set_str(u.UserName, name);
    wire_set_str(u.UserPassword, password);
    u.Authority = authority;
    return u;
}

// The simulator's users as name:password:authority words.
std::vector<std::string> users(const sysd::SysServerSim &sim)
{
    std::vector<std::string> out;
    for (const ZQ_USER_ENTRY &e : sim.users())
        out.push_back(field_text(e.UserName) + ":" + field_text(e.UserPassword) + ":" + std::to_string(e.Authority));
    return out;
}

class Sysd : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(sim_.start()); }
    sysd::SysServerSim sim_;
};

TEST_F(Sysd, ClockIsTheHostsLocalTimeWithMonthsFromOne)
{
    SysdClient c(sim_.port());
    const DeviceTime t = c.get<DeviceTime>(ZQ_GETTIME);
    const time_t now = time(nullptr);
    struct tm got {};
    got.tm_sec = t.Seconds;
    got.tm_min = t.Minute;
    got.tm_hour = t.Hours;
    got.tm_mday = t.Day;
    got.tm_mon = t.Month - 1;
    got.tm_year = t.Year;
    got.tm_isdst = -1;
    EXPECT_LE(std::llabs(static_cast<long long>(mktime(&got) - now)), 2);
}

TEST_F(Sysd, UserListIgnoresDuplicateAndEmptyNamesAndIsBounded)
{
    SysdClient c(sim_.port());
    auto op = [&c](const OperatorUser &u) { c.request(ZQ_SETUSER, &u, sizeof u); };
    op(user_op(ZQ_USER_ADD, "guard", "g1", 2));
    op(user_op(ZQ_USER_ADD, "guard", "other", 0));  // exists: ignored
    op(user_op(ZQ_USER_ADD, "", "x", 0));           // no name: ignored
    op(user_op(ZQ_USER_MODIFY, "nobody", "n", 0));  // missing: nothing
    op(user_op(ZQ_USER_DEL, "nobody", "", 0));
    EXPECT_EQ(users(sim_), (std::vector<std::string>{"admin:admin:0", "guard:g1:2"}));
    for (int i = 0; i < 30; ++i) op(user_op(ZQ_USER_ADD, ("u" + std::to_string(i)).c_str(), "p", 2));
    EXPECT_EQ(users(sim_).size(), 16u);
}

TEST_F(Sysd, OnlyAWholeNetworkProtocolSetIsPushedToEveryClient)
{
    SysdClient a(sim_.port()), b(sim_.port());
    ASSERT_TRUE(sim_.wait_connections(2, 2000));
    NetworkProtocol p = a.get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
    p.TclPort = 7100;
    ASSERT_TRUE(a.send(ZQ_SETNETWORKPROTOCOL, &p, sizeof p));
    sysd::Frame f;
    ASSERT_TRUE(a.read(&f));
    EXPECT_EQ(f.param, SOCKET_DEVICE_BLOCK) << "the answer first";
    for (SysdClient *c : {&a, &b}) {
        ASSERT_TRUE(c->read(&f));
        EXPECT_EQ(f.param, SOCKET_DEVICE_NOBLOCK);
        EXPECT_EQ(f.cmd, ZQ_PUSH_NETWORKPROTOCOL);
        EXPECT_EQ(f.data, bytes_of(p));
    }

    // Other sets push nothing; a set of the wrong size changes nothing; a
    // command it does not know is answered empty rather than left to time out.
    NetworkConfig n{};
    a.request(ZQ_SETNETWORK, &n, sizeof n);
    p.TclPort = 7200;
    a.request(ZQ_SETNETWORKPROTOCOL, &p, 100);
    EXPECT_EQ(sim_.get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL).TclPort, 7100);
    bool ok = false;
    EXPECT_TRUE(a.request(0x7777, "x", 1, &ok).empty());
    EXPECT_TRUE(ok);
    EXPECT_FALSE(b.read(&f, 300));
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
    const PtzTourInfo head{0, 3, "Gate", 1};
    const PTZTourPreset node{5, {}, 8};
    std::vector<uint8_t> gate = bytes_of(head);
    gate.resize(gate.size() + sizeof node);
    std::memcpy(gate.data() + sizeof head, &node, sizeof node);
    NetworkProtocol p{};
    {
        sysd::SysServerSim sim(opt);
        EXPECT_EQ(sim.state_error(), "") << "no file yet is not an error";
        p = sim.get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
        p.TclPort = 7200;
        p.ThirdPartyProtocolType = 2;
        sim.put(ZQ_GETNETWORKPROTOCOL, p);
        ZQ_USER_ENTRY guard{};
        wire_set_str(guard.UserName, "guard");
        sim.set_users({sim.users()[0], guard});
        sim.set_tour(3, gate);
        DeviceTime t = sim.get<DeviceTime>(ZQ_GETTIME);
        t.Year = 112;
        t.TimeZoneId = 5;
        sim.put(ZQ_GETTIME, t);
    }
    const std::string saved = cgtest::read_file(opt.state_file);
    ASSERT_FALSE(saved.empty());
    {
        sysd::SysServerSim sim(opt);
        EXPECT_EQ(sim.state_error(), "");
        EXPECT_EQ(sim.record(ZQ_GETNETWORKPROTOCOL), bytes_of(p));
        ASSERT_EQ(sim.users().size(), 2u);
        EXPECT_EQ(field_text(sim.users()[1].UserName), "guard");
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

}  // namespace

// The platform hook: the start-up read of the settings through the channel,
// and the push callback's rules (the daemon test shows the pushes arriving).
#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <vector>

#include "main/sim_fixture.h"
#include "main/tcl_hook.h"

namespace {

using cgtest::ChannelTest;

NetworkProtocol protocol(uint8_t enable, uint8_t type, uint16_t port)
{
    NetworkProtocol p{};
    p.ThirdPartyProtocolEnable = enable;
    p.ThirdPartyProtocolType = type;
    p.TclPort = port;
    return p;
}

void push(const NetworkProtocol &p)
{
    TclCB(ZQ_PUSH_NETWORKPROTOCOL, reinterpret_cast<const char *>(&p), sizeof p);
}

// Push an alarm of type, cut to len bytes.
void push_alarm(uint8_t type, size_t len = sizeof(AlarmInfo))
{
    AlarmInfo alarm{};
    alarm.AlarmType = type;
    TclCB(ZQ_PUSH_ALARM, reinterpret_cast<const char *>(&alarm), static_cast<int>(len));
}

class TclHook : public ChannelTest {
  protected:
    void SetUp() override
    {
        ChannelTest::SetUp();
        tcl_info_reset(&g_tcl_info);
    }
};

TEST_F(TclHook, StartUpReadServesOnlyEnableOneTypeOneAndDefaultsThePort)
{
    connect();
    struct Case {
        uint8_t enable, type;
        uint16_t port;
        int enable_before;
        int expect_enable;
        unsigned expect_port;
    };
    const Case cases[] = {
        {1, 1, 6258, 0, 1, 6258},                         // this protocol, switched on
        {1, 2, 7000, 0, 0, 7000},                         // another platform's protocol: not served
        {1, 2, 7000, 1, 1, 7000},                         // ... and an enable already set is left alone
        {2, 1, 7000, 0, 0, 7000},                         // an enable other than 1 does not switch it on
        {0, 1, 7000, 1, 0, 7000},                         // off whatever the type
        {0, 9, 7000, 1, 0, 7000}, {1, 1, 0, 0, 1, 6258},  // port 0 means the default
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "enable " << int(c.enable) << " type " << int(c.type) << " port " << c.port);
        sim().put(ZQ_GETNETWORKPROTOCOL, protocol(c.enable, c.type, c.port));
        g_tcl_info.tcl_enable = c.enable_before;
        g_tcl_info.tcl_port = 1;
        EXPECT_EQ(check_tcl_enable(&g_tcl_info), 0);
        EXPECT_EQ(g_tcl_info.tcl_enable, c.expect_enable);
        EXPECT_EQ(g_tcl_info.tcl_port, c.expect_port);
    }

    sysd::Frame req;
    ASSERT_TRUE(sim().wait_for(ZQ_GETNETWORKPROTOCOL, 1000, &req));
    ASSERT_EQ(req.data.size(), 54u);
    for (size_t i = 0; i < req.data.size(); ++i) {
        const bool selected = i == NP_SEL_THIRD_PARTY_PROTOCOL_ENABLE || i == NP_SEL_THIRD_PARTY_PROTOCOL_TYPE;
        EXPECT_EQ(req.data[i], selected ? 1 : 0) << "selector " << i;
    }
}

TEST_F(TclHook, StartUpReadWithoutAWholeAnswerUsesAZeroedRecord)
{
    connect();
    // A short answer carrying "on, type 1, port 7000" is not trusted in part.
    std::vector<uint8_t> short_answer(2000, 0);
    short_answer[offsetof(NetworkProtocol, ThirdPartyProtocolEnable)] = 1;
    short_answer[offsetof(NetworkProtocol, ThirdPartyProtocolType)] = 1;
    short_answer[offsetof(NetworkProtocol, TclPort)] = 0x58;
    short_answer[offsetof(NetworkProtocol, TclPort) + 1] = 0x1B;
    sim().set_canned_answer(ZQ_GETNETWORKPROTOCOL, short_answer);
    g_tcl_info.tcl_enable = 1;
    EXPECT_EQ(check_tcl_enable(&g_tcl_info), 0);
    EXPECT_EQ(g_tcl_info.tcl_enable, 0);
    EXPECT_EQ(g_tcl_info.tcl_port, 6258u);

    // No server at all: the same defaults, at once.
    socket_client_cmd_uninit();
    g_tcl_info.tcl_enable = 1;
    g_tcl_info.tcl_port = 1;
    const int64_t t0 = cgtest::now_ms();
    EXPECT_EQ(check_tcl_enable(&g_tcl_info), 0);
    EXPECT_LT(cgtest::now_ms() - t0, 1000);
    EXPECT_EQ(g_tcl_info.tcl_enable, 0);
    EXPECT_EQ(g_tcl_info.tcl_port, 6258u);
}

TEST(TclCallback, SettingsPushSetsServiceStatesByEnableAndPort)
{
    struct Case {
        const char *what;
        int enable_before;
        unsigned port_before;
        uint8_t enable, type;
        uint16_t port;
        int expect_st;  // both services
        int expect_enable;
        unsigned expect_port;
    };
    const Case cases[] = {
        {"switched on for this protocol", 0, 6258, 1, 1, 6258, con_suc, 1, 6258},
        {"switched on for another type: stored, states kept", 0, 6258, 1, 2, 6258, con_fail, 1, 6258},
        {"switched off", 1, 6258, 0, 1, 6258, con_fail, 0, 6258},
        {"port changed", 1, 6258, 1, 1, 7000, con_change_port, 1, 7000},
        {"switched off and port changed: rebuild wins", 1, 6258, 0, 1, 7000, con_change_port, 0, 7000},
        {"nothing changed", 1, 6258, 1, 1, 6258, con_fail, 1, 6258},
        {"port 0 is stored as 0", 1, 6258, 1, 1, 0, con_change_port, 1, 0},
        {"enable 2 stored as it came", 0, 6258, 2, 1, 6258, con_fail, 2, 6258},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        tcl_info_reset(&g_tcl_info);
        g_tcl_info.tcl_enable = c.enable_before;
        g_tcl_info.tcl_port = c.port_before;
        g_tcl_info.tcl_st = con_fail;
        g_tcl_info.udp_st = con_fail;
        push(protocol(c.enable, c.type, c.port));
        EXPECT_EQ(g_tcl_info.tcl_st, c.expect_st);
        EXPECT_EQ(g_tcl_info.udp_st, c.expect_st);
        EXPECT_EQ(g_tcl_info.tcl_enable, c.expect_enable);
        EXPECT_EQ(g_tcl_info.tcl_port, c.expect_port);
    }

    // A push too short for the fields read changes nothing.
    tcl_info_reset(&g_tcl_info);
    g_tcl_info.tcl_port = 6258;
    NetworkProtocol p = protocol(1, 1, 7000);
    TclCB(ZQ_PUSH_NETWORKPROTOCOL, reinterpret_cast<const char *>(&p), 1737);
    TclCB(ZQ_PUSH_NETWORKPROTOCOL, nullptr, 2672);
    EXPECT_EQ(g_tcl_info.tcl_enable, 0);
    EXPECT_EQ(g_tcl_info.tcl_port, 6258u);
    EXPECT_EQ(g_tcl_info.tcl_st, con_suc);
}

TEST(TclCallback, AlarmLatchesOneFlagByTypeAndStampsTheTime)
{
    const long in = offsetof(EVENT_STATE, alarmin_mask);
    const struct {
        uint8_t type;
        long flag;  // offset of the one byte set; -1: none
    } cases[] = {{0, in},
                 {3, in + 3},
                 {4, offsetof(EVENT_STATE, motion_mask)},
                 {9, offsetof(EVENT_STATE, blind_mask)},
                 {11, offsetof(EVENT_STATE, loss_mask)},
                 {5, -1},
                 {10, -1},
                 {255, -1}};
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "AlarmType " << int(c.type));
        tcl_info_reset(&g_tcl_info);
        const time_t before = time(nullptr);
        push_alarm(c.type);
        std::lock_guard<std::mutex> lock(g_tcl_info.event_mutex);
        EXPECT_GE(g_tcl_info.event_time, before) << "every alarm stamps the time";
        const auto *raw = reinterpret_cast<const uint8_t *>(&g_tcl_info.event_state);
        EXPECT_EQ(std::count(raw, raw + sizeof(EVENT_STATE), 1), c.flag < 0 ? 0 : 1);
        EXPECT_TRUE(c.flag < 0 || raw[c.flag] == 1);
    }

    // Flags stay latched (input 1 lands on its own byte); a null or too short alarm changes nothing.
    tcl_info_reset(&g_tcl_info);
    push_alarm(1);
    push_alarm(4);
    g_tcl_info.event_time = 1;
    TclCB(ZQ_PUSH_ALARM, nullptr, 580);
    push_alarm(4, 1);
    EXPECT_EQ(g_tcl_info.event_time, 1);
    EXPECT_EQ(g_tcl_info.event_state.alarmin_mask[1], 1);
    EXPECT_EQ(g_tcl_info.event_state.motion_mask[0], 1);
}

TEST(TclCallback, StopPushFailsBothServicesAndAudioOtherWordsAreIgnored)
{
    tcl_info_reset(&g_tcl_info);
    g_tcl_info.tcl_enable = 1;
    g_tcl_info.tcl_port = 6258;
    g_tcl_info.audio_enable = 1;
    NetworkProtocol p = protocol(0, 0, 7000);
    TclCB(ZQ_HEARTBEAT, reinterpret_cast<const char *>(&p), sizeof p);
    TclCB(ZQ_GETNETWORKPROTOCOL, reinterpret_cast<const char *>(&p), sizeof p);
    EXPECT_EQ(g_tcl_info.tcl_enable, 1);
    EXPECT_EQ(g_tcl_info.tcl_port, 6258u);
    EXPECT_EQ(g_tcl_info.tcl_st, con_suc);

    TclCB(ZQ_PUSH_SERVICE_STOP, nullptr, 0);
    EXPECT_EQ(g_tcl_info.tcl_st, con_fail);
    EXPECT_EQ(g_tcl_info.udp_st, con_fail);
    EXPECT_EQ(g_tcl_info.audio_enable, 0);
    EXPECT_EQ(g_tcl_info.tcl_enable, 1) << "the switch itself is the settings' business";
}

}  // namespace

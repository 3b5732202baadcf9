// The control loop and its dispatcher: heartbeats, logout and the limits of
// a request, rights by range, stale headers, unknown codes, the fixed
// answers, configuration resets and the reboot.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "control/control.h"
#include "control/control_fixture.h"
#include "support/text.h"

namespace {

using cgtest::CtrlReply;
using cgtest::rights_with;

class ControlDispatch : public cgtest::ControlConn {
  protected:
    // The lines the shell recorder logged since mark().
    void mark() { shell_mark_ = cgtest::control_shell_log().size(); }
    std::string shell_since_mark() { return cgtest::control_shell_log().substr(shell_mark_); }

    size_t shell_mark_ = 0;
};

struct RightCase {
    const char *what;
    std::vector<int> rights;  // operation rights granted
    int32_t cmd;
    int32_t result;  // the reply's result; 1: no reply at all
    bool ends;       // the device ends the connection after the reply
};

}  // namespace

TEST_F(ControlDispatch, HeartbeatAndLogout)
{
    CtrlReply r = ask(TK_CMD_HEARTBEAT);
    EXPECT_EQ(r.result, 0);
    EXPECT_TRUE(r.body.empty());
    testing::internal::CaptureStdout();
    EXPECT_EQ(ask(TK_CMD_LOGOUT).result, 0);
    int result = 0;
    EXPECT_TRUE(ended(&result));
    EXPECT_EQ(result, -1);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(cgtest::has_line(out, "[[]oplog] * user=tester type=6 index=0")) << out;
}

TEST_F(ControlDispatch, RequestsAreReadWholeAndBounded)
{
    // A request that comes in pieces is one request.
    NEW_PACKET_HEADER req{TK_PROTO_MAGIC, TK_CMD_HEARTBEAT, 3};
    send(client(), &req, 5, MSG_NOSIGNAL);
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    send(client(), reinterpret_cast<char *>(&req) + 5, sizeof req - 5, MSG_NOSIGNAL);
    send(client(), "abc", 3, MSG_NOSIGNAL);
    EXPECT_EQ(read_reply().result, 0);

    // A payload of exactly the work buffer is read and answered; one byte more
    // ends the connection without a reply and without reading the payload.
    EXPECT_EQ(ask(0x30000, std::vector<uint8_t>(CONTROL_BUF_SIZE, 0x5A)).result, TK_ERR_UNSUPPORTED);
    req.len = CONTROL_BUF_SIZE + 1;
    send(client(), &req, sizeof req, MSG_NOSIGNAL);
    EXPECT_TRUE(closed_cleanly());
    int result = 0;
    EXPECT_TRUE(ended(&result));
    EXPECT_EQ(result, -7);
}

TEST_F(ControlDispatch, AShortRequestOrARemovedSessionEndsTheLoop)
{
    const NEW_PACKET_HEADER req{TK_PROTO_MAGIC, TK_CMD_HEARTBEAT, 100};
    send(client(), &req, sizeof req, MSG_NOSIGNAL);
    send(client(), "short", 5, MSG_NOSIGNAL);
    shutdown(client(), SHUT_WR);
    int result = 0;
    EXPECT_TRUE(ended(&result));
    EXPECT_EQ(result, -7);

    // Ended from the registry's side: the keepalive or a removal shuts the socket down.
    open();
    ASSERT_EQ(ask(TK_CMD_HEARTBEAT).result, 0);
    netuser_remove_ctrl_session(session_id());
    EXPECT_TRUE(ended(&result));
    EXPECT_EQ(result, -7);
}

TEST_F(ControlDispatch, RightsAreCheckedByRangeAndSomeRefusalsEndTheConnection)
{
    const std::vector<RightCase> cases = {
        {"network without its right", {RIGHT_RECORD_SET}, TK_CMD_GET_NETWORK_CFG, TK_ERR_RIGHT, true},
        {"base settings without their right", {RIGHT_NETWORK_SET}, TK_CMD_GET_TIME, TK_ERR_RIGHT, true},
        {"talk without its right", {}, TK_CMD_ACTIVE_TALK, TK_ERR_RIGHT, true},
        {"upgrade without its right", {}, 0x80001, TK_ERR_RIGHT, true},
        {"upload without the detection right", {RIGHT_SYSTEM_UPGRADE}, 0x90003, TK_ERR_RIGHT, true},
        {"schedule without the recording right", {RIGHT_NETWORK_SET}, TK_CMD_GET_RECORD_SCHEDULE, TK_ERR_RIGHT, false},
        {"overwrite mode needs storage", {RIGHT_RECORD_SET}, TK_CMD_GET_OVERWRITE_MODE, TK_ERR_RIGHT, false},
        {"camera image needs recording, not channel", {RIGHT_CHANNEL_SET}, TK_CMD_GET_CAMERA_CFG, TK_ERR_RIGHT, false},
        {"camera image with the recording right", {RIGHT_RECORD_SET}, TK_CMD_GET_CAMERA_CFG, 0, false},
        {"overlay without the channel right", {RIGHT_RECORD_SET}, TK_CMD_GET_CHN_CFG, TK_ERR_RIGHT, false},
        {"encoding read needs no right", {}, TK_CMD_GET_ENC_CFG, 0, false},
        {"encoding set needs no right", {}, TK_CMD_SET_ENC_CFG, 0, false},
        {"encoding reset needs the encoding right", {}, TK_CMD_RESET_ENC_CFG, TK_ERR_RIGHT, false},
        {"ROI with the encoding right", {RIGHT_ENCODE_SET}, TK_CMD_GET_ENC_ROI_CFG, 0, false},
        {"detection without its right", {RIGHT_RECORD_SET}, TK_CMD_GET_VIDEO_DETECT_CFG, TK_ERR_RIGHT, false},
        {"users without their right", {RIGHT_NETWORK_SET}, TK_CMD_GET_ALL_USER, TK_ERR_RIGHT, false},
        {"own password needs no right", {}, TK_CMD_CHANGE_PASSWD, 0, false},
        {"PTZ settings without the serial right", {RIGHT_PTZ_CONTROL}, TK_CMD_GET_PTZ_CFG, TK_ERR_RIGHT, false},
        {"PTZ control without its right", {RIGHT_SERIAL_SET}, TK_CMD_PTZ_CONTROL, TK_ERR_RIGHT, false},
        {"reboot without the power right", {RIGHT_PTZ_CONTROL}, TK_CMD_REMOTE_REBOOT, TK_ERR_RIGHT, false},
        {"disk without the storage right", {RIGHT_RECORD_SET}, TK_CMD_GET_DISK_INFO, TK_ERR_RIGHT, false},
        {"snapshot without the detection right", {}, TK_CMD_REMOTE_SNAP, TK_ERR_RIGHT, false},
        {"remote info without the channel right", {}, TK_CMD_GET_REMOTE_INFO, TK_ERR_RIGHT, false},
        {"upgrade with its right: no reply", {RIGHT_SYSTEM_UPGRADE}, 0x80005, 1, false},
        {"upload with the detection right: no reply", {RIGHT_EVENT_DETECT_SET}, 0x90003, 1, false},
    };
    mark();
    for (const RightCase &c : cases) {
        SCOPED_TRACE(c.what);
        USER_PRIVILEGE priv = rights_with({});
        for (int r : c.rights) priv.opt_rights[r] = 1;
        open(priv);
        if (c.result == 1) {
            send_only(c.cmd);
        } else {
            const CtrlReply r = ask(c.cmd);
            EXPECT_EQ(r.result, c.result);
            if (c.result != 0) {
                EXPECT_TRUE(r.body.empty());
            }
        }
        if (c.ends) {
            EXPECT_TRUE(closed_cleanly());
            int result = -100;
            EXPECT_TRUE(ended(&result));
            EXPECT_EQ(result, 0);
        } else {
            // The connection goes on, and the next reply is the heartbeat's.
            const CtrlReply hb = ask(TK_CMD_HEARTBEAT);
            EXPECT_EQ(hb.result, 0);
            EXPECT_TRUE(hb.body.empty());
        }
    }
    EXPECT_EQ(shell_since_mark(), "");  // the refused reboot ran nothing
}

TEST_F(ControlDispatch, StaleHeadersRepeatTheDispatchersPreviousReply)
{
    // Nothing built yet: result 0 without payload.
    CtrlReply r = ask(0x70010);
    EXPECT_EQ(r.result, 0);
    EXPECT_TRUE(r.body.empty());

    const CtrlReply list = ask(TK_CMD_GET_ALL_USER);
    ASSERT_EQ(list.result, 0);
    ASSERT_EQ(list.body.size(), 4 + sizeof(USER_INFO));

    // The list's header again, with as many bytes of the work buffer: the list itself.
    r = ask(0x70012);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.body, list.body);
    // A payload lands at the front of the work buffer and goes out with the stale header.
    r = ask(TK_CMD_REMOTE_STORAGE_NOP, {'A', 'B', 'C', 'D'});
    ASSERT_EQ(r.body.size(), list.body.size());
    EXPECT_EQ(std::string(r.body.begin(), r.body.begin() + 4), "ABCD");
    EXPECT_TRUE(std::equal(r.body.begin() + 4, r.body.end(), list.body.begin() + 4));

    // A group handler's no-action code answers 0 and leaves the dispatcher's header alone.
    r = ask(TK_CMD_SET_DST_CFG, {1, 2, 3});
    EXPECT_EQ(r.result, 0);
    EXPECT_TRUE(r.body.empty());
    r = ask(0x300A1);
    EXPECT_EQ(r.body.size(), list.body.size());

    // After a heartbeat the stale header is the heartbeat's.
    EXPECT_EQ(ask(TK_CMD_HEARTBEAT).result, 0);
    r = ask(TK_CMD_REMOTE_LOG_NOP);
    EXPECT_EQ(r.result, 0);
    EXPECT_TRUE(r.body.empty());
    // A refusal is a header the dispatcher built, too.
    open(rights_with({}));
    EXPECT_EQ(ask(TK_CMD_GET_ALL_USER).result, TK_ERR_RIGHT);
    EXPECT_EQ(ask(0x70011).result, TK_ERR_RIGHT);
}

TEST_F(ControlDispatch, UnknownCodesAnswerMinusFourAndTheConnectionStays)
{
    testing::internal::CaptureStdout();
    // Gaps in the ranges, codes outside every range, and requests of other connections.
    const int32_t unknown[] = {0x30000, 0x30046, 0x30063, 0x30083, 0x30095,      0x300A6,           0x10001,
                               0xA0000, 0x30007, 0x30008, 0x30020, 0x30038,      0x30056,           0x30079,
                               0x40001, 0x70008, 0x7FFFF, 0x60001, TK_CMD_LOGIN, TK_CMD_START_PLAY, TK_CMD_POS_PLAY_REQ,
                               -1};
    for (int32_t cmd : unknown) {
        const CtrlReply r = ask(cmd, {9, 9, 9, 9});
        EXPECT_EQ(r.result, TK_ERR_UNSUPPORTED) << std::hex << cmd;
        EXPECT_TRUE(r.body.empty());
    }
    const std::string out = testing::internal::GetCapturedStdout();
    // Codes outside every range are logged as such; playback is started on a connection of its own.
    EXPECT_TRUE(cgtest::has_line(out, "*control_routine: head.cmd = [[]0x30000]")) << out;
    EXPECT_TRUE(cgtest::has_line(out, "*control_routine: head.cmd = [[]0xa0000]")) << out;
    EXPECT_FALSE(cgtest::has_line(out, "*control_routine: head.cmd = [[]0x30007]")) << out;
    EXPECT_TRUE(cgtest::has_line(out, "*--- TK_CMD_START_PLAY")) << out;
    EXPECT_EQ(ask(TK_CMD_HEARTBEAT).result, 0);
}

// Answers of fixed content (zeroed records of the protocol's sizes); none of them reads the clock or writes a setting.
TEST_F(ControlDispatch, FixedAnswersAndEmptySearches)
{
    // A count word and count zeroed records of size bytes.
    auto zeroed = [](uint8_t count, size_t size) {
        std::vector<uint8_t> b(4 + count * size, 0);
        b[0] = count;
        return b;
    };
    std::vector<uint8_t> remote_info(128, 0), roi = zeroed(1, sizeof(ENC_ROI_PARA));
    remote_info[0] = 2;
    roi[4] = 4;  // max_regions
    TK_SEARCH_REQ search{};
    search.start_time = {0, 1, 1, 2012};
    search.end_time = {86399999, 31, 12, 2030};
    const struct {
        int32_t cmd;
        std::vector<uint8_t> payload, answer;
    } cases[] = {
        {TK_CMD_SET_RECORD_MODE, {0, 0, 0, 0}, {}},
        {TK_CMD_GET_RECORD_MODE, {}, {1, 0, 0, 0, 1, 0, 0, 0}},  // record mode 1, whatever was set
        {TK_CMD_SET_PRERECORD_TIME, {9, 0, 0, 0}, {}},
        {TK_CMD_GET_PRERECORD_TIME, {}, {5, 0, 0, 0}},
        {TK_CMD_GET_REMOTE_INFO, {}, remote_info},
        {TK_CMD_SEARCH_REC_FILE, cgtest::bytes_of(search), {0, 0, 0, 0}},
        {TK_CMD_SEARCH_JPG_FILE, cgtest::bytes_of(search), {0, 0, 0, 0}},
        {TK_CMD_GET_ENC_ROI_CFG, {}, roi},
        {TK_CMD_GET_ALARMOUT_MODE, {}, {1, 0, 0, 0, 0, 0, 0, 0}},
        {TK_CMD_GET_ALARM_DETECT_CFG, {}, zeroed(2, TK_ALARM_DETECT_PARA_SIZE)},  // one per alarm input
        {TK_CMD_GET_VIDEO_DETECT_CFG, {}, zeroed(1, TK_VIDEO_DETECT_PARA_SIZE)},
        {TK_CMD_GET_EXCEPTION_DETECT_CFG, {}, std::vector<uint8_t>(TK_EXCEPTION_PARA_SIZE, 0)},
        {TK_CMD_GET_CAMERA_CFG, {}, zeroed(1, TK_CAMERA_PARA_SIZE)},
        {TK_CMD_GET_DST_CFG, {}, std::vector<uint8_t>(sizeof(DST_PARA), 0)},
        {TK_CMD_SET_DST_CFG, std::vector<uint8_t>(44, 1), {}},
        {TK_CMD_RESET_BASE_CFG, {}, {}},
        {TK_CMD_GET_PPPOE_CFG, {}, std::vector<uint8_t>(sizeof(NET_PPPOE_PARA), 0)},
        {TK_CMD_SET_PPPOE_CFG, std::vector<uint8_t>(132, 1), {}},
        {0x3001D, {}, {}},
        {0x30023, {}, {}},
    };
    for (const auto &c : cases) {
        const CtrlReply r = ask(c.cmd, c.payload);
        EXPECT_EQ(r.result, 0) << std::hex << c.cmd;
        EXPECT_EQ(r.body, c.answer) << std::hex << c.cmd;
    }
    EXPECT_EQ(sim().count(ZQ_GETTIME) + sim().count(ZQ_SETTIME) + sim().count(ZQ_SETNETWORK) +
                  sim().count(ZQ_SETNETWORKPROTOCOL),
              0);
}

TEST_F(ControlDispatch, ResetsRemoveTheirConfigurationFilesThroughTheShell)
{
    const std::string conf = cgtest::control_conf_dir();
    const char *removed[] = {"config_record.ini", "config_record_2.ini", "config_ptz.ini", "config_image.ini",
                             "config_encode.ini"};
    for (const char *f : removed) ASSERT_TRUE(cgtest::write_file(conf + "/" + f, "x"));
    ASSERT_TRUE(cgtest::write_file(conf + "/network.ini", "x"));
    mark();
    testing::internal::CaptureStdout();
    const std::vector<std::pair<int32_t, const char *>> resets = {
        {TK_CMD_RESET_VIDEO_DETECT_CFG, "config_record*"},  // both detection resets remove the recording files
        {TK_CMD_RESET_ALARM_DETECT_CFG, "config_record*"},
        {TK_CMD_RESET_RECORD_CFG, "config_record*"},
        {TK_CMD_RESET_CAMERA_CFG, "config_ptz*"},  // the camera-image reset removes the PTZ files
        {TK_CMD_RESET_PTZ_CFG, "config_ptz*"},
        {TK_CMD_RESET_CHN_CFG, "config_image*"},
        {TK_CMD_RESET_ENC_CFG, "config_encode*"},
    };
    std::string expected;
    for (const auto &r : resets) {
        const CtrlReply reply = ask(r.first);
        EXPECT_EQ(reply.result, 0) << std::hex << r.first;
        EXPECT_TRUE(reply.body.empty());
        expected += "rm -rf " + conf + "/" + r.second + "\n";
    }
    EXPECT_EQ(ask(TK_CMD_HEARTBEAT).result, 0);  // the last entry is written before the next request is read
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(shell_since_mark(), expected);
    for (const char *f : removed) EXPECT_NE(access((conf + "/" + f).c_str(), F_OK), 0) << f;
    EXPECT_EQ(access((conf + "/network.ini").c_str(), F_OK), 0);
    // Operation log: the detection resets as detection settings, the recording reset as recording, the rest as channel.
    EXPECT_EQ(cgtest::count_lines(out, "[[]oplog] * user=tester type=10 index=0"), 2) << out;
    EXPECT_EQ(cgtest::count_lines(out, "[[]oplog] * user=tester type=9 index=0"), 1) << out;
    EXPECT_EQ(cgtest::count_lines(out, "[[]oplog] * user=tester type=7 index=0"), 4) << out;
    EXPECT_TRUE(cgtest::has_line(out, "*--- CMD:TK_CMD_RESET_CHN_CFG  success")) << out;
}

TEST_F(ControlDispatch, RebootAnswersFirstRunsTheShellAndAnswersAgain)
{
    mark();
    testing::internal::CaptureStdout();
    CtrlReply r = ask(TK_CMD_REMOTE_REBOOT);
    EXPECT_EQ(r.result, 0);
    EXPECT_TRUE(r.body.empty());
    r = read_reply();  // the same header once more, since the process is still running
    EXPECT_EQ(r.result, 0);
    EXPECT_TRUE(r.body.empty());
    EXPECT_EQ(ask(TK_CMD_HEARTBEAT).result, 0);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(shell_since_mark(), "reboot\n");
    EXPECT_TRUE(cgtest::has_line(out, "new_tknvi_remote_control reboot")) << out;
    EXPECT_TRUE(cgtest::has_line(out, "[[]oplog] * type=2 index=0")) << out;
}

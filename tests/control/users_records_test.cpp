// User accounts, the recording schedule, storage, the event state, and what
// comes from the frame cache (snapshot, encoding records).
#include <gtest/gtest.h>

#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "camgate-encoder/encoder_sim.h"
#include "common/env.h"
#include "control/control_fixture.h"
#include "main/tcl_hook.h"
#include "support/text.h"

namespace {

using cgtest::bytes_of;
using cgtest::CtrlReply;
using cgtest::rights_with;

using Records = cgtest::ControlConn;

ZQ_USER_ENTRY entry(const char *name, const char *password, uint8_t authority)
{
    ZQ_USER_ENTRY u{};
    wire_set_str(u.UserName, name);
    wire_set_str(u.UserPassword, password);
    u.Authority = authority;
    return u;
}

USER_INFO user(const char *name, const char *password, const USER_PRIVILEGE &rights)
{
    USER_INFO u{};
    wire_set_str(u.name, name);
    wire_set_str(u.passwd, password);
    u.privilege = rights;
    return u;
}

OperatorUser op(uint8_t code, const char *name, const char *password, uint8_t authority)
{
    OperatorUser o{};
    o.OperatorCammand = code;
    wire_set_str(o.UserName, name);
    wire_set_str(o.UserPassword, password);
    o.Authority = authority;
    return o;
}

int operation_rights(const USER_INFO &u)
{
    int n = 0;
    for (int i = 0; i < 64; ++i) n += u.privilege.opt_rights[i] != 0;
    return n;
}

bool all_channels(const USER_INFO &u)
{
    const USER_PRIVILEGE &p = u.privilege;
    const auto all = [](const TK_U8 *a) { return std::count(a, a + 64, 1) == 64; };
    return all(p.local_priview_right) && all(p.local_playback_right) && all(p.net_priview_right) &&
           all(p.net_playback_right);
}

std::vector<USER_INFO> users_of(const CtrlReply &r)
{
    std::vector<USER_INFO> out(r.as<uint32_t>());
    EXPECT_EQ(r.body.size(), 4 + out.size() * sizeof(USER_INFO));
    for (size_t i = 0; i < out.size(); ++i) out[i] = r.as<USER_INFO>(4 + i * sizeof(USER_INFO));
    return out;
}

}  // namespace

TEST_F(Records, UserListTurnsAuthorityIntoRights)
{
    sim().set_users({entry("admin", "admin", 0), entry("op", "oppw", 1), entry("view", "v", 2), entry("odd", "x", 5)});
    const std::vector<USER_INFO> users = users_of(ask(TK_CMD_GET_ALL_USER));
    EXPECT_EQ(frame(ZQ_GETUSER).data, (std::vector<uint8_t>{0, 0, 0}));
    ASSERT_EQ(users.size(), 4u);
    EXPECT_EQ(users[1].usr_id, 1u);
    EXPECT_STREQ(users[1].name, "op");
    EXPECT_STREQ(users[1].passwd, "oppw");  // in clear
    EXPECT_EQ(operation_rights(users[0]), 16);
    EXPECT_EQ(operation_rights(users[1]), 8);
    EXPECT_EQ(users[1].privilege.opt_rights[RIGHT_RESET_FACTORY_SET], 1);
    EXPECT_EQ(operation_rights(users[2]), 0);
    EXPECT_TRUE(all_channels(users[0]) && all_channels(users[1]) && all_channels(users[2]));
    EXPECT_EQ(bytes_of(users[3].privilege), std::vector<uint8_t>(sizeof(USER_PRIVILEGE), 0));

    sim().set_users({});
    CtrlReply r = ask(TK_CMD_GET_ALL_USER);
    EXPECT_EQ(r.body, (std::vector<uint8_t>{0, 0, 0, 0}));

    // A long list stops at the 23 records the work buffer holds; a count beyond the entries sent is not believed.
    std::vector<uint8_t> list{30};
    for (int i = 0; i < 30; ++i) {
        const std::vector<uint8_t> e = bytes_of(entry(("user" + std::to_string(i)).c_str(), "pw", 2));
        list.insert(list.end(), e.begin(), e.end());
    }
    sim().set_canned_answer(ZQ_GETUSER, list);
    r = ask(TK_CMD_GET_ALL_USER);
    EXPECT_EQ(r.body.size(), 8192u);
    EXPECT_EQ(users_of(r).back().usr_id, 22u);
    list.resize(1 + 2 * sizeof(ZQ_USER_ENTRY) + 5);
    sim().set_canned_answer(ZQ_GETUSER, list);
    EXPECT_EQ(users_of(ask(TK_CMD_GET_ALL_USER)).size(), 2u);
}

TEST_F(Records, UserOperationsAndPasswordChangesSendTheServersCodes)
{
    struct Case {
        int32_t cmd;
        USER_INFO in;
        OperatorUser sent;
    };
    std::vector<Case> cases = {
        {TK_CMD_ADD_USER, user("ptz", "p1", rights_with({RIGHT_PTZ_CONTROL})), op(0, "ptz", "p1", 0)},
        {TK_CMD_ADD_USER, user("chan", "p2", rights_with({RIGHT_CHANNEL_SET})), op(0, "chan", "p2", 1)},
        {TK_CMD_ADD_USER, user("none", "p3", rights_with({})), op(0, "none", "p3", 2)},
        {TK_CMD_ADD_USER, user("base", "p4", rights_with({RIGHT_SYSBASE_SET})), op(0, "base", "p4", 0)},
        {TK_CMD_ADD_USER, user("", "", rights_with({})), op(0, "sixteen-chars-1", "password-of-16-", 2)},
        {TK_CMD_MODIFY_USER, user("chan", "new", rights_with({RIGHT_NETWORK_SET, RIGHT_IA_SET})),
         op(2, "chan", "new", 1)},
        {TK_CMD_DEL_USER, user("none", "", rights_with({})), op(1, "none", "", 2)},
    };
    // Name and password filling their whole 16 bytes, without a terminator: cut to 15 characters.
    USER_INFO &full = cases[4].in;
    std::memcpy(full.name, "sixteen-chars-16", 16);
    std::memcpy(full.passwd, "password-of-16-c", 16);
    testing::internal::CaptureStdout();
    int n = 0;
    for (const Case &c : cases) {
        EXPECT_EQ(ask_rec(c.cmd, c.in).result, 0);
        EXPECT_EQ(frame(ZQ_SETUSER, ++n).data, bytes_of(c.sent)) << c.in.name;
    }
    // The server's list now: admin, ptz (all rights), chan (modified), base and the cut name.
    const std::vector<USER_INFO> users = users_of(ask(TK_CMD_GET_ALL_USER));
    const std::string out = testing::internal::GetCapturedStdout();
    ASSERT_EQ(users.size(), 5u);
    EXPECT_STREQ(users[1].name, "ptz");
    EXPECT_EQ(operation_rights(users[1]), 16);
    EXPECT_STREQ(users[2].name, "chan");
    EXPECT_STREQ(users[2].passwd, "new");
    EXPECT_EQ(operation_rights(users[2]), 8);
    EXPECT_EQ(cgtest::count_lines(out, "[[]oplog] * user=tester type=19 index=0"), 7) << out;
    EXPECT_TRUE(cgtest::has_line(out, "*--- cmd:del_user success!name=[[]none]")) << out;

    // Adding an existing name is refused by the server, not by the daemon.
    EXPECT_EQ(ask_rec(TK_CMD_ADD_USER, user("ptz", "x", rights_with({}))).result, 0);

    // A password change sends the delete code and authority 0: the old password is not checked here.
    TK_CHANGE_PASSWD_REQ req{};
    wire_set_str(req.name, "admin");
    wire_set_str(req.old_passwd, "wrong-old");
    wire_set_str(req.new_passwd, "n3w-p4ss");
    EXPECT_EQ(ask_rec(TK_CMD_CHANGE_PASSWD, req).result, 0);
    EXPECT_EQ(frame(ZQ_SETUSER, 9).data, bytes_of(op(1, "admin", "n3w-p4ss", 0)));
}

TEST_F(Records, ScheduleMasksSelectTheSegmentsThatAreWritten)
{
    CtrlReply r = ask(TK_CMD_GET_RECORD_SCHEDULE);
    ASSERT_EQ(r.body.size(), 4 + sizeof(REC_SCHE_PARA));
    REC_SCHE_PARA s = r.as<REC_SCHE_PARA>(4);
    EXPECT_EQ(frame(ZQ_GETRECORDPARAM).data, (std::vector<uint8_t>{0, 0}));
    for (const REC_DAY_SCHE &day : s.week_day) {
        EXPECT_EQ(day.segment[0].end_time, 86399u);  // the one segment the server counts
        EXPECT_EQ(day.segment[1].end_time, 0u);
        for (const REC_SEGMENT &seg : day.segment) EXPECT_EQ(seg.type_mask, 8u);  // timer recording is on
    }

    RecordParam rec = sim().get<RecordParam>(ZQ_GETRECORDPARAM);
    rec.RecordTimeEnable = 0;
    rec.TaskDayList[3].SegmentCount = 2;
    rec.TaskDayList[3].Segment[1].StartTime = 3600;
    rec.TaskDayList[3].Segment[1].EndTime = 7200;
    sim().put(ZQ_GETRECORDPARAM, rec);
    s = ask(TK_CMD_GET_RECORD_SCHEDULE).as<REC_SCHE_PARA>(4);
    EXPECT_EQ(s.week_day[3].segment[1].start_time, 3600u);
    EXPECT_EQ(s.week_day[3].segment[1].type_mask, 0u);

    // Segments with another mask change nothing on the server.
    struct SetReq {
        TK_SET_PREFIX prefix;
        REC_SCHE_PARA sche;
    } req{};
    for (REC_DAY_SCHE &day : req.sche.week_day)
        for (REC_SEGMENT &seg : day.segment) seg = {100, 200, 4};
    EXPECT_EQ(ask_rec(TK_CMD_SET_RECORD_SCHEDULE, req).result, 0);
    EXPECT_EQ(frame(ZQ_SETRECORDPARAM).data, bytes_of(rec));

    // One timer segment switches timer recording on and gives its day four segments.
    req.sche.week_day[1].segment[2] = {28800, 64800, 8};
    testing::internal::CaptureStdout();
    EXPECT_EQ(ask_rec(TK_CMD_SET_RECORD_SCHEDULE, req).result, 0);
    RecordParam want = rec;
    want.RecordTimeEnable = 1;
    want.TaskDayList[1].SegmentCount = 4;
    want.TaskDayList[1].Segment[2].StartTime = 28800;
    want.TaskDayList[1].Segment[2].EndTime = 64800;
    EXPECT_EQ(frame(ZQ_SETRECORDPARAM, 2).data, bytes_of(want));
    s = ask(TK_CMD_GET_RECORD_SCHEDULE).as<REC_SCHE_PARA>(4);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(s.week_day[1].segment[2].start_time, 28800u);
    EXPECT_EQ(s.week_day[1].segment[3].type_mask, 8u);
    EXPECT_EQ(s.week_day[5].segment[3].type_mask, 8u);
    EXPECT_TRUE(cgtest::has_line(out, "[[]oplog] * user=tester type=9 index=0")) << out;
}

TEST_F(Records, OverwriteModeAndDiskInformation)
{
    CtrlReply r = ask(TK_CMD_GET_OVERWRITE_MODE);
    EXPECT_EQ(r.body, (std::vector<uint8_t>{1, 0, 0, 0}));  // no count
    EXPECT_EQ(ask(TK_CMD_SET_OVERWRITE_MODE, {0, 0, 0, 0}).result, 0);
    EXPECT_EQ(frame(ZQ_SETRECORDPARAM).as<RecordParam>().LowSpaceMethod, 0);
    EXPECT_EQ(ask(TK_CMD_GET_OVERWRITE_MODE).as<uint32_t>(), 0u);
    // Mode 2 is accepted and changes nothing.
    EXPECT_EQ(ask(TK_CMD_SET_OVERWRITE_MODE, {2, 0, 0, 0}).result, 0);
    EXPECT_EQ(frame(ZQ_SETRECORDPARAM, 2).as<RecordParam>().LowSpaceMethod, 0);
    EXPECT_EQ(ask(TK_CMD_SET_OVERWRITE_MODE, {1, 0, 0, 0}).result, 0);
    EXPECT_EQ(ask(TK_CMD_GET_OVERWRITE_MODE).as<uint32_t>(), 1u);
    EXPECT_EQ(ask(TK_CMD_RESET_OVERWRITE_MODE).result, 0);
    EXPECT_EQ(ask(TK_CMD_GET_OVERWRITE_MODE).as<uint32_t>(), 0u);

    r = ask(TK_CMD_GET_DISK_INFO);
    ASSERT_EQ(r.body.size(), 4 + sizeof(DISK_INFO));
    EXPECT_EQ(r.as<uint32_t>(), 1u);
    DISK_INFO d = r.as<DISK_INFO>(4);
    EXPECT_EQ(d.status, static_cast<TK_U32>(DISK_STATUS_NORMAL));
    EXPECT_EQ(d.fixed_info.total_size, 7580ull << 20);
    EXPECT_EQ(d.used, 1264ull << 20);
    EXPECT_STREQ(d.fixed_info.dev_path, env_media_root());
    SDCardInfo card = sim().get<SDCardInfo>(ZQ_GETSDCARDINFO);
    card.SdFormat = 0;
    sim().put(ZQ_GETSDCARDINFO, card);
    EXPECT_EQ(ask(TK_CMD_GET_DISK_INFO).as<DISK_INFO>(4).status, static_cast<TK_U32>(DISK_STATUS_UNFORMATTED));
    card.SdLoad = 0;
    sim().put(ZQ_GETSDCARDINFO, card);
    EXPECT_EQ(ask(TK_CMD_GET_DISK_INFO).as<DISK_INFO>(4).status, static_cast<TK_U32>(DISK_STATUS_NO_DISK));
    // No card information at all is an error, not an empty card.
    sim().set_canned_answer(ZQ_GETSDCARDINFO, std::vector<uint8_t>(3, 0));
    r = ask(TK_CMD_GET_DISK_INFO);
    EXPECT_EQ(r.result, -1);
    EXPECT_TRUE(r.body.empty());
}

TEST_F(Records, EventStateIsClearedThreeSecondsAfterTheLastAlarm)
{
    // Stamp the latest alarm age seconds ago, latching alarm input 1 first when latch.
    const auto alarm = [](time_t age, bool latch) {
        tcl_info *info = get_g_tcl_info();
        std::lock_guard<std::mutex> lock(info->event_mutex);
        if (latch) {
            info->event_state = EVENT_STATE{};
            info->event_state.alarmin_mask[1] = 1;
        }
        info->event_time = time(nullptr) - age;
    };
    alarm(0, true);
    const CtrlReply r = ask(TK_CMD_GET_EVENT_STATE);
    EXPECT_EQ(r.body.size(), sizeof(EVENT_STATE));  // no count
    EXPECT_EQ(r.as<EVENT_STATE>().alarmin_mask[1], 1);
    // An alarm a second old is still reported; one three seconds old is cleared for good.
    alarm(1, false);
    EXPECT_EQ(ask(TK_CMD_GET_EVENT_STATE).as<EVENT_STATE>().alarmin_mask[1], 1);
    alarm(3, false);
    EXPECT_EQ(ask(TK_CMD_GET_EVENT_STATE).body, std::vector<uint8_t>(sizeof(EVENT_STATE), 0));
    alarm(0, false);
    EXPECT_EQ(ask(TK_CMD_GET_EVENT_STATE).body, std::vector<uint8_t>(sizeof(EVENT_STATE), 0));
}

TEST_F(Records, SnapshotAndEncodingComeFromTheFrameCache)
{
    // No frame cache in this process yet: no snapshot, no stream.
    CtrlReply r = ask(TK_CMD_REMOTE_SNAP);
    EXPECT_EQ(r.result, -1);
    EXPECT_TRUE(r.body.empty());
    EXPECT_EQ(ask(TK_CMD_GET_ENC_CFG).body, (std::vector<uint8_t>{0, 0, 0, 0}));

    const key_t key = cgtest::unique_ipc_key();
    encoder::Options opt;
    opt.key = key;
    opt.audio = false;
    opt.snapshot_interval_ms = 100;
    encoder::EncoderSim enc(opt);
    ASSERT_TRUE(enc.start()) << enc.error();
    ASSERT_TRUE(enc.wait_for_snapshots(1, 5000));
    ASSERT_TRUE(enc.wait_for_video(1, 1, 5000));

    r = ask(TK_CMD_REMOTE_SNAP);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(std::string(r.body.begin(), r.body.end()), cgtest::read_file(opt.jpeg));

    r = ask(TK_CMD_GET_ENC_CFG);
    ASSERT_EQ(r.as<uint32_t>(), 2u);
    ASSERT_EQ(r.body.size(), 4 + 2 * sizeof(VIDEO_ENC_PARA));
    for (int s = 0; s < 2; ++s) {
        const auto e = r.as<VIDEO_ENC_PARA>(4 + s * sizeof(VIDEO_ENC_PARA));
        const encoder::StreamInfo info = enc.stream_info(s);
        EXPECT_EQ(e.stream_index, static_cast<TK_U32>(s));
        EXPECT_EQ(e.codec, static_cast<TK_U32>(VIDEO_CODEC_H264));
        EXPECT_EQ(e.width, info.width);
        EXPECT_EQ(e.height, info.height);
        EXPECT_EQ(e.frame_rate, static_cast<TK_U32>(info.fps));
        EXPECT_EQ(e.bit_rate, static_cast<TK_U32>(info.kbps));
    }
    enc.stop();
    cgtest::remove_ipc(key);
}

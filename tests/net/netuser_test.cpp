// The session registry: ids, tables, listings, lookups, heartbeats and the
// keepalive thread.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <deque>
#include <thread>
#include <vector>

#include "net/netuser.h"
#include "support/front_end.h"
#include "support/sockets.h"
#include "support/testenv.h"
#include "support/text.h"

namespace {

using cgtest::all_rights;
using cgtest::ctrl_session_count;

int top_byte(int id)
{
    return static_cast<int>(static_cast<unsigned>(id) >> 24);
}

class Netuser : public ::testing::Test {
  protected:
    void SetUp() override { cgtest::fresh_registry(); }

    // A fresh connected pair; the registry gets the server side.
    cgtest::TcpPair &conn()
    {
        pairs_.push_back(cgtest::tcp_pair());
        return pairs_.back();
    }

    std::deque<cgtest::TcpPair> pairs_;  // stable references
};

}  // namespace

TEST(SessionId, EncodesTypeAndSlotForEveryType)
{
    const struct {
        int type, slots, first;
    } types[] = {{CTRL_SESSION_TYPE, 16, 0}, {PREV_SESSION_TYPE, 8, 16}, {PLAY_SESSION_TYPE, 16, 24},
                 {TALK_SESSION_TYPE, 1, 40}, {UPGD_SESSION_TYPE, 1, 41}, {UPLD_SESSION_TYPE, 16, 42}};
    for (const auto &t : types) {
        for (int slot = 0; slot < t.slots; ++slot) {
            const int id = trans_index_to_session_id(slot, t.type);
            EXPECT_EQ(top_byte(id), t.first + slot) << "type " << t.type << " slot " << slot;
            int type = -1, index = -1;
            EXPECT_EQ(check_session_id_is_valid(id, &type, &index), 1);
            EXPECT_EQ(type, t.type);
            EXPECT_EQ(index, slot);
        }
        EXPECT_EQ(trans_index_to_session_id(t.slots, t.type), -1);
        EXPECT_EQ(trans_index_to_session_id(-1, t.type), -1);
    }
    EXPECT_EQ(trans_index_to_session_id(0, 6), -1);

    int type = 99;
    EXPECT_EQ(check_session_id_is_valid(-1, &type, nullptr), 0);
    EXPECT_EQ(check_session_id_is_valid(58 << 24, nullptr, nullptr), 0);
    EXPECT_EQ(check_session_id_is_valid((57 << 24) | 0xFFFFFF, nullptr, nullptr), 1);
    EXPECT_EQ(check_session_id_is_valid(static_cast<int>(0x80000001u), nullptr, nullptr), 0);
    EXPECT_EQ(type, 99);
}

TEST(SessionId, IdsOfOneSecondShareTheirRandomPart)
{
    // Reseeded with the current second on every call: retry until both ids fall in one second.
    bool checked = false;
    for (int attempt = 0; attempt < 5 && !checked; ++attempt) {
        const time_t before = time(nullptr);
        const int a = trans_index_to_session_id(0, CTRL_SESSION_TYPE);
        const int b = trans_index_to_session_id(1, CTRL_SESSION_TYPE);
        if (time(nullptr) != before) continue;
        EXPECT_EQ(a & 0xFFFFFF, b & 0xFFFFFF);
        EXPECT_EQ(b - a, 1 << 24);
        checked = true;
    }
    EXPECT_TRUE(checked);
}

TEST_F(Netuser, ControlSessionRecordsOwnerAndRights)
{
    USER_PRIVILEGE priv{};
    priv.opt_rights[RIGHT_NETWORK_SET] = 1;
    priv.net_priview_right[3] = 1;
    cgtest::TcpPair &c = conn();
    const int id = netuser_add_login_ctrl_session(c.server.get(), "averylongusername", &priv, 10);
    ASSERT_NE(id, -1);

    CTRL_SESSION rec[4];
    int n = 4;
    ASSERT_EQ(netuser_get_ctrl_sessions(rec, &n), 0);
    ASSERT_EQ(n, 1);
    EXPECT_EQ(rec[0].auth_id, id);  // a login is its own authority
    EXPECT_EQ(rec[0].login_mode, LOGIN_MODE_LOGIN);
    EXPECT_EQ(rec[0].sockfd, c.server.get());
    EXPECT_EQ(rec[0].remote_addr, 0x7F000001u);
    EXPECT_STREQ(rec[0].user_name, "averylonguserna");  // 15 characters kept

    char name[16];
    USER_PRIVILEGE got{};
    EXPECT_EQ(netuser_get_user_info(id, name, &got), 0);
    EXPECT_STREQ(name, "averylonguserna");
    EXPECT_EQ(std::memcmp(&got, &priv, sizeof priv), 0);
    EXPECT_EQ(netuser_get_user_info(id, nullptr, nullptr), -2);
    EXPECT_EQ(netuser_get_user_info(id + 1, name, nullptr), -1);
    netuser_remove_ctrl_session(id);
}

TEST_F(Netuser, AddRefusesBadOwners)
{
    const USER_PRIVILEGE priv = all_rights();
    EXPECT_EQ(netuser_add_login_ctrl_session(-1, "u", &priv, 10), -1);
    EXPECT_EQ(netuser_add_login_ctrl_session(conn().server.get(), nullptr, &priv, 10), -1);
    EXPECT_EQ(netuser_add_login_play_session(1, nullptr, conn().server.get()), -1);
    // An unconnected socket has no peer.
    cgtest::Fd lonely(socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(netuser_add_login_ctrl_session(lonely.get(), "u", &priv, 10), -1);
    EXPECT_EQ(add_preview_session(1, LOGIN_MODE_LOGIN, "u", lonely.get(), 0, 0, PROTOCOL_TYPE_TCP, 0), -1);
    // An empty name is a name.
    const int id = netuser_add_login_ctrl_session(conn().server.get(), "", &priv, 10);
    EXPECT_NE(id, -1);
    EXPECT_EQ(ctrl_session_count(), 1);
    netuser_remove_ctrl_session(id);
}

TEST_F(Netuser, PreviewTableCountsItsSessions)
{
    std::vector<int> ids;
    for (int i = 0; i < NETUSER_PREV_MAX; ++i) {
        const int id = netuser_add_login_preview_session(9, "viewer", conn().server.get(), i, i % 2);
        ASSERT_NE(id, -1);
        ids.push_back(id);
    }
    EXPECT_EQ(netuser_add_udp_preview_session(9, "viewer", conn().server.get(), 0, 0, 10), -1);
    EXPECT_EQ(netuser_remove_preview_session(ids[2]), 0);
    EXPECT_EQ(netuser_remove_preview_session(ids[2]), 0);  // counted once
    const int udp = netuser_add_udp_preview_session(9, "viewer", conn().server.get(), 1, 0, 10);
    ASSERT_NE(udp, -1);
    EXPECT_EQ(netuser_add_rtsp_preview_session(9, "viewer", conn().server.get(), 0, 0, 10), -1);

    PREVIEW_SESSION rec[NETUSER_PREV_MAX];
    int n = NETUSER_PREV_MAX;
    ASSERT_EQ(netuser_get_preview_sessions(rec, &n), 0);
    ASSERT_EQ(n, 8);
    EXPECT_EQ(rec[2].protocol, PROTOCOL_TYPE_UDP);  // the freed slot, in slot order
    EXPECT_EQ(rec[2].channel, 1);
    EXPECT_EQ(rec[3].protocol, PROTOCOL_TYPE_TCP);
    EXPECT_EQ(rec[3].channel, 3);
    EXPECT_EQ(rec[3].stream_index, 1);
    EXPECT_EQ(rec[3].auth_id, 9);
    EXPECT_EQ(rec[3].addr, 0x7F000001u);

    ids[2] = udp;
    for (int id : ids) netuser_remove_preview_session(id);
    n = 0;
    netuser_get_preview_sessions(nullptr, &n);
    EXPECT_EQ(n, 0);
}

TEST_F(Netuser, ListingHonoursCapacityAndArguments)
{
    std::vector<int> ids;
    for (int i = 0; i < 3; ++i) ids.push_back(netuser_add_login_upload_session(4, "up", conn().server.get(), 7 + i));
    UPLOAD_SESSION rec[2];
    int n = 2;
    ASSERT_EQ(netuser_get_upload_sessions(rec, &n), 0);
    EXPECT_EQ(n, 2);
    EXPECT_EQ(rec[1].alarm_type, 8);
    n = 0;
    EXPECT_EQ(netuser_get_upload_sessions(rec, &n), -2);
    EXPECT_EQ(netuser_get_upload_sessions(rec, nullptr), -2);
    n = 0;
    EXPECT_EQ(netuser_get_upload_sessions(nullptr, &n), 0);
    EXPECT_EQ(n, 3);
    for (int id : ids) netuser_remove_upload_session(id);
}

TEST_F(Netuser, SingleSlotTablesAndUpgradeProgress)
{
    const int talk = netuser_add_register_talk_session(3, nullptr, conn().server.get());
    ASSERT_NE(talk, -1);
    EXPECT_EQ(netuser_add_login_talk_session(3, "t", conn().server.get()), -1);
    TALK_SESSION t{};
    int n = 1;
    netuser_get_talk_sessions(&t, &n);
    EXPECT_STREQ(t.user_name, "register user");
    EXPECT_EQ(t.login_mode, LOGIN_MODE_REGISTER);

    const int up = netuser_add_login_upgrade_session(3, "admin", conn().server.get());
    ASSERT_NE(up, -1);
    EXPECT_EQ(netuser_update_upgrade_progress(up, 42), 0);
    EXPECT_EQ(netuser_update_upgrade_progress(talk, 42), -2);
    UPGRADE_SESSION u{};
    n = 1;
    netuser_get_upgrade_sessions(&u, &n);
    EXPECT_EQ(u.progress, 42);
    netuser_remove_talk_session(talk);
    netuser_remove_upgrade_session(up);
    EXPECT_EQ(netuser_update_upgrade_progress(up, 50), -2);
}

// Removal and heartbeats check the type in the id: another table's id is refused.
TEST_F(Netuser, OperationsCheckTheIdType)
{
    const USER_PRIVILEGE priv = all_rights();
    const int ctrl = netuser_add_login_ctrl_session(conn().server.get(), "u", &priv, 10);
    const int prev = netuser_add_udp_preview_session(ctrl, "u", conn().server.get(), 0, 0, 10);
    const int play = netuser_add_login_play_session(ctrl, "u", conn().server.get());
    ASSERT_NE(play, -1);
    EXPECT_EQ(netuser_remove_ctrl_session(play), -2);
    EXPECT_EQ(netuser_remove_preview_session(play), -2);
    EXPECT_EQ(netuser_remove_ctrl_session(-1), -2);
    EXPECT_EQ(netuser_remove_upload_session(58 << 24), -2);
    EXPECT_EQ(netuser_update_heartbeat(ctrl), 0);
    EXPECT_EQ(netuser_update_heartbeat(prev), 0);
    EXPECT_EQ(netuser_update_heartbeat(play), -2);
    EXPECT_EQ(netuser_update_heartbeat(-1), -2);
    EXPECT_EQ(netuser_suspend_heartbeat(ctrl), 0);
    EXPECT_EQ(netuser_resume_heartbeat(prev), 0);
    netuser_remove_ctrl_session(ctrl);
    EXPECT_EQ(netuser_update_heartbeat(ctrl), -2);
    EXPECT_EQ(set_session_suspend(ctrl, 1), -2);
    netuser_remove_preview_session(prev);
    EXPECT_EQ(netuser_remove_play_session(play), 0);
    EXPECT_EQ(netuser_remove_play_session(play), 0);  // already gone: nothing to do
}

TEST_F(Netuser, WriteLogPrintsOneLinePerEntry)
{
    const USER_PRIVILEGE priv = all_rights();
    const int id = netuser_add_login_ctrl_session(conn().server.get(), "ann smith", &priv, 10);
    ASSERT_NE(id, -1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(netuser_write_log(id, LOG_TIME_SET, 0), 0);
    EXPECT_EQ(netuser_write_log(trans_index_to_session_id(3, PLAY_SESSION_TYPE), LOG_REBOOT, 2), 0);
    EXPECT_EQ(netuser_write_log(-1, LOG_REBOOT, 0), -2);
    const std::string out = testing::internal::GetCapturedStdout();
    char idtext[16];
    std::snprintf(idtext, sizeof idtext, "0x%08x", static_cast<unsigned>(id));
    const std::string d = "[0-9]";
    const std::string when = d + d + d + d + "-" + d + d + "-" + d + d + " " + d + d + ":" + d + d + ":" + d + d;
    EXPECT_TRUE(cgtest::has_line(out, "[[]oplog] " + when + " session=" + idtext + " user=ann_smith type=21 index=0"))
        << out;
    EXPECT_NE(out.find("session=0x1b"), std::string::npos) << out;
    EXPECT_NE(out.find(" user=- type=2 index=2\n"), std::string::npos) << out;
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 2);
    netuser_remove_ctrl_session(id);
}

// Real seconds, side by side: a silent session goes on the (time-out + 2)-th
// check after its last heartbeat (the camera's keepalive test shows the 12 s
// of a login); heartbeats and the suspend flag keep a session, and a session
// without time-out (a TCP viewer) never expires.
TEST_F(Netuser, KeepaliveShutsSilentSessionsOnly)
{
    const USER_PRIVILEGE priv = all_rights();
    cgtest::TcpPair &silent = conn(), &beating = conn(), &suspended = conn(), &udp = conn(), &tcp_view = conn();
    const int64_t start = cgtest::now_ms();
    const int s = netuser_add_login_ctrl_session(silent.server.get(), "s", &priv, 1);
    const int b = netuser_add_login_ctrl_session(beating.server.get(), "b", &priv, 1);
    const int z = netuser_add_login_ctrl_session(suspended.server.get(), "z", &priv, 1);
    const int u = netuser_add_udp_preview_session(b, "b", udp.server.get(), 0, 0, 2);
    const int v = netuser_add_login_preview_session(b, "b", tcp_view.server.get(), 0, 0);
    ASSERT_TRUE(s != -1 && b != -1 && z != -1 && u != -1 && v != -1);
    ASSERT_EQ(netuser_suspend_heartbeat(z), 0);

    int64_t silent_gone = 0, udp_gone = 0;
    while (cgtest::now_ms() - start < 5000) {
        ASSERT_EQ(netuser_update_heartbeat(b), 0);
        if (silent_gone == 0 && cgtest::wait_peer_closed(silent.client.get(), 0))
            silent_gone = cgtest::now_ms() - start;
        if (udp_gone == 0 && cgtest::wait_peer_closed(udp.client.get(), 0)) udp_gone = cgtest::now_ms() - start;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_GE(silent_gone, 1900);  // time-out 1: the 3rd check
    EXPECT_LE(silent_gone, 3800);
    EXPECT_GE(udp_gone, 2900);  // time-out 2: the 4th check
    EXPECT_LE(udp_gone, 4800);
    EXPECT_EQ(netuser_update_heartbeat(s), -2);  // its slot is free

    EXPECT_FALSE(cgtest::wait_peer_closed(beating.client.get(), 0));
    EXPECT_FALSE(cgtest::wait_peer_closed(suspended.client.get(), 0));
    EXPECT_FALSE(cgtest::wait_peer_closed(tcp_view.client.get(), 0));
    EXPECT_EQ(ctrl_session_count(), 2);
    netuser_remove_ctrl_session(b);
    netuser_remove_ctrl_session(z);
    netuser_remove_preview_session(v);
}

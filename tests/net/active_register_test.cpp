// Active registration against a test centre listening in this process, and
// the version and date rules of the device description (which also cover how
// the version text is split at its dots).
#include <gtest/gtest.h>

#include <sys/socket.h>

#include <cstring>

#include "net/active_register.h"
#include "net/netuser.h"
#include "support/front_end.h"
#include "support/sockets.h"
#include "support/testenv.h"

namespace {

NET_CC_PARA centre_para(int port, const char *server = "127.0.0.1")
{
    NET_CC_PARA para{};
    para.enable = 1;
    para.port = static_cast<TK_U16>(port);
    wire_set_str(para.cc_server, server);
    para.reg_priv.opt_rights[RIGHT_PTZ_CONTROL] = 1;
    para.reg_priv.net_priview_right[0] = 1;
    return para;
}

using cgtest::ctrl_session_count;

class ActiveRegister : public ::testing::Test {
  protected:
    void SetUp() override { cgtest::fresh_registry(); }

    // Accept the camera and read its registration message.
    cgtest::Fd accept_registration(NEW_PACKET_HEADER *head, NEW_PP_REGISTER_REQ *body)
    {
        cgtest::Fd cam = centre_.accept();
        EXPECT_TRUE(cam.valid());
        EXPECT_TRUE(cgtest::recv_exact(cam.get(), head, sizeof *head));
        EXPECT_TRUE(cgtest::recv_exact(cam.get(), body, sizeof *body));
        return cam;
    }

    cgtest::Listener centre_;  // the centre
};

}  // namespace

TEST(RegisterVersion, NumberAndDateFromTheSoftwareVersion)
{
    const struct {
        const char *text;
        unsigned version;
        const char *date;
        const char *type;
    } cases[] = {
        {"V1.3.5 20150102", 135, "2015-01-02 00:00:00", "IP_CAMERA"},
        {"V2.0.1", 201, "", ""},
        {"V1.2.3.4", 0, "", ""},
        {"V1.2", 0, "", ""},
        {"", 0, "", ""},
        {"V1..2...3", 123, "", ""},  // runs of dots count as one
        {"V1.0.5 2013", 105, "2013-- 00:00:00", "IP_CAMERA"},
        {"beta build 7", 0, "7-- 00:00:00", "IP_CAMERA"},
    };
    for (const auto &c : cases) {
        TK_DEVICE_INFO info;
        std::memset(&info, 0x7E, sizeof info);
        active_register_version_info(c.text, &info);
        EXPECT_EQ(info.version, c.version) << c.text;
        EXPECT_STREQ(info.release_date, c.date) << c.text;
        EXPECT_STREQ(info.dev_type, c.type) << c.text;
        EXPECT_EQ(info.serial_no[0], 0x7E) << "only version, date and type are written";
    }
    // A text longer than any field is read within bounds.
    const std::string longer(200, '9');
    TK_DEVICE_INFO info{};
    active_register_version_info((longer + " " + longer).c_str(), &info);
    EXPECT_EQ(info.release_date[sizeof info.release_date - 1], '\0');
}

TEST_F(ActiveRegister, ArgumentsAndUnreachableCentres)
{
    EXPECT_EQ(active_register(nullptr), -2);
    NET_CC_PARA off = centre_para(centre_.port());
    off.enable = 0;
    EXPECT_EQ(active_register(&off), 0);
    EXPECT_FALSE(centre_.accept(300).valid());  // nothing was attempted

    NET_CC_PARA unnamed = centre_para(centre_.port(), "");
    EXPECT_EQ(active_register(&unnamed), -8);
    NET_CC_PARA closed = centre_para(cgtest::free_tcp_port());
    EXPECT_EQ(active_register(&closed), -8);
}

TEST_F(ActiveRegister, AcceptedRegistrationBecomesAControlConnection)
{
    NET_CC_PARA para = centre_para(centre_.port());
    ASSERT_EQ(active_register(&para), 0);
    NEW_PACKET_HEADER head{};
    NEW_PP_REGISTER_REQ body{};
    cgtest::Fd cam = accept_registration(&head, &body);
    EXPECT_EQ(cgtest::bytes_of(head), cgtest::bytes_of(NEW_PACKET_HEADER{TK_PROTO_MAGIC, TK_CMD_REGISTER, 468}));
    EXPECT_EQ(cgtest::bytes_of(body.reg_priv), cgtest::bytes_of(para.reg_priv));
    EXPECT_EQ(ctrl_session_count(), 0);  // no session before the acceptance

    const TK_S32 auth_id = 4242;
    ASSERT_TRUE(cgtest::send_message(cam.get(), 0, &auth_id, sizeof auth_id));
    ASSERT_TRUE(cgtest::wait_until([] { return ctrl_session_count() == 1; }, 3000));
    CTRL_SESSION rec{};
    int n = 1;
    netuser_get_ctrl_sessions(&rec, &n);
    EXPECT_EQ(rec.auth_id, 4242);
    EXPECT_EQ(rec.login_mode, LOGIN_MODE_REGISTER);
    EXPECT_STREQ(rec.user_name, "register user");
    USER_PRIVILEGE granted{};
    EXPECT_EQ(netuser_get_user_info(4242, nullptr, &granted), 0);
    EXPECT_EQ(std::memcmp(&granted, &para.reg_priv, sizeof granted), 0);

    // The centre now drives a control connection.
    NEW_PACKET_HEADER reply{};
    ASSERT_TRUE(cgtest::send_message(cam.get(), TK_CMD_HEARTBEAT));
    ASSERT_TRUE(cgtest::recv_exact(cam.get(), &reply, sizeof reply));
    EXPECT_EQ(reply.cmd, 0);
    ASSERT_TRUE(cgtest::send_message(cam.get(), TK_CMD_LOGOUT));
    ASSERT_TRUE(cgtest::recv_exact(cam.get(), &reply, sizeof reply));
    EXPECT_TRUE(cgtest::wait_peer_closed(cam.get(), 3000));
    EXPECT_EQ(ctrl_session_count(), 0);
    EXPECT_FALSE(centre_.accept(300).valid());  // no reconnection
}

TEST_F(ActiveRegister, RefusalOrACentreThatLeavesEarlyEndsTheThreadWithoutSession)
{
    const std::string id("\x63\0\0\0", 4);
    const std::string answers[] = {cgtest::header_bytes(-6, 4) + id, cgtest::header_bytes(0, 8) + id,
                                   cgtest::header_bytes(0, 0) + id, std::string("QVRM\0\0", 6)};  // half a header
    for (const std::string &answer : answers) {
        NET_CC_PARA para = centre_para(centre_.port());
        ASSERT_EQ(active_register(&para), 0);
        NEW_PACKET_HEADER head{};
        NEW_PP_REGISTER_REQ body{};
        cgtest::Fd cam = accept_registration(&head, &body);
        send(cam.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
        shutdown(cam.get(), SHUT_WR);
        EXPECT_TRUE(cgtest::wait_peer_closed(cam.get(), 3000)) << answer.size();
        EXPECT_EQ(ctrl_session_count(), 0);
    }
}

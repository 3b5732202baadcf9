// Active registration with the device description read from the settings
// server: the channel and the registration run in this process, against the
// simulator and a test centre.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "camgate-sysd/sysd_sim.h"
#include "main/socketclientcmd.h"
#include "main/tcl_hook.h"
#include "net/active_register.h"
#include "net/netuser.h"
#include "support/sockets.h"
#include "support/testenv.h"

namespace {

// The registration message as the centre receives it.
struct Registration {
    NEW_PACKET_HEADER head{};
    NEW_PP_REGISTER_REQ body{};
};

class CameraRegister : public ::testing::Test {
  protected:
    static void SetUpTestSuite()
    {
        sim_ = new sysd::SysServerSim();
        ASSERT_TRUE(sim_->start());
        // The channel reads its port once per process.
        setenv("CAMGATE_SYSSERVER_PORT", std::to_string(sim_->port()).c_str(), 1);
        ASSERT_EQ(socket_client_cmd_Init(SOCKET_THIRD_PARTY_PROTOCOL, nullptr), 0);
        get_g_tcl_info()->tcl_enable = 1;
        get_g_tcl_info()->tcl_st = con_suc;
        ASSERT_EQ(netuser_init(), 0);
    }
    static void TearDownTestSuite()
    {
        socket_client_cmd_uninit();
        delete sim_;
        sim_ = nullptr;
    }

    // Register with the centre while the settings server reports soft_version.
    Registration register_with(const char *soft_version)
    {
        DeviceInfoRsp info = sim_->get<DeviceInfoRsp>(ZQ_GETDEVICEINFO);
        wire_set_str(info.SoftWareVersion, soft_version);
        wire_set_str(info.DeviceId, "IPC-REG-42");
        sim_->put(ZQ_GETDEVICEINFO, info);
        DeviceCapabilityRsp cap = sim_->get<DeviceCapabilityRsp>(ZQ_GETDEVICECAP);
        cap.IoInputCount = 6;
        cap.IoOutputCount = 2;
        sim_->put(ZQ_GETDEVICECAP, cap);

        NET_CC_PARA para{};
        para.enable = 1;
        para.port = static_cast<TK_U16>(centre_.port());
        wire_set_str(para.cc_server, "localhost");
        Registration r;
        EXPECT_EQ(active_register(&para), 0);
        cgtest::Fd cam = centre_.accept();
        EXPECT_TRUE(cgtest::recv_exact(cam.get(), &r.head, sizeof r.head));
        EXPECT_TRUE(cgtest::recv_exact(cam.get(), &r.body, sizeof r.body));
        return r;  // the centre leaves: the camera's thread ends
    }

    static sysd::SysServerSim *sim_;
    cgtest::Listener centre_;
};

sysd::SysServerSim *CameraRegister::sim_ = nullptr;

}  // namespace

TEST_F(CameraRegister, DescriptionCarriesVersionAndReleaseDate)
{
    Registration r = register_with("V1.3.5 20150102");
    EXPECT_EQ(r.head.cmd, TK_CMD_REGISTER);
    EXPECT_EQ(r.head.len, 468u);
    const TK_DEVICE_INFO &d = r.body.dev_info;
    EXPECT_STREQ(d.serial_no, "IPC-REG-42");
    EXPECT_STREQ(d.dev_type, "IP_CAMERA");
    EXPECT_EQ(d.version, 135u);
    EXPECT_STREQ(d.release_date, "2015-01-02 00:00:00");
    EXPECT_EQ(d.alarmin_chns, 6);
    EXPECT_EQ(d.alarmout_chns, 2);
    EXPECT_EQ(d.video_chns, 1);
    EXPECT_EQ(d.netport_num, 1);
}

TEST_F(CameraRegister, VersionWithoutDateOrWithFourParts)
{
    Registration r = register_with("V2.0.1");
    EXPECT_EQ(r.body.dev_info.version, 201u);
    EXPECT_STREQ(r.body.dev_info.release_date, "");
    EXPECT_STREQ(r.body.dev_info.dev_type, "");
    r = register_with("V1.2.3.4");
    EXPECT_EQ(r.body.dev_info.version, 0u);
    EXPECT_STREQ(r.body.dev_info.serial_no, "IPC-REG-42");
}

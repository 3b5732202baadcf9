// Active registration with the device description read from the settings
// server: the channel and the registration run in this process, against the
// simulator and a test centre.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "camgate-sysd/sysd_sim.h"
#include "main/socketclientcmd.h"
#include "net/active_register.h"
#include "support/front_end.h"
#include "support/sockets.h"

TEST(CameraRegister, DescriptionCarriesSerialAlarmsVersionAndReleaseDate)
{
    sysd::SysServerSim sim;
    ASSERT_TRUE(sim.start());
    DeviceInfoRsp info = sim.get<DeviceInfoRsp>(ZQ_GETDEVICEINFO);
    wire_set_str(info.SoftWareVersion, "V1.3.5 20150102");
    wire_set_str(info.DeviceId, "IPC-REG-42");
    sim.put(ZQ_GETDEVICEINFO, info);
    DeviceCapabilityRsp cap = sim.get<DeviceCapabilityRsp>(ZQ_GETDEVICECAP);
    cap.IoInputCount = 6;
    cap.IoOutputCount = 2;
    sim.put(ZQ_GETDEVICECAP, cap);
    setenv("CAMGATE_SYSSERVER_PORT", std::to_string(sim.port()).c_str(), 1);
    ASSERT_EQ(socket_client_cmd_Init(SOCKET_THIRD_PARTY_PROTOCOL, nullptr), 0);
    cgtest::fresh_registry();

    cgtest::Listener centre;
    NET_CC_PARA para{};
    para.enable = 1;
    para.port = static_cast<TK_U16>(centre.port());
    wire_set_str(para.cc_server, "localhost");
    ASSERT_EQ(active_register(&para), 0);
    cgtest::Fd cam = centre.accept();
    NEW_PACKET_HEADER head{};
    NEW_PP_REGISTER_REQ body{};
    ASSERT_TRUE(cgtest::recv_exact(cam.get(), &head, sizeof head));
    ASSERT_TRUE(cgtest::recv_exact(cam.get(), &body, sizeof body));
    EXPECT_EQ(head.cmd, TK_CMD_REGISTER);
    EXPECT_EQ(head.len, 468u);
    const TK_DEVICE_INFO &d = body.dev_info;
    EXPECT_STREQ(d.serial_no, "IPC-REG-42");
    EXPECT_STREQ(d.dev_type, "IP_CAMERA");
    EXPECT_EQ(d.version, 135u);
    EXPECT_STREQ(d.release_date, "2015-01-02 00:00:00");
    EXPECT_EQ(d.alarmin_chns, 6);
    EXPECT_EQ(d.alarmout_chns, 2);
    cam.reset();  // the centre leaves: the camera's thread ends
    socket_client_cmd_uninit();
}

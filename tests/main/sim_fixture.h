// A settings-server simulator for in-process tests of the system-server
// channel. The channel reads its port once per process, so one simulator
// serves every test of the process, on a port chosen at first use; each test
// starts from the defaults, with the channel stopped at its end.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "camgate-sysd/sysd_sim.h"
#include "main/socketclientcmd.h"
#include "support/testenv.h"

namespace cgtest {

inline sysd::SysServerSim &process_sim()
{
    static std::unique_ptr<sysd::SysServerSim> sim = [] {
        std::unique_ptr<sysd::SysServerSim> s;
        for (int attempt = 0; attempt < 20; ++attempt) {
            sysd::Options opt;
            opt.port = free_tcp_port();
            s = std::make_unique<sysd::SysServerSim>(opt);
            if (s->start()) break;
            s.reset();
        }
        if (!s) std::abort();
        setenv("CAMGATE_SYSSERVER_PORT", std::to_string(s->port()).c_str(), 1);
        return s;
    }();
    return *sim;
}

class ChannelTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        sim().start();
        sim().reset_behaviour();
        sim().reset_store();
        sim().drop_connections();
        sim().clear_received();
    }
    void TearDown() override
    {
        socket_client_cmd_uninit();
        socket_client_reg_callback_cmd_Read(nullptr, nullptr);
        sim().reset_behaviour();
        sim().start();
    }
    static sysd::SysServerSim &sim() { return process_sim(); }

    // Start the channel as the daemon does and wait until the simulator has the connection.
    static void connect()
    {
        ASSERT_EQ(socket_client_cmd_Init(SOCKET_THIRD_PARTY_PROTOCOL, nullptr), 0);
        ASSERT_TRUE(sim().wait_connections(1, 2000));
    }
};

}  // namespace cgtest

#include "support/front_end.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "main/tcl_hook.h"
#include "net/netctrl.h"
#include "net/netuser.h"
#include "support/testenv.h"

namespace cgtest {

int front_end_port()
{
    static const bool started = [] {
        // Before anything reads it: the discovery loop must stay off the camera's port.
        const std::string discovery = std::to_string(free_port_tcp_and_udp());
        setenv("CAMGATE_DISCOVERY_PORT", discovery.c_str(), 1);
        tcl_info *info = get_g_tcl_info();
        info->tcl_addr = 0;
        info->tcl_port = static_cast<unsigned>(free_port_tcp_and_udp());
        info->tcl_enable = 1;
        info->audio_enable = 1;
        info->tcl_st = con_suc;
        info->udp_st = con_suc;
        return netctrl_init(info) == 0;
    }();
    EXPECT_TRUE(started) << "the in-process front end did not start";
    return started ? static_cast<int>(get_g_tcl_info()->tcl_port.load()) : -1;
}

void fresh_registry()
{
    tcl_info *info = get_g_tcl_info();
    info->tcl_enable = 1;
    info->tcl_st = con_suc;
    ASSERT_EQ(netuser_init(), 0);
}

int ctrl_session_count()
{
    int n = 0;
    netuser_get_ctrl_sessions(nullptr, &n);
    return n;
}

}  // namespace cgtest

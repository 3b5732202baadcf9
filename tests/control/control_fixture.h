// In-process control connections for the tests of the dispatcher and its
// handlers: control_routine runs on the server side of a loopback TCP pair,
// with a registry session whose rights the test chooses, and the
// system-server channel of this process is connected to a settings-server
// simulator, so a test sees both what the client receives and the exact
// records the simulator receives.
//
// The channel, the configuration directory and the shell log are
// process-wide (the daemon reads their settings once), so one simulator and
// one temporary directory serve every test of the program; each test starts
// from the simulator's defaults with an empty frame log.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "camgate-sysd/sysd_sim.h"
#include "common/tk_proto.h"
#include "net/netuser.h"
#include "support/sockets.h"
#include "support/testenv.h"

namespace cgtest {

// The simulator behind this process's system-server channel (started and
// connected on first use), and the process's configuration directory and shell log.
sysd::SysServerSim &control_sim();
const std::string &control_conf_dir();
std::string control_shell_log();

// A reply as the client sees it.
struct CtrlReply {
    int32_t result = 0;
    std::vector<uint8_t> body;

    template <class T>
    T as(size_t offset = 0) const
    {
        T rec{};
        if (body.size() >= offset) std::memcpy(&rec, body.data() + offset, std::min(sizeof rec, body.size() - offset));
        return rec;
    }
};

// Rights with only the given operation rights (and every channel right).
USER_PRIVILEGE rights_with(std::initializer_list<int> rights);

// Each test starts with a connection of a session with every right (open()).
class ControlConn : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Register a control session with these rights on a new connection and run control_routine on it.
    void open(const USER_PRIVILEGE &priv = all_rights(), int timeout = NETUSER_LOGIN_TIMEOUT);
    // Send a request and read its reply (header and body) within 5 s; fails the test otherwise.
    CtrlReply ask(int32_t cmd, const std::vector<uint8_t> &payload = {});
    template <class T>
    CtrlReply ask_rec(int32_t cmd, const T &rec)
    {
        return ask(cmd, bytes_of(rec));
    }
    // Send a request without reading a reply.
    void send_only(int32_t cmd, const std::vector<uint8_t> &payload = {});
    // Read one reply.
    CtrlReply read_reply();
    // True when the routine ended within 3 s; its result in *result.
    bool ended(int *result);
    // True when the device closed the connection within 3 s, with no byte left unread.
    bool closed_cleanly();

    // The data of the n-th frame with cmd the simulator received (fails the test when none came within 3 s).
    sysd::Frame frame(uint16_t cmd, int n = 1);
    // The command words of the frames received so far that are among cmds, in order.
    std::vector<uint16_t> sent(std::initializer_list<uint16_t> cmds);

    int client() const { return pair_.client.get(); }
    int session_id() const { return session_; }
    sysd::SysServerSim &sim() { return control_sim(); }

  private:
    TcpPair pair_;
    USER_PRIVILEGE priv_{};
    int session_ = -1;
    std::future<int> result_;
};

}  // namespace cgtest

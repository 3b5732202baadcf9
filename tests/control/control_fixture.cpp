#include "control/control_fixture.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "control/control.h"
#include "main/socketclientcmd.h"
#include "main/tcl_hook.h"
#include "net/netuser.h"
#include "support/front_end.h"

namespace cgtest {

namespace {

constexpr int kReplyWaitMs = 5000;

struct ProcessEnv {
    TempDir dir;
    std::string conf_dir = dir.file("conf");
    std::unique_ptr<sysd::SysServerSim> sim;

    ProcessEnv()
    {
        mkdir(conf_dir.c_str(), 0755);
        mkdir(dir.file("media").c_str(), 0755);
        setenv("CAMGATE_CONF_DIR", conf_dir.c_str(), 1);
        setenv("CAMGATE_MEDIA_ROOT", dir.file("media").c_str(), 1);
        setenv("CAMGATE_SHELL_LOG", dir.file("shell.log").c_str(), 1);
        sysd::Options opt;
        opt.push_protocol_on_set = false;  // no front end here to follow a port change
        sim = std::make_unique<sysd::SysServerSim>(opt);
        if (!sim->start()) std::abort();
        setenv("CAMGATE_SYSSERVER_PORT", std::to_string(sim->port()).c_str(), 1);
        if (socket_client_cmd_Init(SOCKET_THIRD_PARTY_PROTOCOL, nullptr) != 0 || !sim->wait_connections(1, 3000))
            std::abort();
    }
    ~ProcessEnv()
    {
        socket_client_cmd_uninit();
        sim->stop();
    }
};

ProcessEnv &process_env()
{
    static ProcessEnv env;
    return env;
}

}  // namespace

sysd::SysServerSim &control_sim()
{
    return *process_env().sim;
}

const std::string &control_conf_dir()
{
    return process_env().conf_dir;
}

std::string control_shell_log()
{
    return read_file(process_env().dir.file("shell.log"));
}

USER_PRIVILEGE rights_with(std::initializer_list<int> rights)
{
    USER_PRIVILEGE p;
    std::memset(&p, 1, sizeof p);
    std::memset(p.opt_rights, 0, sizeof p.opt_rights);
    for (int r : rights) p.opt_rights[r] = 1;
    return p;
}

void ControlConn::SetUp()
{
    sim().reset_behaviour();
    sim().reset_store();
    sim().clear_received();
    fresh_registry();
    open();
}

void ControlConn::TearDown()
{
    if (result_.valid()) {
        pair_.client.reset();
        EXPECT_EQ(result_.wait_for(std::chrono::seconds(3)), std::future_status::ready);
    }
}

void ControlConn::open(const USER_PRIVILEGE &priv, int timeout)
{
    if (result_.valid()) {
        pair_.client.reset();
        result_.wait_for(std::chrono::seconds(3));
    }
    pair_ = tcp_pair();
    ASSERT_TRUE(pair_.client.valid());
    priv_ = priv;
    session_ = netuser_add_login_ctrl_session(pair_.server.get(), "tester", &priv_, timeout);
    ASSERT_NE(session_, -1);
    const int fd = pair_.server.get();
    const int id = session_;
    result_ = std::async(std::launch::async, [this, fd, id] {
        std::vector<char> buf(CONTROL_BUF_SIZE);
        const int r = control_routine(fd, buf.data(), id, &priv_, id);
        netuser_remove_ctrl_session(id);
        return r;
    });
}

void ControlConn::send_only(int32_t cmd, const std::vector<uint8_t> &payload)
{
    EXPECT_TRUE(send_message(client(), cmd, payload.data(), payload.size())) << std::hex << cmd;
}

CtrlReply ControlConn::read_reply()
{
    CtrlReply r;
    NEW_PACKET_HEADER h{};
    if (!recv_message(client(), &h, &r.body, kReplyWaitMs)) {
        ADD_FAILURE() << "no whole reply";
        r.result = 12345;
        return r;
    }
    EXPECT_EQ(h.magic, TK_PROTO_MAGIC);
    r.result = h.cmd;
    return r;
}

CtrlReply ControlConn::ask(int32_t cmd, const std::vector<uint8_t> &payload)
{
    send_only(cmd, payload);
    return read_reply();
}

sysd::Frame ControlConn::frame(uint16_t cmd, int n)
{
    sysd::Frame f;
    EXPECT_TRUE(sim().wait_for(cmd, 3000, &f, n)) << "no frame 0x" << std::hex << cmd;
    return f;
}

std::vector<uint16_t> ControlConn::sent(std::initializer_list<uint16_t> cmds)
{
    std::vector<uint16_t> out;
    for (const sysd::Frame &f : sim().received())
        if (std::find(cmds.begin(), cmds.end(), f.cmd) != cmds.end()) out.push_back(f.cmd);
    return out;
}

bool ControlConn::ended(int *result)
{
    if (!result_.valid() || result_.wait_for(std::chrono::seconds(3)) != std::future_status::ready) return false;
    *result = result_.get();
    return true;
}

bool ControlConn::closed_cleanly()
{
    std::vector<uint8_t> rest;
    return wait_peer_closed(client(), 3000, &rest) && rest.empty();
}

}  // namespace cgtest

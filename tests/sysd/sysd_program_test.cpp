// The camgate-sysd program: its console commands, its state file and its options.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "sysd/sysd_client.h"

namespace {

using cgtest::Process;
using cgtest::SysdClient;

// camgate-sysd with its standard input on a FIFO the test writes to.
struct Program {
    cgtest::TempDir dir;
    Process proc;
    int console = -1;
    int port = 0;

    bool start(const std::vector<std::string> &extra = {})
    {
        const std::string fifo = dir.file("console");
        if (mkfifo(fifo.c_str(), 0600) != 0 && errno != EEXIST) return false;
        if (console < 0) console = open(fifo.c_str(), O_RDWR | O_CLOEXEC);  // O_RDWR: open does not wait for a reader
        proc.set_stdin(fifo);
        port = cgtest::free_tcp_port();
        std::vector<std::string> args{"--port", std::to_string(port)};
        args.insert(args.end(), extra.begin(), extra.end());
        return console >= 0 && proc.start(cgtest::bin_path("camgate-sysd"), args) &&
               proc.wait_output("listening on 127.0.0.1:" + std::to_string(port), 5000);
    }
    void command(const std::string &line)
    {
        const std::string text = line + "\n";
        ASSERT_EQ(write(console, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    ~Program()
    {
        proc.stop();
        if (console >= 0) close(console);
    }
};

TEST(SysdProgram, ConsoleCommandsChangeSettingsPushThemAndAreStored)
{
    Program prog;
    const std::string state = prog.dir.file("sysd.state");
    ASSERT_TRUE(prog.start({"--state", state, "--verbose"})) << prog.proc.err();
    SysdClient client(prog.port);
    bool answered = false;
    client.request(ZQ_GETDEVICECAP, nullptr, 0, &answered);
    ASSERT_TRUE(answered) << "the server has taken the connection, so pushes reach it";
    // A console line and the push it makes.
    auto pushed = [&](const std::string &line) {
        prog.command(line);
        sysd::Frame f;
        EXPECT_TRUE(client.read(&f)) << line;
        return f;
    };
    sysd::Frame f = pushed("protocol off");
    EXPECT_EQ(f.cmd, ZQ_PUSH_NETWORKPROTOCOL);
    EXPECT_EQ(f.param, SOCKET_DEVICE_NOBLOCK);
    ASSERT_EQ(f.data.size(), 2672u);
    EXPECT_EQ(f.as<NetworkProtocol>().ThirdPartyProtocolEnable, 0);
    f = pushed("port 7300");
    EXPECT_EQ(f.as<NetworkProtocol>().TclPort, 7300);
    EXPECT_EQ(f.as<NetworkProtocol>().ThirdPartyProtocolEnable, 0) << "one change at a time";
    EXPECT_EQ(pushed("type 2").as<NetworkProtocol>().ThirdPartyProtocolType, 2);
    EXPECT_EQ(pushed("protocol on").as<NetworkProtocol>().ThirdPartyProtocolEnable, 1);
    EXPECT_EQ(pushed("push 306").cmd, ZQ_PUSH_NETWORKPROTOCOL);
    f = pushed("push 508 9");
    EXPECT_EQ(f.cmd, ZQ_PUSH_ALARM);
    ASSERT_EQ(f.data.size(), 580u);
    EXPECT_EQ(f.as<AlarmInfo>().AlarmType, 9);
    f = pushed("push 204");
    EXPECT_EQ(f.cmd, ZQ_PUSH_SERVICE_STOP);
    EXPECT_TRUE(f.data.empty());

    prog.command("port 70000");
    prog.command("launch rockets");
    prog.command("show");
    EXPECT_TRUE(prog.proc.wait_output("platform protocol: on, type 2, client port 7300", 3000)) << prog.proc.out();
    EXPECT_EQ(prog.proc.count_output("unknown command"), 2);
    EXPECT_TRUE(prog.proc.wait_output("clients connected: 1", 3000));
    prog.command("help");
    EXPECT_TRUE(prog.proc.wait_output("push 508 TYPE", 3000));

    // --verbose: one line per frame received.
    NetworkProtocolReq req{};
    EXPECT_EQ(client.request(ZQ_GETNETWORKPROTOCOL, &req, sizeof req).size(), 2672u);
    EXPECT_TRUE(prog.proc.wait_output("recv dev 6 param 1 cmd 0x305 len 54", 3000)) << prog.proc.out();

    // The settings made on the console are in the state file for the next start.
    prog.command("quit");
    int status = 0;
    ASSERT_TRUE(prog.proc.wait_exit(5000, &status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    ASSERT_TRUE(prog.start({"--state", state}));
    {
        auto p = SysdClient(prog.port).get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
        EXPECT_EQ(p.TclPort, 7300);
        EXPECT_EQ(p.ThirdPartyProtocolType, 2);
    }

    // A signal stops it cleanly; --client-port overrides the stored port at start.
    EXPECT_EQ(kill(prog.proc.pid(), SIGTERM), 0);
    ASSERT_TRUE(prog.proc.wait_exit(5000, &status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    ASSERT_TRUE(prog.start({"--state", state, "--client-port", "7400"}));
    auto p = SysdClient(prog.port).get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
    EXPECT_EQ(p.TclPort, 7400);
    EXPECT_EQ(p.ThirdPartyProtocolType, 2);

    // A broken state file is reported and the defaults are served.
    prog.proc.stop();
    ASSERT_TRUE(cgtest::write_file(state, "CGSYSD01 but not really"));
    ASSERT_TRUE(prog.start({"--state", state}));
    EXPECT_TRUE(prog.proc.wait_output("using the defaults", 2000)) << prog.proc.err();
    EXPECT_EQ(SysdClient(prog.port).get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL).TclPort, 6258);
}

TEST(SysdProgram, HelpAndBadArguments)
{
    Process help;
    ASSERT_EQ(help.run(cgtest::bin_path("camgate-sysd"), {"--help"}), 0);
    for (const char *word :
         {"--port", "--state", "--client-port", "--no-push-on-set", "--verbose", "protocol on|off", "port N", "show"})
        EXPECT_NE(help.out().find(word), std::string::npos) << word;
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"--port", "99999"}, {"--bogus"}, {"--state"}}) {
        Process bad;
        EXPECT_EQ(bad.run(cgtest::bin_path("camgate-sysd"), args), 2) << args[0];
    }
}

}  // namespace

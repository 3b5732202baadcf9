// Start-up of the real daemon binary: the system-server attempts, the wait
// for the frame cache, and the platform settings read and pushed once it runs.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "camgate-sysd/sysd_sim.h"
#include "media/shm_cache.h"
#include "support/testenv.h"

namespace {

using cgtest::Process;

// The SigIgn mask of a process, from /proc.
unsigned long long ignored_signals(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("SigIgn:", 0) == 0) return std::stoull(line.substr(7), nullptr, 16);
    }
    return 0;
}

struct Daemon {
    cgtest::TempDir dir;
    cgtest::DaemonEnv env;
    Process proc;

    explicit Daemon(int sysserver_port) : env(cgtest::DaemonEnv::in(dir, sysserver_port)) {}
    ~Daemon()
    {
        proc.stop();
        cgtest::remove_ipc(env.shm_key);
    }
    bool start() { return proc.start(cgtest::bin_path("camgated"), {}, env.to_env()); }
};

TEST(StartUp, WithoutServerOrFrameCacheTriesTwelveTimesWaitsTwentySecondsAndEndsWithMinusOne)
{
    const int port = cgtest::free_tcp_port();  // nothing listens there yet
    Daemon d(port);
    const int64_t t0 = cgtest::now_ms();
    ASSERT_TRUE(d.start());

    ASSERT_TRUE(d.proc.wait_output("wait shm write init retry=10", 5000)) << d.proc.out() << d.proc.err();
    const std::string early = d.proc.out() + d.proc.err();
    EXPECT_NE(early.find("vsd_init version = V1.3 pid = " + std::to_string(d.proc.pid())), std::string::npos);
    for (int retry = 0; retry < 12; ++retry)
        EXPECT_EQ(d.proc.count_output("error to connect to systemServer retry = " + std::to_string(retry) + "\n"), 1)
            << "attempt " << retry;
    EXPECT_EQ(d.proc.count_output("error to connect to systemServer retry = 12"), 0);
    EXPECT_EQ(d.proc.count_output("connect to systemServer success"), 0);
    EXPECT_NE(ignored_signals(d.proc.pid()) & (1ull << (SIGPIPE - 1)), 0u) << "SIGPIPE is ignored";

    // The channel keeps trying in the background: a server that appears now is reached.
    sysd::Options opt;
    opt.port = port;
    sysd::SysServerSim sim(opt);
    ASSERT_TRUE(sim.start());
    sysd::Frame hb;
    EXPECT_TRUE(sim.wait_for(ZQ_HEARTBEAT, 9000, &hb));
    EXPECT_EQ(hb.as<HEARTBEAT>().Pid, d.proc.pid());

    int status = 0;
    ASSERT_TRUE(d.proc.wait_exit(25000, &status)) << d.proc.out();
    const int64_t lived = cgtest::now_ms() - t0;
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 255) << "main returned -1";
    EXPECT_GE(lived, 19000) << "10 waits of 2 s";
    EXPECT_LE(lived, 24000);

    // The countdown in order, then the failure.
    const std::string out = d.proc.out();
    const std::string all = out + d.proc.err();
    size_t at = 0;
    for (int left = 10; left >= 1; --left) {
        at = all.find(" wait shm write init retry=" + std::to_string(left) + "\n", at);
        ASSERT_NE(at, std::string::npos) << left;
    }
    EXPECT_NE(all.find("shm_cache_reader_init error \n"), std::string::npos);
    EXPECT_NE(out.find("--- main "), std::string::npos) << "the wait lines name the function main";
    EXPECT_EQ(d.proc.count_output(" wait shm write init retry="), 10);
}

TEST(StartUp, CacheThatAppearsDuringTheWaitLetsStartUpGoOnToTheSettings)
{
    sysd::SysServerSim sim;
    ASSERT_TRUE(sim.start());
    const int client_port = cgtest::free_port_tcp_and_udp();
    NetworkProtocol p = sim.get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
    p.ThirdPartyProtocolEnable = 1;
    p.ThirdPartyProtocolType = 2;
    p.TclPort = static_cast<uint16_t>(client_port);
    sim.put(ZQ_GETNETWORKPROTOCOL, p);

    Daemon d(sim.port());
    ASSERT_TRUE(d.start());
    ASSERT_TRUE(d.proc.wait_output("connect to systemServer success", 5000)) << d.proc.out();
    EXPECT_EQ(d.proc.count_output("error to connect to systemServer"), 0);
    ASSERT_TRUE(d.proc.wait_output("wait shm write init retry=10", 5000));

    setenv("CAMGATE_SHM_KEY", std::to_string(d.env.shm_key).c_str(), 1);
    shm_cache_info_t info{};
    info.video_buf_cnt = 1;
    info.video_buf_size[0] = 64;
    ASSERT_EQ(shm_cache_writer_init(&info), 0);
    const int64_t created = cgtest::now_ms();

    ASSERT_TRUE(d.proc.wait_output("shm_cache_reader_init success", 4000)) << d.proc.out();
    EXPECT_LE(cgtest::now_ms() - created, 3000) << "found at the next attempt";
    const std::string settings =
        "ThirdPartyProtocolEnable = 1, ThirdPartyProtocolType = 2,net_proto.TclPort = " + std::to_string(client_port);
    ASSERT_TRUE(d.proc.wait_output(settings, 5000)) << d.proc.out();
    EXPECT_EQ(sim.count(ZQ_GETNETWORKPROTOCOL), 1);

    // The push callback is registered: the server's changes reach the daemon.
    p.ThirdPartyProtocolType = 1;
    ASSERT_TRUE(sim.push(ZQ_PUSH_NETWORKPROTOCOL, &p, sizeof p));
    EXPECT_TRUE(d.proc.wait_output("shCmd = 0x306, nOutLen = 2672", 3000));
    EXPECT_TRUE(d.proc.wait_output("tcl_enable = 1, tcl_port = " + std::to_string(client_port) + ", tcl_st = 0", 3000))
        << d.proc.err();
    AlarmInfo alarm{};
    alarm.AlarmType = 11;
    ASSERT_TRUE(sim.push(ZQ_PUSH_ALARM, &alarm, sizeof alarm));
    EXPECT_TRUE(d.proc.wait_output("alarmInfo->AlarmType = 0xb", 3000));
    ASSERT_TRUE(sim.push(ZQ_PUSH_SERVICE_STOP, nullptr, 0));
    EXPECT_TRUE(d.proc.wait_output("shCmd = 0x204, nOutLen = 0", 3000));
    EXPECT_TRUE(d.proc.running()) << "the daemon sleeps on in its main thread";

    shm_cache_writer_uninit();
    unsetenv("CAMGATE_SHM_KEY");
}

}  // namespace

// main() of every test program: the daemon code linked into a test must never
// run a real shell command or broadcast beyond loopback, so the two safety
// variables are forced before any test runs.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <string>

int main(int argc, char **argv)
{
    const std::string recorder = std::string(CAMGATE_SOURCE_DIR) + "/tests/tools/shell-recorder";
    setenv("CAMGATE_SHELL", recorder.c_str(), 1);
    setenv("CAMGATE_BROADCAST_ADDR", "127.255.255.255", 1);
    // The daemon ignores SIGPIPE, and its code runs in the tests too: a reply
    // written after a test's client has gone must fail, not end the test program.
    std::signal(SIGPIPE, SIG_IGN);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

// The shell indirection that keeps tests from running real commands, and the log line format.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "common/env.h"
#include "common/log.h"
#include "support/testenv.h"

TEST(EnvSystem, RecorderLogsEveryCommandAndRunsOnlyTempRemovals)
{
    cgtest::TempDir dir;
    const std::string log = dir.file("shell.log");
    setenv("CAMGATE_SHELL_LOG", log.c_str(), 1);
    ASSERT_TRUE(cgtest::write_file(dir.file("config_record1"), "x"));
    ASSERT_TRUE(cgtest::write_file(dir.file("config_other"), "x"));

    EXPECT_EQ(env_system("reboot"), 0);
    EXPECT_EQ(env_system(("rm -rf " + dir.path() + "/config_record*").c_str()), 0);
    EXPECT_EQ(env_system("rm -rf /etc/camgate-never-there*"), 0);

    struct stat st {};
    EXPECT_NE(stat(dir.file("config_record1").c_str(), &st), 0) << "pattern inside the temp dir is removed";
    EXPECT_EQ(stat(dir.file("config_other").c_str(), &st), 0) << "files the pattern misses stay";
    EXPECT_EQ(cgtest::read_file(log),
              "reboot\nrm -rf " + dir.path() + "/config_record*\nrm -rf /etc/camgate-never-there*\n");
    unsetenv("CAMGATE_SHELL_LOG");
}

TEST(Log, LinesCarryPrefixBaseNameAndPaddedLine)
{
    cgtest::TempDir dir;
    FILE *f = std::fopen(dir.file("log").c_str(), "w+");
    ASSERT_NE(f, nullptr);
    log_line(f, "[-DBG-] [%s:%5d] --- ", "/a/b/netctrl.cpp", 42, "accept fd[%d]", 7);
    log_line(f, "[*ERR*] [%s:%5d] *** ", "x.cpp", 12345, "ends with newline\n");
    log_bare(f, "bare %s", "line");
    std::fclose(f);
    EXPECT_EQ(cgtest::read_file(dir.file("log")),
              "[-DBG-] [netctrl.cpp:   42] --- accept fd[7]\n"
              "[*ERR*] [x.cpp:12345] *** ends with newline\n"
              "bare line\n");
}

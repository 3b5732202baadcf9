// Test support shared by every test program: bounded waits, free loopback
// ports, unique System V keys, temporary directories, and a launcher for the
// real daemon binary with its output captured.
//
// Every daemon started here runs with CAMGATE_SHELL set to the shell
// recorder of tests/tools and CAMGATE_BROADCAST_ADDR set to 127.255.255.255,
// whatever the caller passes, so no test can reboot or re-route the machine.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace cgtest {

// Poll pred every poll_ms until it is true or timeout_ms have passed; the result of the last poll.
bool wait_until(const std::function<bool()> &pred, int timeout_ms, int poll_ms = 10);

// A loopback port that was free a moment ago (TCP, or TCP and UDP both).
int free_tcp_port();
int free_port_tcp_and_udp();

// A System V key no other test process uses (from the pid and a counter).
key_t unique_ipc_key();

// Remove the shared-memory segment and semaphore set under key, if any.
void remove_ipc(key_t key);

// Milliseconds of CLOCK_MONOTONIC.
int64_t now_ms();

// A fresh directory under $TMPDIR (or /tmp), removed with its contents on destruction.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// Whole contents of a file ("" when missing).
std::string read_file(const std::string &path);
bool write_file(const std::string &path, const std::string &data);

// Path of a program built into build/bin.
std::string bin_path(const std::string &program);

// A program started with fork/exec, stdout and stderr captured in files.
class Process {
  public:
    Process() = default;
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    // Start program with args; env entries are added to (and override) the
    // inherited environment. CAMGATE_SHELL and CAMGATE_BROADCAST_ADDR are
    // always forced to their safe values. False when the program cannot start.
    bool start(const std::string &program, const std::vector<std::string> &args = {},
               const std::map<std::string, std::string> &env = {});
    // Start the program and wait for its end: its exit status, -1 when it did
    // not start, did not end within timeout_ms (it is killed then) or died of a signal.
    int run(const std::string &program, const std::vector<std::string> &args = {}, int timeout_ms = 15000);
    // Standard input of the next start(): the file (or FIFO) at path instead of /dev/null.
    void set_stdin(const std::string &path) { stdin_path_ = path; }
    pid_t pid() const { return pid_; }
    bool running();
    // Wait for the exit; true and the wait status when it exited within timeout_ms.
    bool wait_exit(int timeout_ms, int *status = nullptr);
    // Send sig (SIGKILL by default) and reap; returns the wait status.
    int stop(int sig = 9);

    std::string out() const;  // everything written to stdout so far
    std::string err() const;  // everything written to stderr so far
    // Wait until text appears in stdout or stderr (count times in all).
    bool wait_output(const std::string &text, int timeout_ms, int count = 1) const;
    // Occurrences of text in stdout and stderr together.
    int count_output(const std::string &text) const;

  private:
    pid_t pid_ = -1;
    int status_ = 0;
    bool reaped_ = false;
    std::string stdin_path_ = "/dev/null";
    TempDir dir_;
};

// Wire environment of a daemon under test, filled from the simulators' ports.
struct DaemonEnv {
    // A unique frame-cache key, a free discovery port, and the media and
    // configuration directories and the shell log under dir.
    static DaemonEnv in(const TempDir &dir, int sysserver_port = 0);

    int sysserver_port = 0;
    key_t shm_key = 0;
    int discovery_port = 0;
    std::string media_root;
    std::string conf_dir;
    std::string shell_log;  // where the shell recorder writes
    std::map<std::string, std::string> to_env() const;
};

}  // namespace cgtest

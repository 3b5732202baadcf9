#include "support/testenv.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

extern char **environ;

namespace cgtest {

int64_t now_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool wait_until(const std::function<bool()> &pred, int timeout_ms, int poll_ms)
{
    const int64_t deadline = now_ms() + timeout_ms;
    for (;;) {
        if (pred()) return true;
        if (now_ms() >= deadline) return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(poll_ms));
    }
}

namespace {

int bound_port(int type, int port)
{
    int fd = socket(AF_INET, type, 0);
    if (fd < 0) return -1;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    int result = -1;
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0) {
        socklen_t len = sizeof addr;
        if (getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len) == 0) result = ntohs(addr.sin_port);
    }
    close(fd);
    return result;
}

}  // namespace

int free_tcp_port()
{
    return bound_port(SOCK_STREAM, 0);
}

int free_port_tcp_and_udp()
{
    for (int attempt = 0; attempt < 100; ++attempt) {
        int port = bound_port(SOCK_STREAM, 0);
        if (port > 0 && bound_port(SOCK_DGRAM, port) == port) return port;
    }
    return -1;
}

key_t unique_ipc_key()
{
    static std::atomic<int> counter{0};
    // 0x5C prefix keeps clear of the camera's 0x888888; 16 bits of pid, 8 of counter.
    return static_cast<key_t>(0x5C000000 | ((getpid() & 0xFFFF) << 8) | (counter++ & 0xFF));
}

void remove_ipc(key_t key)
{
    int shmid = shmget(key, 0, 0);
    if (shmid >= 0) shmctl(shmid, IPC_RMID, nullptr);
    int semid = semget(key, 0, 0);
    if (semid >= 0) semctl(semid, 0, IPC_RMID);
}

TempDir::TempDir()
{
    const char *base = std::getenv("TMPDIR");
    std::string tmpl = std::string(base && base[0] ? base : "/tmp") + "/camgate-test-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) != nullptr) path_ = buf.data();
}

TempDir::~TempDir()
{
    if (path_.empty() || path_.find("/camgate-test-") == std::string::npos) return;
    pid_t pid = fork();
    if (pid == 0) {
        execlp("rm", "rm", "-rf", "--", path_.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    if (pid > 0) waitpid(pid, nullptr, 0);
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool write_file(const std::string &path, const std::string &data)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << data;
    return static_cast<bool>(out);
}

std::string bin_path(const std::string &program)
{
    return std::string(CAMGATE_BIN_DIR) + "/" + program;
}

Process::~Process()
{
    stop();
}

bool Process::start(const std::string &program, const std::vector<std::string> &args,
                    const std::map<std::string, std::string> &env)
{
    std::map<std::string, std::string> merged;
    for (char **e = environ; *e != nullptr; ++e) {
        const char *eq = std::strchr(*e, '=');
        if (eq) merged[std::string(*e, static_cast<size_t>(eq - *e))] = eq + 1;
    }
    for (const auto &kv : env) merged[kv.first] = kv.second;
    merged["CAMGATE_SHELL"] = std::string(CAMGATE_SOURCE_DIR) + "/tests/tools/shell-recorder";
    merged["CAMGATE_BROADCAST_ADDR"] = "127.255.255.255";

    std::vector<std::string> env_strings;
    for (const auto &kv : merged) env_strings.push_back(kv.first + "=" + kv.second);
    std::vector<char *> envp;
    for (auto &s : env_strings) envp.push_back(s.data());
    envp.push_back(nullptr);
    std::vector<std::string> argv_strings{program};
    argv_strings.insert(argv_strings.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (auto &s : argv_strings) argv.push_back(s.data());
    argv.push_back(nullptr);

    const std::string stdin_path = stdin_path_;
    const std::string out_path = dir_.file("stdout");
    const std::string err_path = dir_.file("stderr");
    pid_ = fork();
    if (pid_ < 0) return false;
    if (pid_ == 0) {
        int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (out < 0 || err < 0) _exit(126);
        dup2(out, 1);
        dup2(err, 2);
        close(out);
        close(err);
        int in = open(stdin_path.c_str(), O_RDONLY);
        if (in >= 0) {
            dup2(in, 0);
            close(in);
        }
        signal(SIGPIPE, SIG_DFL);  // the test program ignores it; the program gets its own default
        execve(program.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    reaped_ = false;
    return true;
}

int Process::run(const std::string &program, const std::vector<std::string> &args, int timeout_ms)
{
    int status = 0;
    if (!start(program, args)) return -1;
    if (!wait_exit(timeout_ms, &status)) {
        stop();
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool Process::running()
{
    if (pid_ <= 0 || reaped_) return false;
    int status = 0;
    pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
        reaped_ = true;
        status_ = status;
        return false;
    }
    return r == 0;
}

bool Process::wait_exit(int timeout_ms, int *status)
{
    bool exited = wait_until([this] { return !running(); }, timeout_ms, 5);
    if (exited && status) *status = status_;
    return exited;
}

int Process::stop(int sig)
{
    if (pid_ <= 0) return status_;
    if (!reaped_) {
        kill(pid_, sig);
        int status = 0;
        if (waitpid(pid_, &status, 0) == pid_) status_ = status;
        reaped_ = true;
    }
    return status_;
}

std::string Process::out() const
{
    return read_file(dir_.file("stdout"));
}

std::string Process::err() const
{
    return read_file(dir_.file("stderr"));
}

int Process::count_output(const std::string &text) const
{
    int n = 0;
    for (const std::string &all : {out(), err()}) {
        for (size_t pos = all.find(text); pos != std::string::npos; pos = all.find(text, pos + text.size())) ++n;
    }
    return n;
}

bool Process::wait_output(const std::string &text, int timeout_ms, int count) const
{
    return wait_until([&] { return count_output(text) >= count; }, timeout_ms, 10);
}

DaemonEnv DaemonEnv::in(const TempDir &dir, int sysserver_port)
{
    DaemonEnv env;
    env.sysserver_port = sysserver_port;
    env.shm_key = unique_ipc_key();
    env.discovery_port = free_port_tcp_and_udp();
    env.media_root = dir.file("media");
    env.conf_dir = dir.file("conf");
    env.shell_log = dir.file("shell.log");
    return env;
}

std::map<std::string, std::string> DaemonEnv::to_env() const
{
    std::map<std::string, std::string> env;
    if (sysserver_port > 0) env["CAMGATE_SYSSERVER_PORT"] = std::to_string(sysserver_port);
    if (shm_key != 0) env["CAMGATE_SHM_KEY"] = std::to_string(shm_key);
    if (discovery_port > 0) env["CAMGATE_DISCOVERY_PORT"] = std::to_string(discovery_port);
    if (!media_root.empty()) env["CAMGATE_MEDIA_ROOT"] = media_root;
    if (!conf_dir.empty()) env["CAMGATE_CONF_DIR"] = conf_dir;
    if (!shell_log.empty()) env["CAMGATE_SHELL_LOG"] = shell_log;
    env["CAMGATE_IFNAME"] = "lo";
    return env;
}

}  // namespace cgtest

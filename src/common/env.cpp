#include "common/env.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

const char *env_or(const char *name, const char *fallback)
{
    const char *value = std::getenv(name);
    return (value != nullptr && value[0] != '\0') ? value : fallback;
}

long env_number(const char *name, long fallback)
{
    const char *value = std::getenv(name);
    if (value == nullptr || value[0] == '\0') return fallback;
    char *end = nullptr;
    errno = 0;
    long n = std::strtol(value, &end, 0);  // base 0: decimal or 0x-hex
    if (errno != 0 || end == value || *end != '\0') return fallback;
    return n;
}

std::string without_trailing_slash(const char *path)
{
    std::string s(path);
    while (s.size() > 1 && s.back() == '/') s.pop_back();
    return s;
}

}  // namespace

int env_sysserver_port()
{
    static const int port = static_cast<int>(env_number("CAMGATE_SYSSERVER_PORT", 19436));
    return port;
}

key_t env_shm_key()
{
    return static_cast<key_t>(env_number("CAMGATE_SHM_KEY", 0x888888));
}

const char *env_media_root()
{
    static const std::string root = without_trailing_slash(env_or("CAMGATE_MEDIA_ROOT", "/media"));
    return root.c_str();
}

std::string env_media_path(const char *rel)
{
    return std::string(env_media_root()) + (rel ? rel : "");
}

const char *env_conf_dir()
{
    static const std::string dir = without_trailing_slash(env_or("CAMGATE_CONF_DIR", "/param/config/conf"));
    return dir.c_str();
}

int env_discovery_port()
{
    static const int port = static_cast<int>(env_number("CAMGATE_DISCOVERY_PORT", 16258));
    return port;
}

const char *env_broadcast_addr()
{
    static const std::string addr = env_or("CAMGATE_BROADCAST_ADDR", "255.255.255.255");
    return addr.c_str();
}

const char *env_ifname()
{
    static const std::string name = env_or("CAMGATE_IFNAME", "eth0");
    return name.c_str();
}

const char *env_proc_mounts()
{
    static const std::string path = env_or("CAMGATE_PROC_MOUNTS", "/proc/mounts");
    return path.c_str();
}

int env_system(const char *command)
{
    const char *shell = std::getenv("CAMGATE_SHELL");
    if (shell == nullptr || shell[0] == '\0') return std::system(command);
    if (command == nullptr) return 1;  // like system(NULL): a shell is available
    char *argv[] = {const_cast<char *>(shell), const_cast<char *>(command), nullptr};
    pid_t pid;
    if (posix_spawn(&pid, shell, nullptr, nullptr, argv, environ) != 0) return -1;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return status;
}

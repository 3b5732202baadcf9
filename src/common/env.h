// Environment overrides of the daemon.
//
// On a camera none of these variables is set and the daemon uses the fixed
// values of the product. On a development machine they move the daemon's
// ports, paths and shell commands out of the way of the host. Each getter
// reads its variable once and keeps the value for the life of the process,
// except where noted.
#pragma once

#include <string>
#include <sys/types.h>

// TCP port of the system server on 127.0.0.1 (CAMGATE_SYSSERVER_PORT, 19436).
int env_sysserver_port();

// Key of the frame-cache segment and of its semaphore set (CAMGATE_SHM_KEY,
// 0x888888; decimal or 0x-hex). Read anew on every call, so tests can change it.
key_t env_shm_key();

// Root of the storage card (CAMGATE_MEDIA_ROOT, "/media"), without a trailing slash.
const char *env_media_root();

// env_media_root() followed by rel, e.g. env_media_path("/IPCamera/") gives "/media/IPCamera/".
std::string env_media_path(const char *rel);

// Directory of the system server's configuration files (CAMGATE_CONF_DIR,
// "/param/config/conf"), without a trailing slash.
const char *env_conf_dir();

// Port of the discovery loop and destination port of search replies
// (CAMGATE_DISCOVERY_PORT, 16258).
int env_discovery_port();

// Destination address of search replies (CAMGATE_BROADCAST_ADDR, "255.255.255.255").
const char *env_broadcast_addr();

// Network interface of the MAC fallback and of the route command (CAMGATE_IFNAME, "eth0").
const char *env_ifname();

// File read by the mount check (CAMGATE_PROC_MOUNTS, "/proc/mounts").
const char *env_proc_mounts();

// Run a shell command like system(3). When CAMGATE_SHELL is set, the program
// it names is run instead with the command text as its single argument, and
// waited for; the result is that of system() or of waitpid's status likewise.
int env_system(const char *command);

// camgated: start-up of the daemon.
//
// Ignore SIGPIPE, clear the platform-protocol state, connect to the system
// server (12 attempts, then on without it), attach to the encoder's frame
// cache (10 attempts 2 s apart, else exit with -1), register the push
// callback, read the platform-protocol settings, start the network front end,
// and sleep for ever. There is no orderly shutdown.
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

#include "common/log.h"
#include "main/socketclientcmd.h"
#include "main/tcl_hook.h"
#include "media/shm_cache.h"
#include "net/netctrl.h"

namespace {

constexpr const char *kVersion = "V1.3";
constexpr int kSysServerAttempts = 12;
constexpr int kCacheAttempts = 10;
constexpr unsigned kCacheRetryPauseSec = 2;

// Kept by the system-server channel together with the push callback.
std::array<char, 1024> g_cbBuf{};

// A write to a closed socket must return an error, not end the process.
void SetupSignal()
{
    struct sigaction sa {};
    sa.sa_handler = SIG_IGN;
    sa.sa_flags = 0;
    if (sigemptyset(&sa.sa_mask) == -1 || sigaction(SIGPIPE, &sa, nullptr) == -1) {
        ERR("SetupSignal failed");
        std::exit(-1);
    }
}

}  // namespace

int main()
{
    log_init_line_buffering();
    SetupSignal();
    tcl_info_reset(&g_tcl_info);
    DBG("vsd_init version = %s pid = %d", kVersion, static_cast<int>(getpid()));

    for (int retry = 0; retry < kSysServerAttempts; ++retry) {
        if (socket_client_cmd_Init(SOCKET_THIRD_PARTY_PROTOCOL, nullptr) == 0) {
            DBG("connect to systemServer success");
            break;
        }
        ERR("error to connect to systemServer retry = %d", retry);
    }

    for (int left = kCacheAttempts;; --left) {
        if (shm_cache_reader_init() == 0) {
            DBG("shm_cache_reader_init success");
            break;
        }
        DBG("%s %d wait shm write init retry=%d", __func__, __LINE__, left);
        sleep(kCacheRetryPauseSec);
        if (left == 1) {
            ERR("shm_cache_reader_init error ");
            return -1;
        }
    }

    socket_client_reg_callback_cmd_Read(TclCB, g_cbBuf.data());
    check_tcl_enable(&g_tcl_info);
    netctrl_init(&g_tcl_info);  // without network service the process still stays up

    for (;;) sleep(1);
}

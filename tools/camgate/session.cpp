// camgate session: log in and keep the session alive with heartbeats until
// interrupted (SIGINT or SIGTERM log out cleanly) or --count heartbeats are done.
#include <signal.h>
#include <time.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <iostream>

#include "client/client.h"
#include "command.h"
#include "output.h"

namespace camgate {
namespace tool {

namespace {

// The camera drops a control session after about 12 s without a heartbeat.
constexpr double kSafeInterval = 10.0;

std::vector<OptionDef> session_options()
{
    std::vector<OptionDef> defs = connection_options();
    defs.push_back({"interval", "SECONDS", "time between heartbeats (default 5; the camera waits about 12 s)"});
    defs.push_back({"count", "N", "log out after N heartbeats (default 0: until interrupted)"});
    defs.push_back({"json", "", "print one JSON object per line instead of text"});
    return defs;
}

// Wait up to seconds for SIGINT or SIGTERM (blocked by the caller); the signal, or 0 after the time.
int wait_signal(const sigset_t &set, double seconds)
{
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(seconds);
    ts.tv_nsec = static_cast<long>((seconds - static_cast<double>(ts.tv_sec)) * 1e9);
    for (;;) {
        const int sig = sigtimedwait(&set, nullptr, &ts);
        if (sig > 0) return sig;
        if (errno == EAGAIN) return 0;
        // EINTR: another signal; waiting again from the full interval keeps the wait bounded.
    }
}

int run_session(const Options &opts)
{
    const Target t = target_from(opts);
    const double interval = opts.number("interval", 5, 0.05, 3600);
    const long count = opts.integer("count", 0, 0, 1000000000);
    const bool json = opts.has("json");
    if (interval > kSafeInterval)
        std::cerr << "camgate session: warning: heartbeats more than " << kSafeInterval
                  << " s apart let the camera drop the session" << std::endl;

    // Signals are taken synchronously between heartbeats, so a heartbeat is never cut in half.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigprocmask(SIG_BLOCK, &set, nullptr);

    client::Session session = login_to(t);
    const client::LoginInfo &info = session.info();
    if (json)
        std::cout << JsonObject()
                         .add("event", "login")
                         .add("peer", session.connection().peer())
                         .add("user", t.user)
                         .add("session_id", static_cast<long long>(info.session_id))
                         .add("session_id_hex", hex_id(info.session_id))
                         .str()
                  << std::endl;
    else
        std::cout << "logged in to " << session.connection().peer() << " as " << t.user << ", session "
                  << hex_id(info.session_id) << std::endl;

    long done = 0;
    int sig = 0;
    while (count == 0 || done < count) {
        sig = wait_signal(set, interval);
        if (sig != 0) break;
        const auto start = std::chrono::steady_clock::now();
        try {
            session.heartbeat();
        } catch (const client::Error &e) {
            std::cerr << "camgate session: heartbeat " << done + 1 << " failed: " << e.what();
            if (e.kind() == client::ErrorKind::Closed)
                std::cerr << " (the camera ends a session after about 12 s without heartbeats, or when its"
                             " client protocol is switched off)";
            std::cerr << std::endl;
            return 1;
        }
        ++done;
        const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
        if (json) {
            std::cout
                << JsonObject().add("event", "heartbeat").add("n", static_cast<long long>(done)).add("ms", ms).str()
                << std::endl;
        } else {
            char line[64];
            std::snprintf(line, sizeof line, "heartbeat %ld: ok, %.1f ms", done, ms);
            std::cout << line << std::endl;
        }
    }

    session.logout();
    const char *why = sig == SIGINT ? "interrupted" : sig == SIGTERM ? "terminated" : "done";
    if (json)
        std::cout << JsonObject()
                         .add("event", "logout")
                         .add("reason", why)
                         .add("heartbeats", static_cast<long long>(done))
                         .str()
                  << std::endl;
    else
        std::cout << "logged out (" << why << ") after " << done << " heartbeat" << (done == 1 ? "" : "s") << std::endl;
    return 0;
}

}  // namespace

Command session_command()
{
    return {"session",
            "log in and keep the session alive with heartbeats until interrupted",
            "camgate session [options]",
            "Logs in and sends a heartbeat every --interval seconds, one line per heartbeat,\n"
            "until interrupted (Ctrl-C or SIGTERM log out cleanly) or --count heartbeats are\n"
            "done. The camera drops a session about 12 s after its last heartbeat.",
            session_options,
            run_session};
}

}  // namespace tool
}  // namespace camgate

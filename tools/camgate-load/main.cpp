// camgate-load: run live viewers and control clients against a camera daemon
// on this machine for a fixed time and report what they saw and what the
// daemon's process used.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "client/client.h"
#include "load.h"

namespace {

const char kUsage[] =
    "usage: camgate-load [options]\n"
    "\n"
    "Runs live viewers (TCP preview) and control clients (login, then heartbeat,\n"
    "get network, get time in a loop) against a camera daemon on this machine\n"
    "for a fixed time, and reports:\n"
    "  - time to first frame: preview request sent -> last byte of the first I-frame;\n"
    "  - frame age on arrival: the frame's capture time (its pts, the encoder's\n"
    "    monotonic clock in ms, low 16 bits) -> received, for all frames and from\n"
    "    the moment the viewer has caught up with the encoder (a frame no older\n"
    "    than two frame periods);\n"
    "  - frames and bytes per viewer; control requests per second and their latency;\n"
    "  - from /proc/<pid> of the daemon: CPU seconds used during the run, RSS at\n"
    "    the start, every second and at the end, VmHWM (the peak of the process's\n"
    "    whole life) and its threads.\n"
    "Exit status 0 when every viewer and client was served, 1 when not, 2 for a\n"
    "wrong command line.\n"
    "\n"
    "  --host ADDR       the camera's address, a loopback address (default 127.0.0.1)\n"
    "  --port N          its client port (default 6258)\n"
    "  --user NAME       login of the viewers and clients (default admin)\n"
    "  --password TEXT   (default empty)\n"
    "  --viewers N       live viewers, 0 to 64 (default 1; the camera serves 8)\n"
    "  --stream I        stream index of the viewers (default 0)\n"
    "  --controls M      control clients, 0 to 64 (default 0)\n"
    "  --probes K        before the run, open K streams one at a time, each only up\n"
    "                    to its first I-frame, for the first-frame figures (default 0)\n"
    "  --duration S      length of the run in seconds (default 10)\n"
    "  --timeout-ms MS   time-out of a connection and of every read (default 3000)\n"
    "  --pid PID         the daemon's process\n"
    "  --name NAME       find the daemon's process by name when --pid is not given\n"
    "                    (default camgated; it must be the only one)\n"
    "  --no-proc         no process figures\n"
    "  --json            the report as one JSON object\n"
    "  --help            this text\n";

[[noreturn]] void usage_error(const std::string &msg)
{
    std::fprintf(stderr, "camgate-load: %s\n(camgate-load --help lists the options)\n", msg.c_str());
    std::exit(2);
}

double number(const std::string &opt, const char *text, double min, double max)
{
    char *end = nullptr;
    errno = 0;
    const double v = std::strtod(text, &end);
    if (errno != 0 || end == text || *end != '\0' || !(v >= min && v <= max))
        usage_error(opt + " wants a number from " + std::to_string(static_cast<long>(min)) + " to " +
                    std::to_string(static_cast<long>(max)) + ", not \"" + text + "\"");
    return v;
}

int whole(const std::string &opt, const char *text, long min, long max)
{
    const double v = number(opt, text, static_cast<double>(min), static_cast<double>(max));
    if (v != static_cast<double>(static_cast<long>(v))) usage_error(opt + " wants a whole number, not " + text);
    return static_cast<int>(v);
}

}  // namespace

int main(int argc, char **argv)
{
    load::Config cfg;
    bool json = false, no_proc = false;
    std::string name = "camgated";
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> const char * {
            if (i + 1 >= argc) usage_error(a + " wants a value");
            return argv[++i];
        };
        if (a == "--help" || a == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (a == "--host") {
            cfg.host = value();
        } else if (a == "--port") {
            cfg.port = whole(a, value(), 1, 65535);
        } else if (a == "--user") {
            cfg.user = value();
        } else if (a == "--password") {
            cfg.password = value();
        } else if (a == "--viewers") {
            cfg.viewers = whole(a, value(), 0, 64);
        } else if (a == "--stream") {
            cfg.stream = whole(a, value(), 0, 6);
        } else if (a == "--controls") {
            cfg.controls = whole(a, value(), 0, 64);
        } else if (a == "--probes") {
            cfg.probes = whole(a, value(), 0, 10000);
        } else if (a == "--duration") {
            cfg.duration_s = number(a, value(), 0.1, 86400);
        } else if (a == "--timeout-ms") {
            cfg.timeout_ms = whole(a, value(), 10, 600000);
        } else if (a == "--pid") {
            cfg.pid = whole(a, value(), 1, 0x7FFFFFFF);
        } else if (a == "--name") {
            name = value();
        } else if (a == "--no-proc") {
            no_proc = true;
        } else if (a == "--json") {
            json = true;
        } else {
            usage_error("unknown option " + a);
        }
    }
    // The load is meant for the daemon under test on this machine, never for a camera on a network.
    if (!load::is_loopback(cfg.host)) usage_error("--host must be a loopback address (127.x.x.x), not " + cfg.host);
    if (no_proc) {
        cfg.pid = 0;
    } else if (cfg.pid == 0) {
        cfg.pid = load::find_process(name);
        if (cfg.pid < 0) usage_error("several processes are named " + name + ": give --pid");
        if (cfg.pid == 0) usage_error("no process is named " + name + ": give --pid, or --no-proc");
    }

    try {
        const load::Result r = load::run(cfg);
        std::cout << (json ? load::json_report(r) : load::text_report(r)) << std::flush;
        std::string why;
        return load::run_ok(r, &why) ? 0 : 1;
    } catch (const camgate::client::Error &e) {
        std::fprintf(stderr, "camgate-load: %s\n", e.what());
        return 1;
    }
}

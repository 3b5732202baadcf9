// camgate-sysd: the camera's settings server, simulated, for running the
// daemon on a development machine. Serves the framed system-server protocol
// on 127.0.0.1 and takes commands on standard input.
#include <arpa/inet.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>

#include "sysd_sim.h"

namespace {

const char *kUsage =
    "usage: camgate-sysd [--port N] [--state FILE] [--client-port N] [--no-push-on-set] [--verbose]\n"
    "\n"
    "The camera's settings server, simulated. Listens on 127.0.0.1 (port %d unless\n"
    "--port says otherwise) for the framed commands of camgated, keeps every setting\n"
    "the daemon reads or writes with the defaults of a new camera, answers gets with\n"
    "the stored record and applies sets. After a change of the network-protocol\n"
    "settings it pushes 0x306 with the new record to every client.\n"
    "\n"
    "options:\n"
    "  --port N           TCP port on 127.0.0.1 (0: any free port, printed at start)\n"
    "  --state FILE       load the settings from FILE at start and save them there\n"
    "                     after every change, so they survive a restart; a corrupt\n"
    "                     file is reported and the defaults are used\n"
    "  --client-port N    set the daemon's client port (TclPort) at start, keeping the\n"
    "                     daemon off the 6258 of a real camera\n"
    "  --no-push-on-set   do not push 0x306 after a set of the network-protocol settings\n"
    "  --verbose          print one line for every frame received\n"
    "  --help             this text\n"
    "\n"
    "commands on standard input, one per line:\n"
    "%s";

const char *kCommands =
    "  push 306           push the current network-protocol settings (0x306)\n"
    "  push 508 TYPE      push an alarm of type TYPE (0-3 alarm inputs, 4 motion,\n"
    "                     9 video blind, 11 video loss)\n"
    "  push 204           push the service stop\n"
    "  protocol on|off    switch the platform protocol on or off, then push 0x306\n"
    "  type N             set the platform protocol type (1 is camgated's), then push 0x306\n"
    "  port N             set the client port (TclPort), then push 0x306\n"
    "  show               print the main settings\n"
    "  help               this list\n"
    "  quit               stop the server\n";

std::string ip_text(uint32_t net_order)
{
    char buf[INET_ADDRSTRLEN] = "";
    in_addr a{};
    a.s_addr = net_order;
    inet_ntop(AF_INET, &a, buf, sizeof buf);
    return buf;
}

std::string field(const char *f, size_t n)
{
    return std::string(f, wire_str_len(f, n));
}

void show(const sysd::SysServerSim &sim)
{
    auto p = sim.get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
    auto n = sim.get<NetworkConfig>(ZQ_GETNETWORK);
    auto t = sim.get<DeviceTime>(ZQ_GETTIME);
    auto d = sim.get<DeviceInfoRsp>(ZQ_GETDEVICEINFO);
    auto c = sim.get<DeviceCapabilityRsp>(ZQ_GETDEVICECAP);
    auto o = sim.get<VideoOsd>(ZQ_GETVIDEOOSD);
    auto a = sim.get<AudioInfo>(ZQ_GETAUDIO);
    std::printf("platform protocol: %s, type %u, client port %u, http port %u, rtsp port %u\n",
                p.ThirdPartyProtocolEnable ? "on" : "off", p.ThirdPartyProtocolType, p.TclPort, p.HttpPort, p.RtspPort);
    std::printf("network: %s/%s gateway %s dns %s mac %02X:%02X:%02X:%02X:%02X:%02X\n", ip_text(n.IPv4Address).c_str(),
                ip_text(n.IPv4Mask).c_str(), ip_text(n.IPv4Gateway).c_str(), ip_text(n.IPv4DNS).c_str(),
                n.MacAddress[0], n.MacAddress[1], n.MacAddress[2], n.MacAddress[3], n.MacAddress[4], n.MacAddress[5]);
    std::printf("time: %04d-%02u-%02u %02u:%02u:%02u, ntp %s (%s), zone %u\n", t.Year + 1900, t.Month, t.Day, t.Hours,
                t.Minute, t.Seconds, t.NtpEnable ? "on" : "off", field(t.NtpAddress, sizeof t.NtpAddress).c_str(),
                t.TimeZoneId);
    std::printf("device: %s, software %s, alarm inputs %u, outputs %u\n", field(d.DeviceId, sizeof d.DeviceId).c_str(),
                field(d.SoftWareVersion, sizeof d.SoftWareVersion).c_str(), c.IoInputCount, c.IoOutputCount);
    std::printf("overlay: time %s, name %s \"%s\"\n", o.TimeEnable ? "on" : "off", o.StringMainEnable ? "on" : "off",
                field(o.StringMain, sizeof o.StringMain).c_str());
    std::printf("audio: %s\n", a.AudioEnable ? "on" : "off");
    std::printf("users:");
    for (const ZQ_USER_ENTRY &u : sim.users())
        std::printf(" %s(%u)", field(u.UserName, sizeof u.UserName).c_str(), u.Authority);
    std::printf("\nclients connected: %d\n", sim.connections());
}

void push_protocol(sysd::SysServerSim &sim)
{
    std::vector<uint8_t> rec = sim.record(ZQ_GETNETWORKPROTOCOL);
    if (sim.push(ZQ_PUSH_NETWORKPROTOCOL, rec.data(), rec.size())) {
        std::printf("pushed 0x306\n");
    } else {
        std::printf("no client connected, nothing pushed\n");
    }
}

bool parse_number(const std::string &text, long lo, long hi, long *out)
{
    if (text.empty()) return false;
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v < lo || v > hi) return false;
    *out = v;
    return true;
}

// One command line; false for "quit".
bool run_command(sysd::SysServerSim &sim, const std::string &line)
{
    std::istringstream in(line);
    std::string word, a1, a2;
    in >> word >> a1 >> a2;
    long v = 0;
    if (word.empty()) return true;
    if (word == "quit" || word == "exit") return false;
    if (word == "help") {
        std::printf("%s", kCommands);
    } else if (word == "show") {
        show(sim);
    } else if (word == "push" && a1 == "306") {
        push_protocol(sim);
    } else if (word == "push" && a1 == "508" && parse_number(a2, 0, 255, &v)) {
        AlarmInfo alarm{};
        alarm.ChannelID = 0;
        alarm.AlarmType = static_cast<uint8_t>(v);
        std::printf(sim.push(ZQ_PUSH_ALARM, &alarm, sizeof alarm) ? "pushed 0x508 type %ld\n"
                                                                  : "no client connected, alarm %ld not pushed\n",
                    v);
    } else if (word == "push" && a1 == "204") {
        std::printf(sim.push(ZQ_PUSH_SERVICE_STOP, nullptr, 0) ? "pushed 0x204\n"
                                                               : "no client connected, nothing pushed\n");
    } else if (word == "protocol" && (a1 == "on" || a1 == "off")) {
        auto p = sim.get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
        p.ThirdPartyProtocolEnable = a1 == "on" ? 1 : 0;
        sim.put(ZQ_GETNETWORKPROTOCOL, p);
        push_protocol(sim);
    } else if (word == "type" && parse_number(a1, 0, 255, &v)) {
        auto p = sim.get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
        p.ThirdPartyProtocolType = static_cast<uint8_t>(v);
        sim.put(ZQ_GETNETWORKPROTOCOL, p);
        push_protocol(sim);
    } else if (word == "port" && parse_number(a1, 0, 65535, &v)) {
        auto p = sim.get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
        p.TclPort = static_cast<uint16_t>(v);
        sim.put(ZQ_GETNETWORKPROTOCOL, p);
        push_protocol(sim);
    } else {
        std::printf("unknown command: %s (try help)\n", line.c_str());
    }
    std::fflush(stdout);
    return true;
}

}  // namespace

int main(int argc, char **argv)
{
    sysd::Options opt;
    opt.port = sysd::kDefaultPort;
    opt.keep_frames = false;
    int client_port = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        long v = 0;
        if (arg == "--help" || arg == "-h") {
            std::printf(kUsage, sysd::kDefaultPort, kCommands);
            return 0;
        } else if (arg == "--port" && i + 1 < argc && parse_number(argv[i + 1], 0, 65535, &v)) {
            opt.port = static_cast<int>(v);
            ++i;
        } else if (arg == "--state" && i + 1 < argc) {
            opt.state_file = argv[++i];
        } else if (arg == "--client-port" && i + 1 < argc && parse_number(argv[i + 1], 1, 65535, &v)) {
            client_port = static_cast<int>(v);
            ++i;
        } else if (arg == "--no-push-on-set") {
            opt.push_protocol_on_set = false;
        } else if (arg == "--verbose" || arg == "-v") {
            opt.log_frames = true;
        } else {
            std::fprintf(stderr, "camgate-sysd: bad argument %s (see --help)\n", arg.c_str());
            return 2;
        }
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    // SIGINT and SIGTERM end the server; they are taken by sigwait below.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    sysd::SysServerSim sim(opt);
    if (client_port != 0) {
        auto p = sim.get<NetworkProtocol>(ZQ_GETNETWORKPROTOCOL);
        p.TclPort = static_cast<uint16_t>(client_port);
        sim.put(ZQ_GETNETWORKPROTOCOL, p);
    }
    if (!sim.start()) {
        std::fprintf(stderr, "camgate-sysd: cannot listen on 127.0.0.1:%d: %s\n", opt.port, std::strerror(errno));
        return 1;
    }
    std::printf("camgate-sysd listening on 127.0.0.1:%d%s%s\n", sim.port(), opt.state_file.empty() ? "" : ", state ",
                opt.state_file.c_str());

    std::thread console([&sim] {
        std::string line;
        while (std::getline(std::cin, line)) {
            if (!run_command(sim, line)) {
                kill(getpid(), SIGTERM);
                return;
            }
        }
        // End of input (a script, or started in the background): serve on until a signal.
    });
    console.detach();

    int sig = 0;
    sigwait(&stop_signals, &sig);
    std::printf("camgate-sysd: stopping\n");
    sim.stop();
    std::fflush(stdout);
    std::_Exit(0);
}

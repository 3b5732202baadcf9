// camgate ptz ACTION, ptzcfg get|set: moving the camera and its serial PTZ settings.
#include <cstring>
#include <iostream>

#include "command.h"
#include "output.h"
#include "settings_util.h"

namespace camgate {
namespace tool {

namespace {

// What each action needs from the options.
enum Needs : unsigned {
    kSpeed = 1,      // --speed (param2)
    kStop = 2,       // --stop
    kPreset = 4,     // --preset (param1)
    kTour = 8,       // --tour (param2, or param1 for tour-run)
    kPosition = 16,  // --position (param1)
    kZone = 32,      // --zone (param1)
    kLight = 64,     // --light on|off (param1)
};

struct Action {
    const char *name;
    uint32_t cmd;
    unsigned needs;
    const char *help;
};

const Action kActions[] = {
    {"up", PTZ_CTRL_UP, kSpeed | kStop, "tilt up"},
    {"down", PTZ_CTRL_DOWN, kSpeed | kStop, "tilt down"},
    {"left", PTZ_CTRL_LEFT, kSpeed | kStop, "pan left"},
    {"right", PTZ_CTRL_RIGHT, kSpeed | kStop, "pan right"},
    {"up-left", PTZ_CTRL_LEFT_UP, kSpeed | kStop, "up and left"},
    {"down-left", PTZ_CTRL_LEFT_DOWN, kSpeed | kStop, "down and left"},
    {"up-right", PTZ_CTRL_RIGHT_UP, kSpeed | kStop, "up and right"},
    {"down-right", PTZ_CTRL_RIGHT_DOWN, kSpeed | kStop, "down and right"},
    {"zoom-in", PTZ_CTRL_ZOOM_TELE, kStop, "zoom in"},
    {"zoom-out", PTZ_CTRL_ZOOM_WIDE, kStop, "zoom out"},
    {"focus-far", PTZ_CTRL_FOCUS_FAR, kSpeed | kStop, "focus farther"},
    {"focus-near", PTZ_CTRL_FOCUS_NEAR, kSpeed | kStop, "focus nearer"},
    {"iris-open", PTZ_CTRL_IRIS_OPEN, kStop, "open the iris"},
    {"iris-close", PTZ_CTRL_IRIS_CLOSE, kStop, "close the iris"},
    {"autopan", PTZ_CTRL_AUTOPAN, kZone | kSpeed | kStop, "pan across a zone"},
    {"preset-call", PTZ_CTRL_CALL_PRESET, kPreset, "go to a preset"},
    {"preset-save", PTZ_CTRL_SAVE_PRESET, kPreset, "save the position as a preset"},
    {"light", PTZ_CTRL_LIGHT, kLight, "switch the light"},
    {"wiper", PTZ_CTRL_WIPER, kStop, "run the wiper (--stop stops it)"},
    {"tour-add", PTZ_ADD_PRESET_TO_CRUISE, kTour | kPreset, "add a preset to a tour"},
    {"tour-remove", PTZ_DEL_PRESET_FRM_CRUISE, kTour | kPosition, "remove the preset at a position of a tour"},
    {"tour-delete", PTZ_CTRL_DEL_CRUISE, kTour, "delete a tour"},
    {"tour-run", PTZ_CTRL_CRUISE, kTour, "run a tour"},
    {"scan-start", PTZ_CTRL_PAN_START, kZone | kSpeed | kStop, "set the start of a scan zone"},
    {"scan-stop", PTZ_CTRL_PAN_STOP, kZone | kSpeed | kStop, "set the end of a scan zone"},
    {"scan-run", PTZ_CTRL_PAN_RUN, kZone | kSpeed | kStop, "scan a zone"},
};

std::string action_list()
{
    std::string out;
    for (const Action &a : kActions) out += std::string(out.empty() ? "" : ", ") + a.name;
    return out;
}

int run_ptz(const Options &opts)
{
    if (opts.words().empty()) throw UsageError("say what to do: " + action_list());
    const std::string name = opts.words()[0];
    const Action *action = nullptr;
    for (const Action &a : kActions)
        if (name == a.name) action = &a;
    if (action == nullptr) throw UsageError("unknown action \"" + name + "\"; one of " + action_list());
    const unsigned n = action->needs;
    auto refuse = [&](const char *option) {
        if (opts.has(option)) throw UsageError(std::string("--") + option + " does not go with " + name);
    };
    if (!(n & kSpeed)) refuse("speed");
    if (!(n & kStop)) refuse("stop");
    if (!(n & kPreset)) refuse("preset");
    if (!(n & kTour)) refuse("tour");
    if (!(n & kPosition)) refuse("position");
    if (!(n & kZone)) refuse("zone");
    if (!(n & kLight)) refuse("light");
    auto required = [&](const char *option, long min, long max) {
        if (!opts.has(option)) throw UsageError(name + " needs --" + option);
        return static_cast<uint32_t>(opts.integer(option, 0, min, max));
    };

    PTZ_CMD_PACKAGE p{};
    p.channel = static_cast<uint32_t>(opts.integer("channel", 0, 0, 255));
    p.ptz_cmd = action->cmd;
    p.stop = opts.has("stop") ? 1 : 0;
    if (n & kSpeed) p.param2 = static_cast<uint32_t>(opts.integer("speed", 4, 0, 7));
    if (n & kZone) p.param1 = static_cast<uint32_t>(opts.integer("zone", 0, 0, 255));
    if (n & kLight) p.param1 = switch_option(opts, "light", true) ? 1 : 0;
    if (n & kTour) {
        const uint32_t tour = required("tour", 0, 255);
        if (action->cmd == PTZ_CTRL_CRUISE)
            p.param1 = tour;
        else
            p.param2 = tour;
    }
    if (n & kPreset) p.param1 = required("preset", 0, 255);
    if (n & kPosition) p.param1 = required("position", 1, 255);

    CameraSession cam(opts);
    cam.control().ptz(p);
    if (opts.has("json"))
        std::cout << JsonObject().add("action", name).add("stop", p.stop != 0).add("sent", true).str() << std::endl;
    else
        std::cout << "ptz " << name << (p.stop ? " stop" : "") << ": sent" << std::endl;
    return 0;
}

std::vector<OptionDef> ptz_options()
{
    return with_connection({
        {"", "ACTION", "what to do (the actions are listed above)"},
        {"speed", "0-7", "speed of moves, focus, auto-pan and scans (default 4)"},
        {"stop", "", "stop the movement (or the wiper)"},
        {"channel", "N", "channel of moves and zoom (default 0)"},
        {"preset", "N", "preset number"},
        {"tour", "N", "tour number"},
        {"position", "N", "position in the tour, from 1"},
        {"zone", "N", "scan or auto-pan zone (default 0)"},
        {"light", "on|off", "the light (default on)"},
    });
}

// ------------------------------------------------------ serial settings ---

// The camera reports the protocol in the protocol's own codes, but its set
// swaps the codes of Pelco-P and Pelco-D on the way in: this tool sends the
// swapped code, so a protocol set here reads back as set.
uint8_t swap_pelco(uint8_t protocol)
{
    if (protocol == PTZ_PROT_PELCO_P) return PTZ_PROT_PELCO_D;
    if (protocol == PTZ_PROT_PELCO_D) return PTZ_PROT_PELCO_P;
    return protocol;
}

const char *protocol_text(uint8_t p)
{
    switch (p) {
        case PTZ_PROT_PELCO_P:
            return "pelco-p";
        case PTZ_PROT_PELCO_D:
            return "pelco-d";
        case PTZ_PROT_SAMSUNG:
            return "samsung";
        case PTZ_PROT_SONY:
            return "sony";
        case PTZ_PROT_PANASONIC:
            return "panasonic";
        default:
            return "unknown";
    }
}

const unsigned kRates[] = {1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200, 230400, 460800, 921600};

std::string rate_text(uint32_t baud)
{
    return baud < sizeof kRates / sizeof kRates[0] ? std::to_string(kRates[baud]) : "unknown";
}

int run_ptzcfg_get(const Options &opts)
{
    CameraSession cam(opts);
    const PTZ_PARA p = cam.control().get_ptz_settings();
    const uint8_t protocol = p.protocol;
    if (opts.has("json"))
        std::cout << JsonObject()
                         .add("protocol", protocol_text(protocol))
                         .add("address", static_cast<long long>(p.decoder_addr))
                         .add("baud", rate_text(p.serail_attr.baudrate))
                         .str()
                  << std::endl;
    else
        print_rows(std::cout, {{"protocol", protocol_text(protocol)},
                               {"address", std::to_string(p.decoder_addr)},
                               {"baud rate", rate_text(p.serail_attr.baudrate)},
                               {"character", "8 data bits, no parity, 1 stop bit, no flow control"}});
    return 0;
}

int run_ptzcfg_set(const Options &opts)
{
    require_one_of(opts, {"protocol", "address", "baud"});
    int protocol = -1;
    if (opts.has("protocol")) {
        const std::string v = opts.text("protocol", "");
        for (uint8_t c : {PTZ_PROT_PELCO_P, PTZ_PROT_PELCO_D, PTZ_PROT_SONY})
            if (v == protocol_text(c)) protocol = c;
        if (protocol < 0) throw UsageError("--protocol must be pelco-p, pelco-d or sony, not \"" + v + "\"");
    }
    const long address = opts.integer("address", -1, 0, 255);
    int baud = -1;
    if (opts.has("baud")) {
        const long rate = opts.integer("baud", 0, 1, 115200);
        for (int i = 0; i <= BAUD_RATE_115200; ++i)
            if (kRates[i] == static_cast<unsigned>(rate)) baud = i;
        if (baud < 0) throw UsageError("--baud must be one of 1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200");
    }
    CameraSession cam(opts);
    PTZ_PARA p = cam.control().get_ptz_settings();
    // What is not given keeps the camera's value (the protocol too, sent as the camera's set expects it).
    p.protocol = swap_pelco(protocol >= 0 ? static_cast<uint8_t>(protocol) : p.protocol);
    if (address >= 0) p.decoder_addr = static_cast<TK_U8>(address);
    if (baud >= 0) p.serail_attr.baudrate = static_cast<TK_U32>(baud);
    cam.control().set_ptz_settings(p);
    std::cout << (opts.has("json") ? JsonObject().add("changed", true).str() : "PTZ settings changed") << std::endl;
    return 0;
}

}  // namespace

Command ptz_command()
{
    return {"ptz",
            "move the camera: pan, tilt, zoom, focus, iris, presets, tours, scans",
            "camgate ptz ACTION [--speed 0-7] [--stop] [--preset N] [--tour N] [--position N] [--zone N] [options]",
            "Sends one PTZ command. ACTION is one of\n"
            "  up, down, left, right, up-left, up-right, down-left, down-right  (--speed, --stop)\n"
            "  zoom-in, zoom-out, iris-open, iris-close                         (--stop)\n"
            "  focus-far, focus-near                                            (--speed, --stop)\n"
            "  preset-call, preset-save                                         (--preset)\n"
            "  tour-add (--tour, --preset), tour-remove (--tour, --position), tour-delete, tour-run (--tour)\n"
            "  autopan, scan-start, scan-stop, scan-run                         (--zone, --speed, --stop)\n"
            "  light (--light on|off), wiper (--stop)\n"
            "A move goes on until the same action is sent with --stop:\n"
            "  camgate ptz left --speed 7, then camgate ptz left --stop\n"
            "Tours are lists of presets: tour-add --tour 1 --preset 5 appends preset 5 (2 s dwell),\n"
            "tour-remove --tour 1 --position 2 removes the second entry. The camera answers every\n"
            "command it was allowed to run with success; it does not say whether the motor moved.",
            ptz_options,
            run_ptz};
}

Command ptzcfg_get_command()
{
    return {"ptzcfg get",
            "show the serial PTZ settings",
            "camgate ptzcfg get [options]",
            "Shows the PTZ protocol, decoder address and baud rate of the serial port.",
            [] { return with_connection({}); },
            run_ptzcfg_get};
}

Command ptzcfg_set_command()
{
    return {"ptzcfg set",
            "change the serial PTZ settings",
            "camgate ptzcfg set [--protocol pelco-p|pelco-d|sony] [--address N] [--baud RATE] [options]",
            "Changes the given serial PTZ settings; the others keep the camera's values. Rates\n"
            "above 115200 cannot be set; the character format is always 8N1.",
            [] {
                return with_connection({{"protocol", "NAME", "pelco-p, pelco-d or sony"},
                                        {"address", "N", "decoder address (0-255)"},
                                        {"baud", "RATE", "1200 to 115200"}});
            },
            run_ptzcfg_set};
}

}  // namespace tool
}  // namespace camgate

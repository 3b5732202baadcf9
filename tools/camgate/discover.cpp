// camgate discover: search the local network for cameras and list them.
#include <cmath>
#include <iostream>

#include "client/media.h"
#include "command.h"
#include "output.h"

namespace camgate {
namespace tool {

namespace {

std::vector<OptionDef> discover_options()
{
    return {
        {"broadcast", "ADDRESS", "where the search goes: a broadcast address or a camera's (default 127.255.255.255)"},
        {"port", "PORT", "the discovery port (default 16258)"},
        {"timeout", "SECONDS", "how long answers are collected (default 2)"},
        {"json", "", "print a JSON array of the cameras"},
    };
}

std::string camera_json(const client::DiscoveredCamera &c)
{
    const client::DeviceInfo &d = c.device;
    return JsonObject()
        .add("from", c.from)
        .add("serial_no", d.serial_no)
        .add("ip", c.ip)
        .add("mask", c.mask)
        .add("gateway", c.gateway)
        .add("dns", c.dns)
        .add("mac", c.mac)
        .add("dhcp", c.dhcp)
        .add("tcp_port", static_cast<long long>(c.tcp_port))
        .add("web_port", static_cast<long long>(c.web_port))
        .add("dev_type", d.dev_type)
        .add("version", static_cast<long long>(d.version))
        .add("release_date", d.release_date)
        .add("video_chns", static_cast<long long>(d.video_chns))
        .add("audio_chns", static_cast<long long>(d.audio_chns))
        .add("alarmin_chns", static_cast<long long>(d.alarmin_chns))
        .add("alarmout_chns", static_cast<long long>(d.alarmout_chns))
        .str();
}

int run_discover(const Options &opts)
{
    client::DiscoverOptions d;
    d.address = opts.text("broadcast", "127.255.255.255");
    d.port = static_cast<int>(opts.integer("port", 16258, 1, 65535));
    d.timeout_ms = static_cast<int>(std::lround(opts.number("timeout", 2, 0.1, 600) * 1000));
    const std::vector<client::DiscoveredCamera> cameras = client::discover(d);
    const std::string where = d.address + ":" + std::to_string(d.port);

    if (opts.has("json")) {
        std::string out = "[";
        for (size_t i = 0; i < cameras.size(); ++i) out += (i ? ", " : "") + camera_json(cameras[i]);
        std::cout << out << "]" << std::endl;
    } else if (!cameras.empty()) {
        std::cout << cameras.size() << (cameras.size() == 1 ? " camera" : " cameras") << " answered the search sent to "
                  << where << "\n";
        for (const client::DiscoveredCamera &c : cameras) {
            const client::DeviceInfo &dev = c.device;
            std::cout << "\n" << or_dash(dev.serial_no) << "  (answer from " << c.from << ")\n";
            print_rows(std::cout,
                       {
                           {"address", or_dash(c.ip)},
                           {"mask", or_dash(c.mask)},
                           {"gateway", or_dash(c.gateway)},
                           {"DNS", or_dash(c.dns)},
                           {"MAC", or_dash(c.mac)},
                           {"DHCP", c.dhcp ? "on" : "off"},
                           {"client port", std::to_string(c.tcp_port)},
                           {"web port", std::to_string(c.web_port)},
                           {"type", or_dash(dev.dev_type)},
                           {"version", std::to_string(dev.version)},
                           {"release date", or_dash(dev.release_date)},
                           {"channels", std::to_string(dev.video_chns) + " video, " + std::to_string(dev.audio_chns) +
                                            " audio, " + std::to_string(dev.alarmin_chns) + " alarm in, " +
                                            std::to_string(dev.alarmout_chns) + " alarm out"},
                       },
                       "  ");
        }
        std::cout << std::flush;
    }
    if (cameras.empty()) {
        std::cerr << "camgate discover: no camera answered within " << opts.text("timeout", "2")
                  << " s (search sent to " << where << "): is the discovery port right?" << std::endl;
        return 1;
    }
    return 0;
}

}  // namespace

Command discover_command()
{
    return {"discover",
            "search the network for cameras and list them",
            "camgate discover [options]",
            "Sends a device search to the discovery port and lists every camera that\n"
            "answers: serial number, address, mask, gateway, MAC, ports, version and\n"
            "release date. Cameras broadcast their answer to the discovery port, so this\n"
            "command listens on that port too (it can share it with a camera on this host).\n"
            "Exits with status 1 when no camera answers.",
            discover_options,
            run_discover};
}

}  // namespace tool
}  // namespace camgate

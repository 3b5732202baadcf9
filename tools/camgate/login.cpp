// camgate login: log in, show the session, the rights and the device description, log out.
#include <cstdio>
#include <iostream>

#include "client/client.h"
#include "command.h"
#include "output.h"

namespace camgate {
namespace tool {

namespace {

std::vector<OptionDef> login_options()
{
    std::vector<OptionDef> defs = connection_options();
    defs.push_back({"json", "", "print one JSON object instead of the table"});
    return defs;
}

Rows device_rows(const client::DeviceInfo &d)
{
    char mask[16];
    std::snprintf(mask, sizeof mask, "0x%08x", d.support_mask);
    return {
        {"serial number", or_dash(d.serial_no)},
        {"type", or_dash(d.dev_type)},
        {"version", std::to_string(d.version)},
        {"release date", or_dash(d.release_date)},
        {"video channels", std::to_string(d.video_chns)},
        {"audio channels", std::to_string(d.audio_chns)},
        {"alarm inputs", std::to_string(d.alarmin_chns)},
        {"alarm outputs", std::to_string(d.alarmout_chns)},
        {"serial ports", std::to_string(d.serial_num)},
        {"IP channels", std::to_string(d.ipchan_num)},
        {"disks", std::to_string(d.disk_num)},
        {"network ports", std::to_string(d.netport_num)},
        {"USB ports", std::to_string(d.usbport_num)},
        {"support mask", mask},
    };
}

std::string device_json(const client::DeviceInfo &d)
{
    return JsonObject()
        .add("serial_no", d.serial_no)
        .add("dev_type", d.dev_type)
        .add("version", static_cast<long long>(d.version))
        .add("release_date", d.release_date)
        .add("video_chns", static_cast<long long>(d.video_chns))
        .add("audio_chns", static_cast<long long>(d.audio_chns))
        .add("alarmin_chns", static_cast<long long>(d.alarmin_chns))
        .add("alarmout_chns", static_cast<long long>(d.alarmout_chns))
        .add("serial_num", static_cast<long long>(d.serial_num))
        .add("ipchan_num", static_cast<long long>(d.ipchan_num))
        .add("disk_num", static_cast<long long>(d.disk_num))
        .add("netport_num", static_cast<long long>(d.netport_num))
        .add("usbport_num", static_cast<long long>(d.usbport_num))
        .add("support_mask", static_cast<long long>(d.support_mask))
        .str();
}

std::string rights_json(const USER_PRIVILEGE &p)
{
    std::vector<std::string> ops;
    for (int r = 0; r < RIGHT_COUNT; ++r) {
        if (p.opt_rights[r] != 0) ops.push_back(client::right_key(r));
    }
    return JsonObject()
        .add_raw("operations", json_array(ops))
        .add("net_preview_channels", channel_ranges(p.net_priview_right, 64))
        .add("net_playback_channels", channel_ranges(p.net_playback_right, 64))
        .add("local_preview_channels", channel_ranges(p.local_priview_right, 64))
        .add("local_playback_channels", channel_ranges(p.local_playback_right, 64))
        .str();
}

int run_login(const Options &opts)
{
    const Target t = target_from(opts);
    client::Session session = login_to(t);
    const client::LoginInfo info = session.info();
    const int slot = static_cast<int>(static_cast<uint32_t>(info.session_id) >> 24);

    if (!opts.has("json")) {
        std::cout << "logged in to " << session.connection().peer() << " as " << or_dash(t.user) << "\n";
        print_rows(std::cout, {
                                  {"session", hex_id(info.session_id) + " (control slot " + std::to_string(slot) + ")"},
                                  {"rights", operation_rights(info.rights)},
                                  {"live view", "channels " + channel_ranges(info.rights.net_priview_right, 64)},
                                  {"playback", "channels " + channel_ranges(info.rights.net_playback_right, 64)},
                              });
        std::cout << "device\n";
        print_rows(std::cout, device_rows(info.device), "  ");
        std::cout.flush();
    }

    std::string logout_error;
    try {
        session.logout();
    } catch (const client::Error &e) {
        logout_error = e.what();
    }

    if (opts.has("json")) {
        std::cout << JsonObject()
                         .add("host", t.host)
                         .add("port", static_cast<long long>(t.port))
                         .add("user", t.user)
                         .add("session_id", static_cast<long long>(info.session_id))
                         .add("session_id_hex", hex_id(info.session_id))
                         .add_raw("rights", rights_json(info.rights))
                         .add_raw("device", device_json(info.device))
                         .add("logged_out", logout_error.empty())
                         .str()
                  << std::endl;
    } else if (logout_error.empty()) {
        std::cout << "logged out" << std::endl;
    }
    if (!logout_error.empty()) {
        std::cerr << "camgate login: logout failed: " << logout_error << std::endl;
        return 1;
    }
    return 0;
}

}  // namespace

Command login_command()
{
    return {"login",
            "log in, show the session, the rights and the device, then log out",
            "camgate login [options]",
            "Logs in to the camera's client port and prints the session id, the rights the\n"
            "camera granted and the device description, then logs out again.",
            login_options,
            run_login};
}

}  // namespace tool
}  // namespace camgate

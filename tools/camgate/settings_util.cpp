#include "settings_util.h"

#include <arpa/inet.h>

#include <cstdio>

namespace camgate {
namespace tool {

CameraSession::CameraSession(const Options &opts) : session_(login_to(target_from(opts))), control_(session_) {}

CameraSession::~CameraSession()
{
    if (!session_.logged_in()) return;
    try {
        session_.logout();
    } catch (const client::Error &) {
        // The command's work is done; a camera that went away meanwhile changes nothing.
    }
}

std::vector<OptionDef> with_connection(std::vector<OptionDef> extra, bool json)
{
    std::vector<OptionDef> defs = connection_options();
    defs.insert(defs.end(), extra.begin(), extra.end());
    if (json) defs.push_back({"json", "", "print one JSON object instead of text"});
    return defs;
}

bool switch_option(const Options &opts, const std::string &name, bool fallback)
{
    if (!opts.has(name)) return fallback;
    const std::string v = opts.text(name, "");
    if (v == "on" || v == "yes" || v == "true" || v == "1") return true;
    if (v == "off" || v == "no" || v == "false" || v == "0") return false;
    throw UsageError("--" + name + " must be on or off, not \"" + v + "\"");
}

std::string ipv4_option(const Options &opts, const std::string &name, const std::string &fallback)
{
    if (!opts.has(name)) return fallback;
    const std::string v = opts.text(name, "");
    in_addr a{};
    if (inet_pton(AF_INET, v.c_str(), &a) != 1)
        throw UsageError("--" + name + " must be a dotted IPv4 address such as 192.168.1.50, not \"" + v + "\"");
    return v;
}

uint32_t parse_time_of_day(const std::string &text, const std::string &option)
{
    unsigned h = 0, m = 0, s = 0;
    char extra = 0;
    const int n = std::sscanf(text.c_str(), "%u:%u:%u%c", &h, &m, &s, &extra);
    const bool shape = n == 2 || n == 3;
    if (!shape || m > 59 || s > 59 || h > 24 || (h == 24 && (m != 0 || s != 0)))
        throw UsageError(option + " must be a time of day HH:MM or HH:MM:SS, not \"" + text + "\"");
    return h * 3600 + m * 60 + s;
}

std::string time_of_day(uint32_t seconds)
{
    char buf[16];
    std::snprintf(buf, sizeof buf, "%02u:%02u:%02u", seconds / 3600, seconds / 60 % 60, seconds % 60);
    return buf;
}

void check_fits(const std::string &text, size_t size, const std::string &option)
{
    if (text.size() + 1 > size)
        throw UsageError(option + " is longer than the " + std::to_string(size - 1) + " bytes the camera keeps");
}

std::string password_text(const std::string &password, bool show)
{
    if (password.empty()) return "(none)";
    return show ? password : "********";
}

void require_one_of(const Options &opts, const std::vector<std::string> &names)
{
    for (const std::string &n : names)
        if (opts.has(n)) return;
    std::string list;
    for (size_t i = 0; i < names.size(); ++i) list += (i ? ", --" : "--") + names[i];
    throw UsageError("nothing to change: give at least one of " + list);
}

}  // namespace tool
}  // namespace camgate

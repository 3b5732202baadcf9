// camgate reboot, camgate raw: restarting the camera, and any control command by its code.
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "command.h"
#include "output.h"
#include "settings_util.h"

namespace camgate {
namespace tool {

namespace {

int run_reboot(const Options &opts)
{
    if (!opts.has("yes")) throw UsageError("the camera will restart and drop every connection; add --yes to do it");
    CameraSession cam(opts);
    cam.control().reboot();
    std::cout << (opts.has("json") ? JsonObject().add("rebooting", true).str() : "the camera is rebooting")
              << std::endl;
    return 0;
}

int32_t parse_code(const std::string &text)
{
    char *end = nullptr;
    errno = 0;
    const long long v = std::strtoll(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || errno != 0 || v < INT32_MIN || v > UINT32_MAX)
        throw UsageError("CMD must be a command code such as 0x30010, not \"" + text + "\"");
    return static_cast<int32_t>(static_cast<uint32_t>(v));
}

std::vector<uint8_t> parse_hex(const std::string &text)
{
    std::string digits;
    for (char c : text) {
        if (std::isspace(static_cast<unsigned char>(c)) || c == ':') continue;
        if (!std::isxdigit(static_cast<unsigned char>(c)))
            throw UsageError("HEX must be hexadecimal bytes such as \"0a 00 ff\", not \"" + text + "\"");
        digits += c;
    }
    if (digits.size() % 2 != 0) throw UsageError("HEX has an odd number of digits");
    std::vector<uint8_t> out;
    for (size_t i = 0; i < digits.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return out;
}

std::string hex_text(const std::vector<uint8_t> &bytes, const char *sep)
{
    std::string out;
    char buf[4];
    for (size_t i = 0; i < bytes.size(); ++i) {
        std::snprintf(buf, sizeof buf, "%02x", bytes[i]);
        out += (i ? sep : "") + std::string(buf);
    }
    return out;
}

int run_raw(const Options &opts)
{
    if (opts.words().empty()) throw UsageError("give the command code CMD");
    const int32_t cmd = parse_code(opts.words()[0]);
    const std::vector<uint8_t> payload = opts.words().size() > 1 ? parse_hex(opts.words()[1]) : std::vector<uint8_t>();
    if (payload.size() > 8192) throw UsageError("the camera takes at most 8192 payload bytes");
    CameraSession cam(opts);
    const client::Reply r = cam.session().request(cmd, payload);
    if (opts.has("json")) {
        std::cout << JsonObject()
                         .add("result", static_cast<long long>(r.result))
                         .add("len", static_cast<long long>(r.body.size()))
                         .add("body", hex_text(r.body, ""))
                         .str()
                  << std::endl;
        return 0;
    }
    std::cout << "result " << r.result;
    if (!r.ok()) std::cout << ": " << client::result_text(cmd, r.result);
    std::cout << ", " << r.body.size() << " bytes" << std::endl;
    for (size_t off = 0; off < r.body.size(); off += 16) {
        const std::vector<uint8_t> line(r.body.begin() + static_cast<long>(off),
                                        r.body.begin() + static_cast<long>(std::min(off + 16, r.body.size())));
        char at[32];
        std::snprintf(at, sizeof at, "%06zx  ", off);
        std::cout << at << hex_text(line, " ") << "\n";
    }
    std::cout.flush();
    return 0;
}

}  // namespace

Command reboot_command()
{
    return {"reboot",
            "restart the camera",
            "camgate reboot --yes [options]",
            "Restarts the camera; every connection to it drops.",
            [] {
                return with_connection({{"yes", "", "really restart"}});
            },
            run_reboot};
}

Command raw_command()
{
    return {"raw",
            "send any control command by its code",
            "camgate raw CMD [HEX] [options]",
            "Sends the control command CMD (such as 0x30010) with the payload HEX (hexadecimal\n"
            "bytes, blanks allowed) and prints the result code and the reply's bytes. Commands\n"
            "that get no reply (0x80000-0x9FFFF) end in a time-out.",
            [] {
                return with_connection({{"", "CMD", "the command code, decimal or 0x-hexadecimal"},
                                        {"", "HEX", "the payload in hexadecimal (default none)"}});
            },
            run_raw};
}

}  // namespace tool
}  // namespace camgate

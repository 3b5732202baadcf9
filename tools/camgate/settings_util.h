// Helpers of the commands that read and change the camera's settings: a
// logged-in session per command, option parsing for switches, addresses,
// times and text fields, and the words for the camera's values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "client/client.h"
#include "client/control.h"
#include "common/tk_proto.h"
#include "options.h"

namespace camgate {
namespace tool {

// Logs in with the connection options on construction and out on destruction
// (a failed logout is ignored: the command's work is done).
class CameraSession {
  public:
    explicit CameraSession(const Options &opts);
    ~CameraSession();
    CameraSession(const CameraSession &) = delete;
    CameraSession &operator=(const CameraSession &) = delete;

    client::Control &control() { return control_; }
    client::Session &session() { return session_; }

  private:
    client::Session session_;
    client::Control control_;
};

// connection_options() followed by extra, and --json.
std::vector<OptionDef> with_connection(std::vector<OptionDef> extra, bool json = true);

// A switch given as on/off (also yes/no, true/false, 1/0); fallback when absent.
bool switch_option(const Options &opts, const std::string &name, bool fallback);

// A dotted IPv4 address; fallback when absent; UsageError when not an address.
std::string ipv4_option(const Options &opts, const std::string &name, const std::string &fallback);

// A time of day "HH:MM" or "HH:MM:SS" as seconds since midnight (24:00 and 24:00:00 give 86400).
uint32_t parse_time_of_day(const std::string &text, const std::string &option);
// "HH:MM:SS" of seconds since midnight.
std::string time_of_day(uint32_t seconds);

// Throws UsageError unless text fits a field of size bytes (with its terminator).
void check_fits(const std::string &text, size_t size, const std::string &option);

// Copy the option's text into a fixed field when the option is given (checked to fit).
template <size_t N>
void text_option(const Options &opts, const std::string &name, char (&field)[N])
{
    if (!opts.has(name)) return;
    const std::string text = opts.text(name, "");
    check_fits(text, N, "--" + name);
    wire_set_str(field, text.c_str());
}

// The text of a fixed field that may lack its terminator.
template <size_t N>
std::string field_text(const char (&field)[N])
{
    return std::string(field, wire_str_len(field, N));
}

// A password for people: "********" or "(none)", the text itself when shown.
std::string password_text(const std::string &password, bool show);

// Fail with a usage error naming the options when none of them is given.
void require_one_of(const Options &opts, const std::vector<std::string> &names);

// "on" or "off".
inline const char *on_off(bool on)
{
    return on ? "on" : "off";
}

}  // namespace tool
}  // namespace camgate

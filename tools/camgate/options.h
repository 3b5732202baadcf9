// Command-line options of the camgate tool: "--name value", "--name=value",
// "-x value" for an option with a short name, and flags, checked against the
// options a command declares.
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "client/client.h"

namespace camgate {
namespace tool {

// A wrong command line: the message says what is wrong; exit status 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// An option "--name VALUE" or a flag "--name"; a one-letter name is also
// written "-n VALUE". An empty name declares a positional argument (in the
// order declared), whose placeholder is value_name.
struct OptionDef {
    std::string name;        // without the dashes: "port"; empty for a positional argument
    std::string value_name;  // "PORT"; empty for a flag
    std::string help;        // one line, with the default where there is one
    char short_name = 0;     // 'o' for "-o"; 0: none
};

class Options {
  public:
    // Parse args against defs; throws UsageError for unknown options,
    // missing values, values given to flags and arguments beyond the
    // positional ones declared.
    Options(const std::vector<OptionDef> &defs, const std::vector<std::string> &args);

    bool has(const std::string &name) const { return values_.count(name) != 0; }
    // The positional arguments given, in order.
    const std::vector<std::string> &words() const { return words_; }
    std::string text(const std::string &name, const std::string &fallback) const;
    // A whole number in [min, max]; UsageError otherwise.
    long integer(const std::string &name, long fallback, long min, long max) const;
    // A decimal number in [min, max]; UsageError otherwise.
    double number(const std::string &name, double fallback, double min, double max) const;

  private:
    std::map<std::string, std::string> values_;
    std::vector<std::string> words_;
};

// The options every command that talks to a camera takes.
std::vector<OptionDef> connection_options();

struct Target {
    std::string host;
    int port = 6258;
    std::string user;
    std::string password;
    int timeout_ms = 10000;
};
Target target_from(const Options &opts);
// A session with the target, logged in as its user.
client::Session login_to(const Target &t);

// Help text of a list of options, one per line, aligned.
std::string options_help(const std::vector<OptionDef> &defs);

}  // namespace tool
}  // namespace camgate

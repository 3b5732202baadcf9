#include "options.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace camgate {
namespace tool {

namespace {

const OptionDef *find(const std::vector<OptionDef> &defs, const std::string &name)
{
    for (const OptionDef &s : defs) {
        if (s.name == name) return &s;
    }
    return nullptr;
}

}  // namespace

Options::Options(const std::vector<OptionDef> &defs, const std::vector<std::string> &args)
{
    size_t positionals = 0;
    for (const OptionDef &d : defs) positionals += d.name.empty() ? 1 : 0;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &arg = args[i];
        const bool is_long = arg.size() >= 3 && arg.compare(0, 2, "--") == 0;
        const bool is_short = arg.size() == 2 && arg[0] == '-' && arg[1] != '-';
        if (!is_long && !is_short) {
            if (words_.size() >= positionals) throw UsageError("unexpected argument \"" + arg + "\"");
            words_.push_back(arg);
            continue;
        }
        std::string name = arg.substr(is_long ? 2 : 1);
        bool by_short_name = false;
        if (is_short) {
            for (const OptionDef &d : defs) {
                if (d.short_name != 0 && d.short_name == arg[1]) {
                    name = d.name;
                    by_short_name = true;
                }
            }
        }
        std::string value;
        bool inline_value = false;
        const size_t eq = name.find('=');
        if (eq != std::string::npos) {
            value = name.substr(eq + 1);
            name.resize(eq);
            inline_value = true;
        }
        const OptionDef *def = name.empty() ? nullptr : find(defs, name);
        if (def == nullptr || (is_short && !by_short_name && name.size() != 1))
            throw UsageError("unknown option " + std::string(is_long ? "--" : "-") + name);
        if (def->value_name.empty()) {
            if (inline_value) throw UsageError("--" + name + " takes no value");
        } else if (!inline_value) {
            if (i + 1 >= args.size()) throw UsageError("--" + name + " needs a value (" + def->value_name + ")");
            value = args[++i];
        }
        values_[name] = value;
    }
}

std::string Options::text(const std::string &name, const std::string &fallback) const
{
    auto it = values_.find(name);
    return it == values_.end() ? fallback : it->second;
}

long Options::integer(const std::string &name, long fallback, long min, long max) const
{
    auto it = values_.find(name);
    if (it == values_.end()) return fallback;
    const std::string &v = it->second;
    char *end = nullptr;
    errno = 0;
    const long n = std::strtol(v.c_str(), &end, 10);
    if (v.empty() || errno != 0 || *end != '\0' || n < min || n > max)
        throw UsageError("--" + name + " must be a whole number from " + std::to_string(min) + " to " +
                         std::to_string(max) + ", not \"" + v + "\"");
    return n;
}

double Options::number(const std::string &name, double fallback, double min, double max) const
{
    auto it = values_.find(name);
    if (it == values_.end()) return fallback;
    const std::string &v = it->second;
    char *end = nullptr;
    errno = 0;
    const double d = std::strtod(v.c_str(), &end);
    if (v.empty() || errno != 0 || *end != '\0' || !std::isfinite(d) || d < min || d > max) {
        char range[64];
        std::snprintf(range, sizeof range, "from %g to %g", min, max);
        throw UsageError("--" + name + " must be a number " + range + ", not \"" + v + "\"");
    }
    return d;
}

std::vector<OptionDef> connection_options()
{
    return {
        {"host", "HOST", "camera address or name (default 127.0.0.1)"},
        {"port", "PORT", "client port of the camera (default 6258)"},
        {"user", "NAME", "user name, at most 15 characters are kept (default admin)"},
        {"password", "PASSWORD", "password (default empty)"},
        {"timeout", "SECONDS", "longest wait for the connection and for each answer (default 10)"},
    };
}

Target target_from(const Options &opts)
{
    Target t;
    t.host = opts.text("host", "127.0.0.1");
    t.port = static_cast<int>(opts.integer("port", 6258, 1, 65535));
    t.user = opts.text("user", "admin");
    t.password = opts.text("password", "");
    if (t.user.size() > 16) throw UsageError("--user is longer than the 16 bytes of a login");
    if (t.password.size() > 16) throw UsageError("--password is longer than the 16 bytes of a login");
    t.timeout_ms = static_cast<int>(std::lround(opts.number("timeout", 10, 0.1, 3600) * 1000));
    return t;
}

client::Session login_to(const Target &t)
{
    client::Session s(t.host, t.port, t.timeout_ms);
    s.login(t.user, t.password);
    return s;
}

std::string options_help(const std::vector<OptionDef> &defs)
{
    size_t width = 0;
    std::vector<std::string> left;
    for (const OptionDef &s : defs) {
        const std::string dashes = s.name.empty() ? "" : s.name.size() == 1 ? "-" : "--";
        const std::string short_form = s.short_name ? std::string("-") + s.short_name + ", " : std::string();
        left.push_back(short_form + dashes + s.name + (s.value_name.empty() || s.name.empty() ? "" : " ") +
                       s.value_name);
        width = std::max(width, left.back().size());
    }
    std::string out;
    for (size_t i = 0; i < defs.size(); ++i)
        out += "  " + left[i] + std::string(width - left[i].size() + 2, ' ') + defs[i].help + "\n";
    return out;
}

}  // namespace tool
}  // namespace camgate

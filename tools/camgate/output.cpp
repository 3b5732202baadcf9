#include "output.h"

#include <algorithm>
#include <cstdio>

#include "client/client.h"

namespace camgate {
namespace tool {

void print_rows(std::ostream &out, const Rows &rows, const std::string &indent)
{
    size_t width = 0;
    for (const auto &r : rows) width = std::max(width, r.first.size());
    for (const auto &r : rows)
        out << indent << r.first << std::string(width - r.first.size() + 2, ' ') << r.second << "\n";
}

std::string hex_id(int32_t id)
{
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%08x", static_cast<unsigned>(id));
    return buf;
}

std::string channel_ranges(const TK_U8 *flags, int count)
{
    std::string out;
    for (int i = 0; i < count;) {
        if (flags[i] == 0) {
            ++i;
            continue;
        }
        int j = i;
        while (j + 1 < count && flags[j + 1] != 0) ++j;
        if (!out.empty()) out += ", ";
        out += std::to_string(i + 1);
        if (j > i) out += "-" + std::to_string(j + 1);
        i = j + 1;
    }
    return out.empty() ? "none" : out;
}

std::string operation_rights(const USER_PRIVILEGE &rights)
{
    std::vector<std::string> granted;
    for (int r = 0; r < RIGHT_COUNT; ++r) {
        if (rights.opt_rights[r] != 0) granted.push_back(client::right_name(r));
    }
    if (granted.size() == RIGHT_COUNT) return "all " + std::to_string(RIGHT_COUNT) + " operations";
    if (granted.empty()) return "none";
    std::string out;
    for (const auto &g : granted) out += (out.empty() ? "" : ", ") + g;
    return out;
}

std::string json_string(const std::string &s)
{
    std::string out = "\"";
    for (unsigned char c : s) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20 || c >= 0x7F) {
                    // Fields come from the camera: anything beyond printable ASCII is escaped byte by byte.
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\u%04x", c);
                    out += buf;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

void JsonObject::key(const std::string &k)
{
    if (!body_.empty()) body_ += ", ";
    body_ += json_string(k) + ": ";
}

JsonObject &JsonObject::add(const std::string &k, const std::string &value)
{
    key(k);
    body_ += json_string(value);
    return *this;
}

JsonObject &JsonObject::add(const std::string &k, long long value)
{
    key(k);
    body_ += std::to_string(value);
    return *this;
}

JsonObject &JsonObject::add(const std::string &k, bool value)
{
    key(k);
    body_ += value ? "true" : "false";
    return *this;
}

JsonObject &JsonObject::add(const std::string &k, double value)
{
    key(k);
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3f", value);
    body_ += buf;
    return *this;
}

JsonObject &JsonObject::add_raw(const std::string &k, const std::string &json)
{
    key(k);
    body_ += json;
    return *this;
}

std::string json_array(const std::vector<std::string> &items)
{
    std::string out = "[";
    for (size_t i = 0; i < items.size(); ++i) out += (i ? ", " : "") + json_string(items[i]);
    return out + "]";
}

}  // namespace tool
}  // namespace camgate

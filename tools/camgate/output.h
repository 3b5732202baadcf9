// Output helpers of the camgate tool: aligned tables for people, JSON for
// machines, and the words for rights and channel sets.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "common/tk_proto.h"

namespace camgate {
namespace tool {

using Rows = std::vector<std::pair<std::string, std::string>>;

// "key  value" lines with the values aligned, each line prefixed by indent.
void print_rows(std::ostream &out, const Rows &rows, const std::string &indent = "");

// The text, or "-" when it is empty.
inline std::string or_dash(const std::string &s)
{
    return s.empty() ? "-" : s;
}

// A session id as "0x0312abcd".
std::string hex_id(int32_t id);

// Channels whose flag is non-zero, numbered from 1: "1-64", "1, 3-5", "none".
std::string channel_ranges(const TK_U8 *flags, int count);

// The operation rights in words: "all 16 operations", "network settings, PTZ control" or "none".
std::string operation_rights(const USER_PRIVILEGE &rights);

// A JSON string literal (quotes included) with the needed escapes.
std::string json_string(const std::string &s);

// A JSON object written member by member: JsonObject().add("a", 1).str() is {"a": 1}.
class JsonObject {
  public:
    JsonObject &add(const std::string &key, const std::string &value);
    JsonObject &add(const std::string &key, const char *value) { return add(key, std::string(value)); }
    JsonObject &add(const std::string &key, long long value);
    JsonObject &add(const std::string &key, bool value);
    JsonObject &add(const std::string &key, double value);
    // value is already JSON (an object or an array).
    JsonObject &add_raw(const std::string &key, const std::string &json);
    std::string str() const { return "{" + body_ + "}"; }

  private:
    void key(const std::string &k);
    std::string body_;
};

// A JSON array of strings.
std::string json_array(const std::vector<std::string> &items);

}  // namespace tool
}  // namespace camgate

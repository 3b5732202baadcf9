// Matching program output line by line with shell patterns (fnmatch(3):
// '*', '?', '[0-9a-f]'), for checks on log lines and tool output.
#pragma once

#include <string>

namespace cgtest {

// True when some line of text (without its line break) matches pattern whole.
bool has_line(const std::string &text, const std::string &pattern);

// Number of lines of text that match pattern.
int count_lines(const std::string &text, const std::string &pattern);

}  // namespace cgtest

#include "support/text.h"

#include <fnmatch.h>

namespace cgtest {

int count_lines(const std::string &text, const std::string &pattern)
{
    int n = 0;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        if (fnmatch(pattern.c_str(), text.substr(start, end - start).c_str(), 0) == 0) ++n;
        start = end + 1;
    }
    return n;
}

bool has_line(const std::string &text, const std::string &pattern)
{
    return count_lines(text, pattern) > 0;
}

}  // namespace cgtest

#include "common/log.h"

#include <cstdarg>
#include <cstring>

namespace {

const char *base_name(const char *path)
{
    const char *slash = std::strrchr(path, '/');
    return slash ? slash + 1 : path;
}

// Formats into buf, then appends a line break when missing; returns the length.
size_t finish_line(char *buf, size_t size, int n)
{
    size_t len = n < 0 ? 0 : static_cast<size_t>(n);
    if (len >= size - 1) len = size - 2;
    if (len == 0 || buf[len - 1] != '\n') buf[len++] = '\n';
    buf[len] = '\0';
    return len;
}

}  // namespace

void log_line(FILE *stream, const char *prefix, const char *file, int line, const char *fmt, ...)
{
    char buf[2048];
    int n = std::snprintf(buf, sizeof buf, prefix, base_name(file), line);
    if (n < 0) n = 0;
    size_t used = static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n) : sizeof buf - 1;
    va_list ap;
    va_start(ap, fmt);
    int m = std::vsnprintf(buf + used, sizeof buf - used, fmt, ap);
    va_end(ap);
    finish_line(buf, sizeof buf, static_cast<int>(used) + (m < 0 ? 0 : m));
    std::fputs(buf, stream);
}

void log_bare(FILE *stream, const char *fmt, ...)
{
    char buf[2048];
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    finish_line(buf, sizeof buf, n);
    std::fputs(buf, stream);
}

void log_init_line_buffering()
{
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::setvbuf(stderr, nullptr, _IOLBF, 0);
}

// Log lines of the daemon.
//
// DBG(...) prints "[-DBG-] [file:line] --- message" to standard output and
// ERR(...) prints "[*ERR*] [file:line] *** message" to standard error, where
// file is the source file's base name and line is printed as "%5d". The
// message is printf-formatted; a line break is added unless it ends in one.
// Each line is written with one stdio call, so lines of different threads do
// not mix. Modules that print bare lines (the system-server channel, the frame
// cache) use LOG_BARE, which prints the message alone to standard output.
#pragma once

#include <cstdio>

void log_line(FILE *stream, const char *prefix, const char *file, int line, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));

// Print a bare line (no prefix); a line break is added unless the message ends in one.
void log_bare(FILE *stream, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Make stdout and stderr line-buffered so logs show at once when redirected.
void log_init_line_buffering();

#define DBG(...) log_line(stdout, "[-DBG-] [%s:%5d] --- ", __FILE__, __LINE__, __VA_ARGS__)
#define ERR(...) log_line(stderr, "[*ERR*] [%s:%5d] *** ", __FILE__, __LINE__, __VA_ARGS__)
#define LOG_BARE(...) log_bare(stdout, __VA_ARGS__)

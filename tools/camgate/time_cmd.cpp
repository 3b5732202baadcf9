// camgate time get|set, datefmt get|set: the camera's clock and the date
// layout of its video overlay.
#include <time.h>

#include <cstdio>
#include <iostream>

#include "command.h"
#include "output.h"
#include "settings_util.h"

namespace camgate {
namespace tool {

namespace {

std::string date_text(const TK_SYS_TIME &t)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%04u-%02u-%02u", t.tm_year, t.tm_mon, t.tm_mday);
    return buf;
}

std::string clock_text(const TK_SYS_TIME &t)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%s.%03u", time_of_day(t.tm_msec / 1000).c_str(), t.tm_msec % 1000);
    return buf;
}

void print_time(const TK_SYS_TIME &t, bool json)
{
    if (json) {
        std::cout << JsonObject()
                         .add("year", static_cast<long long>(t.tm_year))
                         .add("month", static_cast<long long>(t.tm_mon))
                         .add("day", static_cast<long long>(t.tm_mday))
                         .add("msec", static_cast<long long>(t.tm_msec))
                         .add("text", date_text(t) + " " + clock_text(t))
                         .str()
                  << std::endl;
    } else {
        print_rows(std::cout, {{"date", date_text(t)}, {"time", clock_text(t)}});
    }
}

int run_time_get(const Options &opts)
{
    CameraSession cam(opts);
    print_time(cam.control().get_time(), opts.has("json"));
    return 0;
}

TK_SYS_TIME parse_date(const std::string &text, TK_SYS_TIME t)
{
    unsigned y = 0, m = 0, d = 0;
    char extra = 0;
    if (std::sscanf(text.c_str(), "%u-%u-%u%c", &y, &m, &d, &extra) != 3 || y < 1900 || y > 2155 || m < 1 || m > 12 ||
        d < 1 || d > 31)
        throw UsageError("--date must be YYYY-MM-DD between 1900 and 2155, not \"" + text + "\"");
    t.tm_year = static_cast<TK_U16>(y);
    t.tm_mon = static_cast<TK_U8>(m);
    t.tm_mday = static_cast<TK_U8>(d);
    return t;
}

// "HH:MM", "HH:MM:SS" or "HH:MM:SS.mmm".
uint32_t parse_clock(const std::string &text)
{
    const size_t dot = text.find('.');
    uint32_t ms = 0;
    if (dot != std::string::npos) {
        const std::string frac = text.substr(dot + 1);
        if (frac.empty() || frac.size() > 3 || frac.find_first_not_of("0123456789") != std::string::npos)
            throw UsageError("--time takes at most three digits of milliseconds, not \"" + text + "\"");
        ms = static_cast<uint32_t>(std::stoul(frac + std::string(3 - frac.size(), '0')));
    }
    const uint32_t secs = parse_time_of_day(text.substr(0, dot), "--time");
    if (secs >= 86400) throw UsageError("--time must be before 24:00");
    return secs * 1000 + ms;
}

int run_time_set(const Options &opts)
{
    require_one_of(opts, {"date", "time", "now"});
    if (opts.has("now") && (opts.has("date") || opts.has("time")))
        throw UsageError("--now sets date and time: give it alone");
    TK_SYS_TIME want{};
    bool got_now = false;
    if (opts.has("now")) {
        const time_t now = time(nullptr);
        struct tm tm {};
        localtime_r(&now, &tm);
        want = {static_cast<TK_U32>((tm.tm_hour * 3600 + tm.tm_min * 60 + tm.tm_sec) * 1000),
                static_cast<TK_U8>(tm.tm_mday), static_cast<TK_U8>(tm.tm_mon + 1),
                static_cast<TK_U16>(tm.tm_year + 1900)};
        got_now = true;
    }
    // Validate before talking to the camera.
    if (opts.has("date")) parse_date(opts.text("date", ""), want);
    if (opts.has("time")) parse_clock(opts.text("time", ""));

    CameraSession cam(opts);
    if (!got_now) {
        want = cam.control().get_time();  // the part not given keeps the camera's value
        if (opts.has("date")) want = parse_date(opts.text("date", ""), want);
        if (opts.has("time")) want.tm_msec = parse_clock(opts.text("time", ""));
    }
    cam.control().set_time(want);
    if (opts.has("json"))
        print_time(want, true);
    else
        std::cout << "clock set to " << date_text(want) << " " << clock_text(want) << std::endl;
    return 0;
}

const char *format_text(uint32_t f)
{
    switch (f) {
        case DDF_YYYYMMDD:
            return "YYYY-MM-DD";
        case DDF_MMDDYYYY:
            return "MM-DD-YYYY";
        case DDF_DDMMYYYY:
            return "DD-MM-YYYY";
        default:
            return "unknown";
    }
}

int run_datefmt_get(const Options &opts)
{
    CameraSession cam(opts);
    const uint32_t f = cam.control().get_date_format();
    if (opts.has("json"))
        std::cout << JsonObject().add("format", static_cast<long long>(f)).add("text", format_text(f)).str()
                  << std::endl;
    else
        std::cout << "date format  " << format_text(f) << " (" << f << ")" << std::endl;
    return 0;
}

int run_datefmt_set(const Options &opts)
{
    require_one_of(opts, {"format"});
    const std::string v = opts.text("format", "");
    uint32_t f = 0;
    if (v == "ymd" || v == "0")
        f = DDF_YYYYMMDD;
    else if (v == "mdy" || v == "1")
        f = DDF_MMDDYYYY;
    else if (v == "dmy" || v == "2")
        f = DDF_DDMMYYYY;
    else
        throw UsageError("--format must be ymd, mdy or dmy, not \"" + v + "\"");
    CameraSession cam(opts);
    cam.control().set_date_format(f);
    // The camera answers 0 also for a layout it does not have: read back to tell.
    const uint32_t now = cam.control().get_date_format();
    if (opts.has("json"))
        std::cout << JsonObject()
                         .add("format", static_cast<long long>(now))
                         .add("text", format_text(now))
                         .add("applied", now == f)
                         .str()
                  << std::endl;
    if (now != f) {
        std::cerr << "camgate datefmt set: the camera kept " << format_text(now) << ": it does not support "
                  << format_text(f) << std::endl;
        return 1;
    }
    if (!opts.has("json")) std::cout << "date format set to " << format_text(f) << std::endl;
    return 0;
}

}  // namespace

Command time_get_command()
{
    return {"time get",
            "show the camera's clock",
            "camgate time get [options]",
            "Shows the camera's date and time of day.",
            [] { return with_connection({}); },
            run_time_get};
}

Command time_set_command()
{
    return {"time set",
            "set the camera's clock",
            "camgate time set [--date YYYY-MM-DD] [--time HH:MM[:SS[.mmm]]] | --now [options]",
            "Sets the camera's clock. A part not given keeps the camera's value: --time alone\n"
            "changes the time of day on the camera's date. --now sets this machine's local time.\n"
            "The camera keeps its NTP, time zone and daylight-saving settings.",
            [] {
                return with_connection({{"date", "YYYY-MM-DD", "the date (1900 to 2155)"},
                                        {"time", "HH:MM[:SS[.mmm]]", "the time of day"},
                                        {"now", "", "this machine's local date and time"}});
            },
            run_time_set};
}

Command datefmt_get_command()
{
    return {"datefmt get",
            "show the date layout of the video overlay",
            "camgate datefmt get [options]",
            "Shows how the date is written in the picture: YYYY-MM-DD (0) or MM-DD-YYYY (1).",
            [] { return with_connection({}); },
            run_datefmt_get};
}

Command datefmt_set_command()
{
    return {"datefmt set",
            "set the date layout of the video overlay",
            "camgate datefmt set --format ymd|mdy [options]",
            "Sets how the date is written in the picture. The camera has no day-first layout: it\n"
            "answers dmy without an error and keeps its layout, which this command reports (exit 1).",
            [] {
                return with_connection({{"format", "ymd|mdy|dmy", "year first, month first or day first"}});
            },
            run_datefmt_set};
}

}  // namespace tool
}  // namespace camgate

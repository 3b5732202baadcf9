// camgate schedule get|set, overwrite get|set, disk, events, snapshot:
// recording, the storage card, alarms and pictures.
#include <cstdio>
#include <fstream>
#include <iostream>

#include "command.h"
#include "output.h"
#include "settings_util.h"

namespace camgate {
namespace tool {

namespace {

const char *const kDays[7] = {"sun", "mon", "tue", "wed", "thu", "fri", "sat"};
constexpr int kSegments = 4;

bool segment_shown(const REC_SEGMENT &s)
{
    return s.type_mask == REC_TYPE_TIMER_MASK && s.end_time > s.start_time;
}

int run_schedule_get(const Options &opts)
{
    CameraSession cam(opts);
    const REC_SCHE_PARA s = cam.control().get_schedule();
    if (opts.has("json")) {
        JsonObject days;
        for (int d = 0; d < 7; ++d) {
            std::string segs = "[";
            for (int j = 0; j < kSegments; ++j) {
                const REC_SEGMENT &seg = s.week_day[d].segment[j];
                segs += (j ? ", " : "") + JsonObject()
                                              .add("start", static_cast<long long>(seg.start_time))
                                              .add("end", static_cast<long long>(seg.end_time))
                                              .add("timer", seg.type_mask == REC_TYPE_TIMER_MASK)
                                              .str();
            }
            days.add_raw(kDays[d], segs + "]");
        }
        std::cout << days.str() << std::endl;
        return 0;
    }
    Rows rows;
    for (int d = 0; d < 7; ++d) {
        std::string text;
        for (int j = 0; j < kSegments; ++j) {
            const REC_SEGMENT &seg = s.week_day[d].segment[j];
            if (!segment_shown(seg)) continue;
            text += (text.empty() ? "" : ", ") + std::to_string(j + 1) + ": " + time_of_day(seg.start_time) + "-" +
                    time_of_day(seg.end_time);
        }
        rows.push_back({kDays[d], text.empty() ? "no timer recording" : text});
    }
    print_rows(std::cout, rows);
    return 0;
}

int run_schedule_set(const Options &opts)
{
    const std::string day = opts.text("day", "");
    int first = -1, last = -1;
    for (int d = 0; d < 7; ++d)
        if (day == kDays[d]) first = last = d;
    if (day == "all") {
        first = 0;
        last = 6;
    }
    if (first < 0) throw UsageError("--day must be sun, mon, tue, wed, thu, fri, sat or all, not \"" + day + "\"");
    const long segment = opts.integer("segment", 1, 1, kSegments);
    if (!opts.has("from") || !opts.has("to")) throw UsageError("give the segment's --from and --to");
    const uint32_t from = parse_time_of_day(opts.text("from", ""), "--from");
    const uint32_t to = parse_time_of_day(opts.text("to", ""), "--to");
    if (to < from) throw UsageError("--to comes before --from");

    // Only the segments marked as timer segments are written; the others keep the camera's values.
    REC_SCHE_PARA s{};
    for (int d = first; d <= last; ++d) s.week_day[d].segment[segment - 1] = {from, to, REC_TYPE_TIMER_MASK};
    CameraSession cam(opts);
    cam.control().set_schedule(s);
    if (opts.has("json"))
        std::cout << JsonObject().add("changed", true).str() << std::endl;
    else
        std::cout << "timer recording " << time_of_day(from) << "-" << time_of_day(to) << " set as segment " << segment
                  << " of " << (first == last ? kDays[first] : "every day") << std::endl;
    return 0;
}

int run_overwrite_get(const Options &opts)
{
    CameraSession cam(opts);
    const bool on = cam.control().get_overwrite_mode() == 1;
    if (opts.has("json"))
        std::cout << JsonObject().add("overwrite", on).str() << std::endl;
    else
        std::cout << "overwrite  " << on_off(on)
                  << (on ? " (the oldest recordings make room on a full card)" : " (recording stops on a full card)")
                  << std::endl;
    return 0;
}

int run_overwrite_set(const Options &opts)
{
    if (!opts.has("mode")) throw UsageError("give --mode on or off");
    const bool on = switch_option(opts, "mode", false);
    CameraSession cam(opts);
    cam.control().set_overwrite_mode(on ? 1 : 0);
    if (opts.has("json"))
        std::cout << JsonObject().add("overwrite", on).str() << std::endl;
    else
        std::cout << "overwrite set " << on_off(on) << std::endl;
    return 0;
}

std::string size_text(uint64_t bytes)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f GB", static_cast<double>(bytes) / (1024.0 * 1024 * 1024));
    return buf;
}

const char *status_text(uint32_t status)
{
    switch (status) {
        case DISK_STATUS_NORMAL:
            return "ready";
        case DISK_STATUS_UNFORMATTED:
            return "not formatted";
        case DISK_STATUS_NO_DISK:
            return "no card";
        default:
            return "unknown";
    }
}

int run_disk(const Options &opts)
{
    CameraSession cam(opts);
    const std::vector<DISK_INFO> disks = cam.control().disks();
    if (opts.has("json")) {
        std::string arr = "[";
        for (size_t i = 0; i < disks.size(); ++i) {
            const DISK_INFO &d = disks[i];
            arr += (i ? ", " : "") + JsonObject()
                                         .add("status", status_text(d.status))
                                         .add("path", field_text(d.fixed_info.dev_path))
                                         .add("total_bytes", static_cast<long long>(d.fixed_info.total_size))
                                         .add("used_bytes", static_cast<long long>(d.used))
                                         .str();
        }
        std::cout << JsonObject().add_raw("disks", arr + "]").str() << std::endl;
        return 0;
    }
    if (disks.empty()) std::cout << "no disks" << std::endl;
    for (size_t i = 0; i < disks.size(); ++i) {
        const DISK_INFO &d = disks[i];
        std::cout << "disk " << i + 1 << "\n";
        const uint64_t total = d.fixed_info.total_size;
        print_rows(std::cout,
                   {{"status", status_text(d.status)},
                    {"path", field_text(d.fixed_info.dev_path)},
                    {"capacity", size_text(total)},
                    {"used", size_text(d.used)},
                    {"free", size_text(total > d.used ? total - d.used : 0)}},
                   "  ");
    }
    return 0;
}

std::vector<std::string> event_list(const EVENT_STATE &e)
{
    std::vector<std::string> out;
    auto flags = [&](const TK_U8 *mask, int n, const std::string &what) {
        for (int i = 0; i < n; ++i)
            if (mask[i]) out.push_back(what + " " + std::to_string(i + 1));
    };
    flags(e.motion_mask, 64, "motion on channel");
    flags(e.blind_mask, 64, "video blind on channel");
    flags(e.loss_mask, 64, "video loss on channel");
    flags(e.alarmin_mask, 64, "alarm input");
    flags(e.diskerror_mask, 32, "error on disk");
    flags(e.cable_broken, 2, "network cable broken on port");
    flags(e.ip_conflict, 2, "address conflict on port");
    if (e.no_disk) out.push_back("no disk");
    if (e.disk_full) out.push_back("disk full");
    return out;
}

int run_events(const Options &opts)
{
    CameraSession cam(opts);
    const std::vector<std::string> events = event_list(cam.control().event_state());
    if (opts.has("json")) {
        std::cout << JsonObject().add_raw("events", json_array(events)).str() << std::endl;
    } else if (events.empty()) {
        std::cout << "no events in the last 3 seconds" << std::endl;
    } else {
        for (const std::string &e : events) std::cout << e << "\n";
        std::cout.flush();
    }
    return 0;
}

int run_snapshot(const Options &opts)
{
    if (!opts.has("o")) throw UsageError("give the file to write with -o FILE.jpg");
    const std::string path = opts.text("o", "");
    CameraSession cam(opts);
    const std::vector<uint8_t> jpeg = cam.control().snapshot();
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(jpeg.data()), static_cast<std::streamsize>(jpeg.size()));
    out.close();
    if (!out) {
        std::cerr << "camgate snapshot: cannot write " << path << std::endl;
        return 1;
    }
    if (opts.has("json"))
        std::cout << JsonObject().add("file", path).add("bytes", static_cast<long long>(jpeg.size())).str()
                  << std::endl;
    else
        std::cout << "saved " << jpeg.size() << " bytes to " << path << std::endl;
    return 0;
}

}  // namespace

Command schedule_get_command()
{
    return {"schedule get",
            "show the timer-recording schedule",
            "camgate schedule get [options]",
            "Shows per day of the week the segments (up to four) in which the camera records by\n"
            "timer. While timer recording is on, the camera marks all four segments of every\n"
            "day; empty ones are not shown.",
            [] { return with_connection({}); },
            run_schedule_get};
}

Command schedule_set_command()
{
    return {"schedule set",
            "set a timer-recording segment",
            "camgate schedule set --day DAY|all [--segment 1-4] --from HH:MM[:SS] --to HH:MM[:SS] [options]",
            "Sets one segment of a day (or of every day) and switches timer recording on. The\n"
            "other segments keep the camera's values; the camera has no command to remove a\n"
            "segment or to switch timer recording off.",
            [] {
                return with_connection({{"day", "DAY", "sun, mon, tue, wed, thu, fri, sat or all"},
                                        {"segment", "N", "which of the day's four segments (default 1)"},
                                        {"from", "HH:MM[:SS]", "start of the segment"},
                                        {"to", "HH:MM[:SS]", "end of the segment (24:00 for midnight)"}});
            },
            run_schedule_set};
}

Command overwrite_get_command()
{
    return {"overwrite get",
            "show whether old recordings are overwritten",
            "camgate overwrite get [options]",
            "Shows whether the oldest recordings make room when the card is full.",
            [] { return with_connection({}); },
            run_overwrite_get};
}

Command overwrite_set_command()
{
    return {"overwrite set",
            "choose whether old recordings are overwritten",
            "camgate overwrite set --mode on|off",
            "on: the oldest recordings make room when the card is full; off: recording stops.",
            [] {
                return with_connection({{"mode", "on|off", "overwrite the oldest recordings"}});
            },
            run_overwrite_set};
}

Command disk_command()
{
    return {"disk",
            "show the storage card",
            "camgate disk [options]",
            "Shows the state, capacity and use of the camera's storage card.",
            [] { return with_connection({}); },
            run_disk};
}

Command events_command()
{
    return {"events",
            "show the alarms of the last seconds",
            "camgate events [options]",
            "Shows the events the camera saw (motion, alarm inputs, video loss and blind, disk\n"
            "and network trouble). The camera forgets an event 3 seconds after the last alarm.",
            [] { return with_connection({}); },
            run_events};
}

Command snapshot_command()
{
    return {"snapshot",
            "save the camera's newest picture",
            "camgate snapshot -o FILE.jpg [options]",
            "Saves the newest JPEG picture of the camera to FILE.",
            [] {
                return with_connection({{"o", "FILE", "where to write the picture"}});
            },
            run_snapshot};
}

}  // namespace tool
}  // namespace camgate

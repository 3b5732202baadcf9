// camgate osd get|set: the overlay of the picture (date and time, channel
// name, information line, PTZ line) and the four privacy covers.
#include <iconv.h>

#include <cstdio>
#include <iostream>

#include "command.h"
#include "output.h"
#include "settings_util.h"

namespace camgate {
namespace tool {

namespace {

constexpr int kMaxPos = 8192;  // overlay coordinates run from 0 to 8192
constexpr int kCovers = 4;

// Convert text between character sets; false when it cannot be converted whole.
bool convert(const char *from, const char *to, const std::string &in, std::string *out)
{
    iconv_t cd = iconv_open(to, from);
    if (cd == reinterpret_cast<iconv_t>(-1)) return false;
    std::string buf(in.size() * 4 + 4, '\0');
    char *src = const_cast<char *>(in.data());
    size_t src_left = in.size();
    char *dst = &buf[0];
    size_t dst_left = buf.size();
    const bool ok = iconv(cd, &src, &src_left, &dst, &dst_left) != static_cast<size_t>(-1);
    iconv_close(cd);
    buf.resize(buf.size() - dst_left);
    *out = buf;
    return ok;
}

// The channel name (GB2312 on the wire) for a terminal.
std::string name_text(const VIDEO_CHN_PARA &v)
{
    std::string utf8;
    if (!convert("GB2312", "UTF-8", field_text(v.name), &utf8)) return utf8 + "?";
    return utf8;
}

bool cover_on(const VIDEO_COVER_ATTR &c)
{
    // After a set the camera reports every window as enabled; an empty rectangle is no cover.
    return c.enable == 1 && c.right > c.left && c.bottom > c.top;
}

std::string pos_text(const VIDEO_CH_OSD &o)
{
    return o.enable == 1 ? "shown at " + std::to_string(o.x) + "," + std::to_string(o.y) : "hidden";
}

std::string cover_text(const VIDEO_COVER_ATTR &c)
{
    if (!cover_on(c)) return "off";
    return std::to_string(c.left) + "," + std::to_string(c.top) + " - " + std::to_string(c.right) + "," +
           std::to_string(c.bottom);
}

std::string item_json(const VIDEO_CH_OSD &o)
{
    return JsonObject()
        .add("shown", o.enable == 1)
        .add("x", static_cast<long long>(o.x))
        .add("y", static_cast<long long>(o.y))
        .str();
}

int run_osd_get(const Options &opts)
{
    CameraSession cam(opts);
    const VIDEO_CHN_PARA v = cam.control().get_overlay();
    if (opts.has("json")) {
        std::string covers = "[";
        for (int i = 0; i < kCovers; ++i) {
            const VIDEO_COVER_ATTR &c = v.cover[i];
            covers += (i ? ", " : "") + JsonObject()
                                            .add("on", cover_on(c))
                                            .add("left", static_cast<long long>(c.left))
                                            .add("top", static_cast<long long>(c.top))
                                            .add("right", static_cast<long long>(c.right))
                                            .add("bottom", static_cast<long long>(c.bottom))
                                            .str();
        }
        covers += "]";
        std::cout << JsonObject()
                         .add_raw("time", item_json(v.time))
                         .add_raw("name_item", item_json(v.ch_name))
                         .add("name", name_text(v))
                         .add_raw("info", item_json(v.enc_info))
                         .add_raw("ptz", item_json(v.ptz_info))
                         .add_raw("covers", covers)
                         .str()
                  << std::endl;
        return 0;
    }
    Rows rows = {{"time", pos_text(v.time)},
                 {"name", pos_text(v.ch_name) + (v.ch_name.enable == 1 ? ": \"" + name_text(v) + "\"" : "")},
                 {"info", pos_text(v.enc_info)},
                 {"ptz", pos_text(v.ptz_info)}};
    for (int i = 0; i < kCovers; ++i) rows.push_back({"cover " + std::to_string(i + 1), cover_text(v.cover[i])});
    print_rows(std::cout, rows);
    std::cout << "(positions from 0,0 top left to 8192,8192 bottom right)" << std::endl;
    return 0;
}

// "X,Y" in overlay coordinates.
void parse_pos(const Options &opts, const std::string &name, VIDEO_CH_OSD *item)
{
    if (!opts.has(name)) return;
    const std::string v = opts.text(name, "");
    int x = -1, y = -1;
    char extra = 0;
    if (std::sscanf(v.c_str(), "%d,%d%c", &x, &y, &extra) != 2 || x < 0 || y < 0 || x > kMaxPos || y > kMaxPos)
        throw UsageError("--" + name + " must be X,Y from 0 to 8192, not \"" + v + "\"");
    item->x = static_cast<TK_U16>(x);
    item->y = static_cast<TK_U16>(y);
}

// Switch an item on or off; an item shown from hidden needs its position, which the camera does not report.
void set_item(const Options &opts, const std::string &name, const std::string &pos, VIDEO_CH_OSD *item)
{
    const bool was_shown = item->enable == 1;
    const bool shown = switch_option(opts, name, was_shown);
    if (shown && !was_shown && !opts.has(pos))
        throw UsageError("the camera does not report where a hidden item goes: give --" + pos + " with --" + name);
    item->enable = shown ? 1 : 0;
    parse_pos(opts, pos, item);
}

void set_cover(const Options &opts, int i, VIDEO_COVER_ATTR *c)
{
    const std::string name = "cover" + std::to_string(i + 1);
    if (!opts.has(name)) {
        if (!cover_on(*c)) *c = VIDEO_COVER_ATTR{};  // stays off, as an empty rectangle
        return;
    }
    const std::string v = opts.text(name, "");
    if (v == "off") {
        *c = VIDEO_COVER_ATTR{};
        return;
    }
    int l = -1, t = -1, r = -1, b = -1;
    char extra = 0;
    if (std::sscanf(v.c_str(), "%d,%d,%d,%d%c", &l, &t, &r, &b, &extra) != 4 || l < 0 || t < 0 || r > kMaxPos ||
        b > kMaxPos || r <= l || b <= t)
        throw UsageError("--" + name + " must be off or LEFT,TOP,RIGHT,BOTTOM from 0 to 8192 with RIGHT > LEFT and " +
                         "BOTTOM > TOP, not \"" + v + "\"");
    *c = VIDEO_COVER_ATTR{
        1, 0, static_cast<TK_U16>(l), static_cast<TK_U16>(t), static_cast<TK_U16>(r), static_cast<TK_U16>(b)};
}

int run_osd_set(const Options &opts)
{
    require_one_of(opts, {"time", "time-pos", "name", "name-show", "name-pos", "info", "info-pos", "cover1", "cover2",
                          "cover3", "cover4"});
    std::string gb;
    if (opts.has("name")) {
        if (!convert("UTF-8", "GB2312", opts.text("name", ""), &gb))
            throw UsageError("--name cannot be written in the camera's character set (GB2312)");
        check_fits(gb, sizeof(VIDEO_CHN_PARA::name), "--name (in GB2312)");
    }
    CameraSession cam(opts);
    VIDEO_CHN_PARA v = cam.control().get_overlay();
    set_item(opts, "time", "time-pos", &v.time);
    // The camera forgets the text of a hidden name: showing it again needs the text.
    if (v.ch_name.enable != 1 && switch_option(opts, "name-show", false) && !opts.has("name"))
        throw UsageError("the camera does not keep the text of a hidden name: give --name with --name-show on");
    set_item(opts, "name-show", "name-pos", &v.ch_name);
    if (opts.has("name")) wire_set_str(v.name, gb.c_str());
    set_item(opts, "info", "info-pos", &v.enc_info);
    for (int i = 0; i < kCovers; ++i) set_cover(opts, i, &v.cover[i]);
    cam.control().set_overlay(v);
    std::cout << (opts.has("json") ? JsonObject().add("changed", true).str() : "overlay changed") << std::endl;
    return 0;
}

}  // namespace

Command osd_get_command()
{
    return {"osd get",
            "show the overlay and the privacy covers",
            "camgate osd get [options]",
            "Shows the items written into the picture (date and time, channel name, information\n"
            "line, PTZ line) with their positions, and the four privacy covers. Positions run\n"
            "from 0,0 (top left) to 8192,8192 (bottom right).",
            [] { return with_connection({}); },
            run_osd_get};
}

Command osd_set_command()
{
    return {"osd set",
            "change the overlay and the privacy covers",
            "camgate osd set [--time on|off] [--time-pos X,Y] [--name TEXT] [--name-show on|off] [--name-pos X,Y]\n"
            "                       [--info on|off] [--info-pos X,Y] [--cover1 off|L,T,R,B] ... [options]",
            "Changes the given overlay items and covers; the others keep the camera's values.\n"
            "Positions and rectangles run from 0 to 8192. The PTZ line cannot be changed here.",
            [] {
                return with_connection({
                    {"time", "on|off", "show the date and time"},
                    {"time-pos", "X,Y", "where the date and time go"},
                    {"name", "TEXT", "the channel name (written in GB2312, at most 47 bytes)"},
                    {"name-show", "on|off", "show the channel name"},
                    {"name-pos", "X,Y", "where the channel name goes"},
                    {"info", "on|off", "show the information line"},
                    {"info-pos", "X,Y", "where the information line goes"},
                    {"cover1", "off|L,T,R,B", "privacy cover 1"},
                    {"cover2", "off|L,T,R,B", "privacy cover 2"},
                    {"cover3", "off|L,T,R,B", "privacy cover 3"},
                    {"cover4", "off|L,T,R,B", "privacy cover 4"},
                });
            },
            run_osd_set};
}

}  // namespace tool
}  // namespace camgate

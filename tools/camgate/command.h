// The commands of the camgate tool. Each command group lives in its own
// source file and is listed once in the table of commands.cpp.
#pragma once

#include <string>
#include <vector>

#include "options.h"

namespace camgate {
namespace tool {

struct Command {
    const char *name;                     // "login"
    const char *summary;                  // one line for the tool's help
    const char *usage;                    // "camgate login [options]"
    const char *description;              // paragraph(s) for the command's help
    std::vector<OptionDef> (*options)();  // the options it accepts (--help is added)
    // Run with the parsed options; the exit status (0 success, 1 failure).
    // Errors of the client library and UsageError may be thrown.
    int (*run)(const Options &opts);
};

// Every command, in the order the help lists them.
const std::vector<Command> &commands();

// The commands, one per source file.
Command login_command();
Command session_command();
Command preview_command();
Command active_preview_command();
Command discover_command();
Command udp_preview_command();

// Settings and device control; each group's commands live in one source file.
// time_cmd.cpp
Command time_get_command();
Command time_set_command();
Command datefmt_get_command();
Command datefmt_set_command();
// net_cmd.cpp
Command net_get_command();
Command net_set_command();
Command net_reset_command();
Command ntp_get_command();
Command ntp_set_command();
Command email_get_command();
Command email_set_command();
Command ftp_get_command();
Command ftp_set_command();
Command ddns_get_command();
Command ddns_set_command();
// osd_cmd.cpp
Command osd_get_command();
Command osd_set_command();
// ptz_cmd.cpp
Command ptz_command();
Command ptzcfg_get_command();
Command ptzcfg_set_command();
// users_cmd.cpp
Command users_list_command();
Command users_add_command();
Command users_del_command();
Command users_modify_command();
Command users_passwd_command();
// storage_cmd.cpp
Command schedule_get_command();
Command schedule_set_command();
Command overwrite_get_command();
Command overwrite_set_command();
Command disk_command();
Command events_command();
Command snapshot_command();
// device_cmd.cpp
Command reboot_command();
Command raw_command();

}  // namespace tool
}  // namespace camgate

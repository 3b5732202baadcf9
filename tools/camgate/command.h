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

}  // namespace tool
}  // namespace camgate

// The table of commands: add a command group by writing its source file and listing it here.
#include "command.h"

namespace camgate {
namespace tool {

const std::vector<Command> &commands()
{
    static const std::vector<Command> table = {
        login_command(),          session_command(),  preview_command(),
        active_preview_command(), discover_command(), udp_preview_command(),
    };
    return table;
}

}  // namespace tool
}  // namespace camgate

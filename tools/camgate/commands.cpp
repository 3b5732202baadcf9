// The table of commands: add a command group by writing its source file and listing it here.
#include "command.h"

namespace camgate {
namespace tool {

const std::vector<Command> &commands()
{
    static const std::vector<Command> table = {
        login_command(),        session_command(),        time_get_command(),      time_set_command(),
        datefmt_get_command(),  datefmt_set_command(),    net_get_command(),       net_set_command(),
        net_reset_command(),    ntp_get_command(),        ntp_set_command(),       email_get_command(),
        email_set_command(),    ftp_get_command(),        ftp_set_command(),       ddns_get_command(),
        ddns_set_command(),     osd_get_command(),        osd_set_command(),       ptz_command(),
        ptzcfg_get_command(),   ptzcfg_set_command(),     users_list_command(),    users_add_command(),
        users_del_command(),    users_modify_command(),   users_passwd_command(),  schedule_get_command(),
        schedule_set_command(), overwrite_get_command(),  overwrite_set_command(), disk_command(),
        events_command(),       snapshot_command(),       reboot_command(),        raw_command(),
        preview_command(),      active_preview_command(), discover_command(),      udp_preview_command(),
    };
    return table;
}

}  // namespace tool
}  // namespace camgate

// camgate users list|add|del|modify|passwd: the camera's user accounts.
//
// The camera keeps one of three levels per user: admin (every operation),
// operator (the settings of channels, encoding, recording, detection,
// network, serial port, analysis and factory reset) and viewer (watching and
// playing back only).
#include <cstring>
#include <iostream>

#include "command.h"
#include "output.h"
#include "settings_util.h"

namespace camgate {
namespace tool {

namespace {

constexpr size_t kNameField = sizeof(USER_INFO::name);  // 15 characters and the terminator

std::string level_of(const USER_PRIVILEGE &p)
{
    int granted = 0;
    for (int r = 0; r < RIGHT_COUNT; ++r) granted += p.opt_rights[r] != 0;
    if (granted == RIGHT_COUNT) return "admin";
    if (granted == 0) return p.net_priview_right[0] != 0 ? "viewer" : "none";
    bool operator_set = granted == RIGHT_RESET_FACTORY_SET + 1;
    for (int r = 0; r <= RIGHT_RESET_FACTORY_SET; ++r) operator_set = operator_set && p.opt_rights[r] != 0;
    return operator_set ? "operator" : "custom";
}

USER_PRIVILEGE rights_of_level(const std::string &level)
{
    USER_PRIVILEGE p;
    std::memset(&p, 1, sizeof p);
    std::memset(p.opt_rights, 0, sizeof p.opt_rights);
    if (level == "admin")
        std::memset(p.opt_rights, 1, RIGHT_COUNT);
    else if (level == "operator")
        std::memset(p.opt_rights, 1, RIGHT_RESET_FACTORY_SET + 1);
    else if (level != "viewer")
        throw UsageError("--level must be admin, operator or viewer, not \"" + level + "\"");
    return p;
}

std::string name_option(const Options &opts, const char *option = "name")
{
    if (!opts.has(option)) throw UsageError(std::string("give the user's --") + option);
    const std::string name = opts.text(option, "");
    if (name.empty()) throw UsageError(std::string("--") + option + " is empty");
    check_fits(name, kNameField, std::string("--") + option);
    return name;
}

std::string password_option(const Options &opts, const char *option)
{
    const std::string pw = opts.text(option, "");
    check_fits(pw, sizeof(USER_INFO::passwd), std::string("--") + option);
    return pw;
}

const USER_INFO *find_user(const std::vector<USER_INFO> &users, const std::string &name)
{
    for (const USER_INFO &u : users)
        if (field_text(u.name) == name) return &u;
    return nullptr;
}

int run_users_list(const Options &opts)
{
    const bool show = opts.has("show-passwords");
    CameraSession cam(opts);
    const std::vector<USER_INFO> users = cam.control().users();
    if (opts.has("json")) {
        std::string arr = "[";
        for (size_t i = 0; i < users.size(); ++i) {
            const USER_INFO &u = users[i];
            arr += (i ? ", " : "") + JsonObject()
                                         .add("id", static_cast<long long>(u.usr_id))
                                         .add("name", field_text(u.name))
                                         .add("password", password_text(field_text(u.passwd), show))
                                         .add("level", level_of(u.privilege))
                                         .add("rights", operation_rights(u.privilege))
                                         .str();
        }
        std::cout << JsonObject().add_raw("users", arr + "]").str() << std::endl;
        return 0;
    }
    Rows rows;
    for (const USER_INFO &u : users)
        rows.push_back(
            {field_text(u.name), "level " + level_of(u.privilege) +
                                     (show ? ", password " + password_text(field_text(u.passwd), true) : "")});
    if (rows.empty()) {
        std::cout << "no users" << std::endl;
        return 0;
    }
    print_rows(std::cout, rows);
    return 0;
}

// The camera answers every user operation with success; the list tells what it did.
int verify(CameraSession &cam, const std::string &name, bool want_present, const char *what, bool json)
{
    const bool present = find_user(cam.control().users(), name) != nullptr;
    if (json) std::cout << JsonObject().add("user", name).add("done", present == want_present).str() << std::endl;
    if (present != want_present) {
        std::cerr << "camgate users: the camera did not " << what << " user " << name
                  << (want_present ? " (a user of that name exists, or its list is full)" : "") << std::endl;
        return 1;
    }
    if (!json)
        std::cout << "user " << name << " " << what << (what[std::strlen(what) - 1] == 'e' ? "d" : "ed") << std::endl;
    return 0;
}

int run_users_add(const Options &opts)
{
    const std::string name = name_option(opts);
    const std::string pw = password_option(opts, "password");
    const USER_PRIVILEGE rights = rights_of_level(opts.text("level", "viewer"));
    CameraSession cam(opts);
    if (find_user(cam.control().users(), name) != nullptr)
        throw client::Error(client::ErrorKind::Refused, "the camera already has a user " + name);
    USER_INFO u{};
    wire_set_str(u.name, name.c_str());
    wire_set_str(u.passwd, pw.c_str());
    u.privilege = rights;
    cam.control().add_user(u);
    return verify(cam, name, true, "add", opts.has("json"));
}

int run_users_del(const Options &opts)
{
    const std::string name = name_option(opts);
    CameraSession cam(opts);
    if (find_user(cam.control().users(), name) == nullptr)
        throw client::Error(client::ErrorKind::Refused, "the camera has no user " + name);
    cam.control().delete_user(name);
    return verify(cam, name, false, "delete", opts.has("json"));
}

int run_users_modify(const Options &opts)
{
    const std::string name = name_option(opts);
    require_one_of(opts, {"password", "level"});
    const std::string pw = password_option(opts, "password");
    USER_PRIVILEGE rights{};
    if (opts.has("level")) rights = rights_of_level(opts.text("level", ""));
    CameraSession cam(opts);
    const std::vector<USER_INFO> users = cam.control().users();
    const USER_INFO *found = find_user(users, name);
    if (found == nullptr) throw client::Error(client::ErrorKind::Refused, "the camera has no user " + name);
    USER_INFO u = *found;  // what is not given keeps the camera's value
    if (opts.has("password")) wire_set_str(u.passwd, pw.c_str());
    if (opts.has("level")) u.privilege = rights;
    cam.control().modify_user(u);
    return verify(cam, name, true, "change", opts.has("json"));
}

int run_users_passwd(const Options &opts)
{
    const Target t = target_from(opts);
    const std::string name = opts.has("name") ? name_option(opts) : t.user;
    if (!opts.has("new")) throw UsageError("give the new password with --new");
    const std::string old_pw = password_option(opts, "old");
    const std::string new_pw = password_option(opts, "new");
    CameraSession cam(opts);
    cam.control().change_password(name, old_pw, new_pw);
    if (opts.has("json"))
        std::cout << JsonObject().add("user", name).add("sent", true).str() << std::endl;
    else
        std::cout << "password change for " << name << " sent" << std::endl;
    return 0;
}

}  // namespace

Command users_list_command()
{
    return {"users list",
            "list the camera's users",
            "camgate users list [--show-passwords] [options]",
            "Lists the users with their level: admin (every right), operator (settings rights)\n"
            "or viewer (watching and playing back). The camera sends passwords in clear;\n"
            "--show-passwords prints them.",
            [] {
                return with_connection({{"show-passwords", "", "print the passwords"}});
            },
            run_users_list};
}

Command users_add_command()
{
    return {"users add",
            "add a user",
            "camgate users add --name NAME [--password P] [--level admin|operator|viewer] [options]",
            "Adds a user (name and password of at most 15 characters) and checks that the\n"
            "camera lists it.",
            [] {
                return with_connection({{"name", "NAME", "the new user's name"},
                                        {"password", "PASSWORD", "the password (default empty)"},
                                        {"level", "LEVEL", "admin, operator or viewer (default viewer)"}});
            },
            run_users_add};
}

Command users_del_command()
{
    return {"users del",
            "delete a user",
            "camgate users del --name NAME [options]",
            "Deletes a user and checks that the camera no longer lists it.",
            [] {
                return with_connection({{"name", "NAME", "the user to delete"}});
            },
            run_users_del};
}

Command users_modify_command()
{
    return {"users modify",
            "change a user's password or level",
            "camgate users modify --name NAME [--password P] [--level admin|operator|viewer] [options]",
            "Changes a user's password or level; what is not given keeps the camera's value.",
            [] {
                return with_connection({{"name", "NAME", "the user to change"},
                                        {"password", "PASSWORD", "the new password"},
                                        {"level", "LEVEL", "admin, operator or viewer"}});
            },
            run_users_modify};
}

Command users_passwd_command()
{
    return {"users passwd",
            "change a password",
            "camgate users passwd [--name NAME] [--old P] --new P [options]",
            "Sends a password change (no right is needed). The camera does not check the old\n"
            "password; what its settings server makes of the change is up to it.",
            [] {
                return with_connection({{"name", "NAME", "whose password (default: the --user logging in)"},
                                        {"old", "PASSWORD", "the old password"},
                                        {"new", "PASSWORD", "the new password"}});
            },
            run_users_passwd};
}

}  // namespace tool
}  // namespace camgate

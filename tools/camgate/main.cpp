// camgate: the command-line client of the camera's client protocol.
//
//   camgate COMMAND [options]      run a command (one word, or two: "net set")
//   camgate COMMAND --help         its options
//   camgate --help                 the commands
//
// Exit status: 0 success, 1 failure talking to the camera, 2 wrong usage.
#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "client/client.h"
#include "command.h"

namespace {

using camgate::tool::Command;
using camgate::tool::commands;

void tool_help(std::ostream &out)
{
    out << "usage: camgate COMMAND [options]\n"
           "       camgate COMMAND --help\n\n"
           "Talks to a camera over its client protocol.\n\ncommands:\n";
    size_t width = 0;
    for (const Command &c : commands()) width = std::max(width, std::string(c.name).size());
    for (const Command &c : commands())
        out << "  " << c.name << std::string(width - std::string(c.name).size() + 2, ' ') << c.summary << "\n";
    out << "\nCommands that talk to a camera take --host, --port, --user, --password and --timeout.\n";
}

void command_help(const Command &c, std::ostream &out)
{
    std::vector<camgate::tool::OptionDef> defs = c.options();
    defs.push_back({"help", "", "show this help"});
    out << "usage: " << c.usage << "\n\n" << c.description << "\n\noptions:\n" << camgate::tool::options_help(defs);
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        tool_help(std::cerr);
        return 2;
    }
    const std::string name = argv[1];
    if (name == "--help" || name == "-h" || name == "help") {
        tool_help(std::cout);
        return 0;
    }
    // A command is named by one word ("login") or two ("net set").
    const Command *cmd = nullptr;
    int words = 1;
    const std::string two = argc >= 3 ? name + " " + argv[2] : "";
    for (const Command &c : commands()) {
        if (!two.empty() && two == c.name) {
            cmd = &c;
            words = 2;
        }
    }
    for (const Command &c : commands()) {
        if (cmd == nullptr && name == c.name) cmd = &c;
    }
    if (cmd == nullptr) {
        std::string choices;
        std::vector<const Command *> group;
        for (const Command &c : commands()) {
            const std::string n = c.name;
            if (n.compare(0, name.size() + 1, name + " ") == 0) {
                choices += (choices.empty() ? "" : ", ") + n.substr(name.size() + 1);
                group.push_back(&c);
            }
        }
        const bool help = argc >= 3 && (std::string(argv[2]) == "--help" || std::string(argv[2]) == "-h");
        if (!group.empty() && help) {
            size_t width = 0;
            for (const Command *c : group) width = std::max(width, std::string(c->name).size());
            for (const Command *c : group)
                std::cout << "  " << c->name << std::string(width - std::string(c->name).size() + 2, ' ') << c->summary
                          << "\n";
            std::cout << "\nsee camgate " << name << " " << group.front()->name + name.size() + 1 << " --help"
                      << std::endl;
            return 0;
        }
        if (!choices.empty())
            std::cerr << "camgate " << name << ": say what to do: " << choices << "; see camgate --help" << std::endl;
        else
            std::cerr << "camgate: unknown command \"" << name << "\"; see camgate --help" << std::endl;
        return 2;
    }
    const std::vector<std::string> args(argv + 1 + words, argv + argc);
    for (const std::string &a : args) {
        if (a == "--help" || a == "-h") {
            command_help(*cmd, std::cout);
            return 0;
        }
    }
    try {
        const camgate::tool::Options opts(cmd->options(), args);
        return cmd->run(opts);
    } catch (const camgate::tool::UsageError &e) {
        std::cerr << "camgate " << cmd->name << ": " << e.what() << "; see camgate " << cmd->name << " --help"
                  << std::endl;
        return 2;
    } catch (const camgate::client::Error &e) {
        std::cerr << "camgate " << cmd->name << ": " << e.what() << std::endl;
        return 1;
    }
}

// kessctl new-agent.
#include "config/new_agent.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>

#include "commands/commands.h"
#include "host/agent_place.h"

namespace kessctl {
namespace {

exit_status make_agent(new_agent wanted) {
    std::string wrong = agent_name_fault(wanted.name);
    if (wrong.empty())
        wrong = write_agent(wanted);
    if (!wrong.empty())
        return complain(wrong);
    std::printf("%s: command port %d\n"
                "look through it, then: systemctl enable --now kessard@%s\n",
                place_of(wanted.name).cfg_file.c_str(), wanted.port, wanted.name.c_str());
    return EXIT_OK;
}

} // namespace

void add_new_agent(CLI::App& app, exit_status* status) {
    const auto wanted = std::make_shared<new_agent>();
    wanted->from = place_of("").cfg_file;
    CLI::App* command =
        app.add_subcommand("new-agent", "Write the configuration of a further agent of this host");
    command->add_option("NAME", wanted->name, "Its name, which --agent and kessard@NAME take")
        ->required();
    command->add_option("--from", wanted->from, "Configuration file to copy")
        ->capture_default_str();
    command->add_option("--first-key", wanted->key, "System V key to begin with")
        ->check(CLI::Range(1, 2000000000))
        ->capture_default_str();
    command->add_option("--first-port", wanted->port, "Command port to begin with")
        ->check(CLI::Range(1, 65535))
        ->capture_default_str();
    command->footer("Keys and port are free on this host and in the files of its other agents. Log "
                    "and state file are its own; other absolute paths stay as they are in the "
                    "file that is copied. Exit status 0 written, 2 not.");
    command->callback([wanted, status] { *status = make_agent(*wanted); });
}

} // namespace kessctl

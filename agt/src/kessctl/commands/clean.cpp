// kessctl clean: removes the System V objects of a configuration.
#include "commands/commands.h"

#include <sys/sem.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>

#include "commands/columns.h"
#include "config_file.h"
#include "host/daemon_process.h"
#include "host/shared_view.h"
#include "shmem.h"

namespace kessctl {
namespace {

struct clean_options {
    std::string cfg_file = default_cfg_file();
    bool yes = false;
    bool force = false;
};

std::vector<object_state> existing_objects(const std::string& cfg_file) {
    std::vector<object_state> states;
    for (const agt::shared_object* object : agt::SHARED_OBJECTS)
        if (object_state state = find_object(cfg_file, *object); state.exists())
            states.push_back(state);
    return states;
}

bool is_segment(const object_state& state) {
    return state.object->kind == agt::object_kind::segment;
}

void list(const object_state& state) {
    std::printf("%-25s %11s  %-18s %9zu %s\n", state.object->keyword, state.key.c_str(),
                state.object->name, state.size, state.object->unit());
    if (state.attaches == 0)
        return;
    const std::string users = process_texts(attached_to(state.id));
    const std::string shown = users.empty() ? "processes of other users" : users;
    std::fputs(fitted(STDOUT_FILENO, "attached: " + shown, 4).c_str(), stdout);
}

// Why an object is not removed without force; empty when it may be.
std::string obstacle(const object_state& state) {
    if (state.size == 0)
        return state.fault;
    if (state.attaches > 0)
        return "processes are attached to it";
    return state.size == state.object->size ? ""
                                            : "it has another size and may be another program's";
}

std::string obstacle(const std::string& cfg_file, const std::vector<object_state>& states) {
    const daemon_state daemon = find_daemon(cfg_file);
    if (!daemon.seen.empty())
        return "the daemon runs: " + process_texts(daemon.seen);
    std::string strangers;
    for (const std::string& one : daemon.strangers)
        strangers += (strangers.empty() ? "no daemon runs, but " : "; ") + one;
    if (!strangers.empty())
        return strangers;
    for (const object_state& state : states)
        if (const std::string why = obstacle(state); !why.empty())
            return std::string(state.object->keyword) + ": " + why;
    return {};
}

exit_status refuse(const std::string& why) {
    complain("nothing removed: " + why);
    return EXIT_REFUSED;
}

bool confirmed(std::size_t count) {
    std::printf("Remove these %zu objects with what they hold? [y/N] ", count);
    std::fflush(stdout);
    std::string answer;
    return std::getline(std::cin, answer) && (answer == "y" || answer == "Y" || answer == "yes");
}

bool remove(const object_state& state) {
    if ((is_segment(state) ? agt::remove_shm(state.id) : semctl(state.id, 0, IPC_RMID)) == 0)
        return true;
    complain(std::string(state.object->keyword) + " " + state.key + ": " + std::strerror(errno));
    return false;
}

exit_status remove_all(const std::vector<object_state>& states) {
    std::size_t removed = 0;
    for (const object_state& state : states)
        removed += remove(state) ? 1 : 0;
    std::printf("%zu of %zu objects removed\n", removed, states.size());
    return removed == states.size() ? EXIT_OK : EXIT_ERROR;
}

// What may have changed while the operator thought is looked at again.
exit_status clean(const clean_options& chosen) {
    agt::config_file file;
    const std::string wrong = open_cfg(chosen.cfg_file, "give --config", &file);
    if (!wrong.empty())
        return complain(wrong);
    std::vector<object_state> states = existing_objects(chosen.cfg_file);
    for (const object_state& state : states)
        list(state);
    std::string why = chosen.force ? "" : obstacle(chosen.cfg_file, states);
    if (!why.empty())
        return refuse(why);
    if (!states.empty() && !chosen.yes) {
        if (isatty(STDIN_FILENO) == 0)
            return refuse("no terminal to ask on, give --yes");
        if (!confirmed(states.size()))
            return refuse("not confirmed");
        states = existing_objects(chosen.cfg_file);
        why = chosen.force ? "" : obstacle(chosen.cfg_file, states);
    }
    return why.empty() ? remove_all(states) : refuse(why);
}

} // namespace

void add_clean(CLI::App& app, exit_status* status) {
    const auto chosen = std::make_shared<clean_options>();
    CLI::App* command = app.add_subcommand("clean", "Remove the shared objects of a configuration");
    add_cfg_option(*command, chosen->cfg_file);
    command->add_flag("--yes", chosen->yes, "Do not ask");
    command->add_flag(
        "--force", chosen->force,
        "Even while the daemon runs, processes are attached, or an object has another size");
    command->footer("Exit status 0 when all that there was is removed, 1 when nothing was removed "
                    "because it is in use "
                    "or was not confirmed, 2 when the configuration or an object made trouble.");
    command->callback([chosen, status] { *status = clean(*chosen); });
}

} // namespace kessctl

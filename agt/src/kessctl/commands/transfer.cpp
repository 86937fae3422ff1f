// kessctl exec, put, get.
//
// Each request takes a connection of its own, so what one request cannot carry costs one more
// connection. The first request that fails is the last; a command that fails is not a failed
// request.
#include "commands/commands.h"

#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <climits>
#include <cstdio>
#include <functional>
#include <memory>
#include <set>

#include "commands/progress_bar.h"
#include "server/ext_client.h"
#include "server/ext_transfer.h"
#include "wire/frame.h"

namespace kessctl {
namespace {

exit_status report(const ext_result& result) {
    if (result.ok())
        return EXIT_OK;
    complain(result.text);
    return result.outcome == ext_result::refused ? EXIT_REFUSED : EXIT_ERROR;
}

exit_status check_items(const std::vector<std::string>& items) {
    for (const std::string& item : items) {
        const std::string wrong = check_item(item);
        if (!wrong.empty())
            return complain(wrong);
    }
    return EXIT_OK;
}

// ---- exec

struct exec_options {
    agent_address agent;
    std::vector<std::string> commands;
    int time_value = 0; // 0: none is sent
    bool strict = false;
};

std::string describe(const command_result& result) {
    switch (end_of(result)) {
    case command_end::timed_out:
        return "time-out, the agent stopped it after " +
               std::to_string(AGENT_COMMAND_LIMIT_MS / 1000) + " s";
    case command_end::signalled:
        return "ended by a signal";
    case command_end::no_output:
        return "no output, exit status unknown";
    case command_end::not_started:
        return "the agent could not run it";
    default:
        return "exit status " + std::to_string(result.exit_code);
    }
}

bool succeeded(const command_result& result, bool strict) {
    const command_end end = end_of(result);
    return end == command_end::succeeded || (end == command_end::no_output && !strict);
}

// Shows a command as a terminal would, then how it ended.
void print_result(const std::string& command, const command_result& result) {
    std::printf("$ %s\n", command.c_str());
    std::fwrite(result.output.data(), 1, result.output.size(), stdout);
    if (!result.output.empty() && result.output.back() != '\n')
        std::putchar('\n');
    std::printf("-> %s\n", describe(result).c_str());
    std::fflush(stdout);
}

// The results that came before a failure are shown too.
exit_status run_request(exec_options& chosen, const ext_request& request) {
    command_client client;
    if (!connect_agent(chosen.agent, client))
        return EXIT_ERROR;
    std::vector<command_result> results;
    const exit_status sent = report(run_commands(client, request, chosen.agent.limit_ms, &results));
    exit_status status = sent;
    for (std::size_t i = 0; i < results.size(); ++i) {
        print_result(chosen.commands[request.first + i], results[i]);
        if (status == EXIT_OK && !succeeded(results[i], chosen.strict))
            status = EXIT_REFUSED;
    }
    return status;
}

exit_status exec(exec_options& chosen) {
    std::vector<ext_request> requests;
    if (check_items(chosen.commands) != EXIT_OK)
        return EXIT_ERROR;
    const std::string wrong =
        plan_requests(command_form(chosen.time_value), chosen.commands, &requests);
    if (!wrong.empty())
        return complain(wrong);
    exit_status status = EXIT_OK;
    for (const ext_request& request : requests) {
        const exit_status ran = run_request(chosen, request);
        if (ran != EXIT_OK)
            status = ran;
        if (ran == EXIT_ERROR)
            break;
    }
    return status;
}

// ---- put, get

struct transfer_options {
    agent_address agent;
    std::vector<std::string> paths; // files, then the directory
};

using transfer_step =
    std::function<ext_result(command_client&, const ext_request&, const transfer_observer&)>;

std::string take_directory(transfer_options& chosen) {
    std::string directory = chosen.paths.back();
    chosen.paths.pop_back();
    return directory;
}

// Carries the requests out one after the other.
exit_status transfer(agent_address& agent, const std::vector<ext_request>& requests,
                     const transfer_step& step) {
    progress_bar bar;
    const transfer_observer observe = [&bar](const std::string& name, std::uint64_t done,
                                             std::uint64_t size) { bar.show(name, done, size); };
    for (const ext_request& request : requests) {
        command_client client;
        if (!connect_agent(agent, client))
            return EXIT_ERROR;
        const ext_result result = step(client, request, observe);
        bar.end_line();
        if (!result.ok())
            return report(result);
    }
    return EXIT_OK;
}

// Looks at the files to upload and makes their items. Empty, or what is wrong.
std::string describe_files(const std::vector<std::string>& paths, std::vector<local_file>* files,
                           std::vector<std::string>* items) {
    std::set<std::string> names;
    for (const std::string& path : paths) {
        const std::string wrong = describe_file(path, &files->emplace_back());
        if (!wrong.empty())
            return wrong;
        const local_file& file = files->back();
        if (!names.insert(file.name).second)
            return "two of the files are named '" + file.name + "'";
        items->push_back(upload_item(file));
    }
    return {};
}

exit_status put(transfer_options& chosen) {
    std::vector<local_file> files;
    std::vector<std::string> items;
    std::vector<ext_request> requests;
    const std::string directory = take_directory(chosen);
    if (check_items({directory}) != EXIT_OK)
        return EXIT_ERROR;
    std::string wrong = describe_files(chosen.paths, &files, &items);
    if (wrong.empty())
        wrong = plan_requests({EXT_SVC_FILE_UP, directory, UPLOAD_MAX}, items, &requests);
    if (!wrong.empty())
        return complain(wrong);
    return transfer(
        chosen.agent, requests,
        [&](command_client& client, const ext_request& request, const transfer_observer& observe) {
            return upload_files(client, request, files, chosen.agent.limit_ms, observe);
        });
}

exit_status get(transfer_options& chosen) {
    const std::string directory = take_directory(chosen);
    struct stat info;
    if (stat(directory.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
        return complain(directory + ": no such directory");
    std::vector<ext_request> requests;
    if (check_items(chosen.paths) != EXIT_OK)
        return EXIT_ERROR;
    const std::string wrong =
        plan_requests({EXT_SVC_FILE_DOWN, "", EXT_ITEM_MAX}, chosen.paths, &requests);
    if (!wrong.empty())
        return complain(wrong);
    std::set<std::string> taken;
    return transfer(
        chosen.agent, requests,
        [&](command_client& client, const ext_request& request, const transfer_observer& observe) {
            return download_files(client, request, directory, chosen.agent.limit_ms, observe,
                                  &taken);
        });
}

void add_transfer(CLI::App* command, exit_status* status,
                  exit_status (*action)(transfer_options&)) {
    const auto chosen = std::make_shared<transfer_options>();
    add_agent_options(*command, chosen->agent);
    command->add_option("paths", chosen->paths, "FILE... DIR")->expected(2, INT_MAX)->required();
    command->callback([chosen, status, action] { *status = action(*chosen); });
}

} // namespace

void add_exec(CLI::App& app, exit_status* status) {
    const auto chosen = std::make_shared<exec_options>();
    CLI::App* command =
        app.add_subcommand("exec", "Run shell commands on the agent's host, one after the other");
    add_agent_options(*command, chosen->agent);
    command
        ->add_option("--timeout", chosen->time_value,
                     "Time value of the request. The agent makes at most that many commands (10 "
                     "without it, never more "
                     "than 30) of one request, so more are sent as several; each command has 10 s "
                     "whatever it is")
        ->check(CLI::Range(1, INT_MAX));
    command->add_flag("--strict", chosen->strict, "Count a command without output as failed");
    command->add_option("command", chosen->commands, "Command lines, one per argument")->required();
    command->footer("Exit status 1 when a command failed: its exit status is not 0, it ran into "
                    "its limit, a signal\n"
                    "ended it or it could not be run. Of a command that writes nothing the agent "
                    "does not tell how it\n"
                    "ended; that is no failure unless --strict is given.");
    command->callback([chosen, status] { *status = exec(*chosen); });
}

void add_put(CLI::App& app, exit_status* status) {
    CLI::App* command =
        app.add_subcommand("put", "Copy files to a directory of the agent's host, which is made");
    command->footer("Files keep their permissions for reading, writing and executing. $NAME in DIR "
                    "is a variable of\n"
                    "the agent's environment.");
    add_transfer(command, status, put);
}

void add_get(CLI::App& app, exit_status* status) {
    CLI::App* command =
        app.add_subcommand("get", "Copy files of the agent's host to a directory here");
    command->footer("Files keep their permissions for reading, writing and executing. $NAME in "
                    "FILE is a variable of\n"
                    "the agent's environment. A file appears under its name when it and those sent "
                    "with it are whole.");
    add_transfer(command, status, get);
}

} // namespace kessctl

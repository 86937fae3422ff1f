// kessctl put, get.
//
// Each request takes a connection of its own, so what one request cannot carry costs one more
// connection. The first request that fails is the last.
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <climits>
#include <csignal>
#include <functional>
#include <memory>
#include <set>

#include "commands/commands.h"
#include "commands/progress_bar.h"
#include "server/ext_client.h"
#include "server/ext_transfer.h"
#include "wire/text.h"

namespace kessctl {
namespace {

struct transfer_options {
    agent_address agent;
    std::vector<std::string> paths; // files, then the directory
    bool direct = false;
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
            return report(result, agent, client);
    }
    return EXIT_OK;
}

// Looks at the files to upload. Empty, or what is wrong.
std::string describe_files(const std::vector<std::string>& paths, std::vector<local_file>* files) {
    std::set<std::string> names;
    for (const std::string& path : paths) {
        const std::string wrong = describe_file(path, &files->emplace_back());
        if (!wrong.empty())
            return wrong;
        if (!names.insert(files->back().name).second)
            return "two of the files are named '" + files->back().name + "'";
    }
    return {};
}

// Runs a command of the agent's shell.
ext_result run_command(agent_address& agent, const std::string& command) {
    command_client client;
    std::vector<ext_request> requests;
    std::vector<command_result> results;
    const ext_form form = command_form(0);
    const std::string wrong = plan_requests(form, {reporting(form, command)}, &requests);
    if (!wrong.empty() || !connect_agent(agent, client))
        return {ext_result::failed, wrong};
    const ext_result sent = run_commands(client, requests[0], agent.limit_ms, &results);
    if (!sent.ok())
        return sent;
    take_report(&results[0]);
    const command_end end = end_of(results[0]);
    std::string& said = results[0].output;
    said.erase(said.find_last_not_of('\n') + 1);
    if (end == command_end::exit_status)
        return {ext_result::refused, printable(said, "\n")};
    return end == command_end::succeeded ? ext_result{}
                                         : ext_result{ext_result::failed, "it did not end"};
}

// What a signal that ends an upload has said.
std::string* left_behind = nullptr;

void say_left_behind(int signo) {
    const ssize_t said = write(STDERR_FILENO, left_behind->data(), left_behind->size());
    raise(said < 0 ? SIGKILL : signo);
}

void say_at_signal(std::string* text) {
    left_behind = text;
    struct sigaction action {};
    action.sa_handler = say_left_behind;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
    for (const int signo : {SIGINT, SIGTERM, SIGHUP})
        sigaction(signo, &action, nullptr);
}

// Sends the files under the names that they get at first; *begun once one of them is on its way.
exit_status send_files(agent_address& agent, const std::string& directory,
                       const std::vector<local_file>& files, bool* begun) {
    std::vector<std::string> items;
    std::vector<ext_request> requests;
    for (const local_file& file : files)
        items.push_back(upload_item(file));
    const std::string wrong =
        plan_requests({EXT_SVC_FILE_UP, directory, UPLOAD_MAX}, items, &requests);
    if (!wrong.empty())
        return complain(wrong);
    return transfer(
        agent, requests,
        [&](command_client& client, const ext_request& request, const transfer_observer& observe) {
            const transfer_observer note = [&](const std::string& name, std::uint64_t done,
                                               std::uint64_t size) {
                *begun = true;
                observe(name, done, size);
            };
            return upload_files(client, request, files, agent.limit_ms, note);
        });
}

// Sends the files under temporary names and has them moved to their own.
exit_status put_in_place(agent_address& agent, const std::string& directory,
                         std::vector<local_file>& files) {
    placing steps;
    bool begun = false;
    const std::string wrong = plan_placing(directory, &files, &steps);
    if (!wrong.empty())
        return complain(wrong);
    const std::string lie = "what has come lies in " + directory + " under " +
                            files[0].sent_name.substr(0, files[0].sent_name.rfind('-')) + "-*";
    std::string at_signal = "\nkessctl: " + lie + "\n";
    say_at_signal(&at_signal);
    const exit_status sent = send_files(agent, directory, files, &begun);
    if (sent != EXIT_OK) {
        if (begun && !run_command(agent, steps.remove).ok())
            complain(lie);
        return sent;
    }
    for (const std::string& command : steps.commands) {
        const ext_result moved = run_command(agent, command);
        if (moved.ok())
            continue;
        complain(moved.text);
        if (moved.outcome == ext_result::failed)
            complain(lie + ", unless it was moved");
        return moved.outcome == ext_result::refused ? EXIT_REFUSED : EXIT_ERROR;
    }
    return EXIT_OK;
}

exit_status put(transfer_options& chosen) {
    std::vector<local_file> files;
    const std::string directory = take_directory(chosen);
    if (check_items({directory}) != EXIT_OK)
        return EXIT_ERROR;
    const std::string wrong = describe_files(chosen.paths, &files);
    if (!wrong.empty())
        return complain(wrong);
    bool begun = false;
    return chosen.direct ? send_files(chosen.agent, directory, files, &begun)
                         : put_in_place(chosen.agent, directory, files);
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
            return download_files(client, request, chosen.paths, directory, chosen.agent.limit_ms,
                                  observe, &taken);
        });
}

std::shared_ptr<transfer_options> add_transfer(CLI::App* command, exit_status* status,
                                               exit_status (*action)(transfer_options&)) {
    auto chosen = std::make_shared<transfer_options>();
    add_agent_options(*command, chosen->agent);
    command->add_option("paths", chosen->paths, "FILE... DIR")->expected(2, INT_MAX)->required();
    command->callback([chosen, status, action] { *status = action(*chosen); });
    return chosen;
}

} // namespace

void add_put(CLI::App& app, exit_status* status) {
    CLI::App* command =
        app.add_subcommand("put", "Copy files to a directory of the agent's host, which is made");
    command->footer("Files keep their permissions for reading, writing and executing. $NAME in DIR "
                    "is a variable of "
                    "the agent's environment. Files go there under temporary names and are moved "
                    "to their own by a "
                    "command, so that none is there in half.");
    command->add_flag("--direct", add_transfer(command, status, put)->direct,
                      "Write under the final names: nothing is moved, owner and links of a file "
                      "that is there stay");
}

void add_get(CLI::App& app, exit_status* status) {
    CLI::App* command =
        app.add_subcommand("get", "Copy files of the agent's host to a directory here");
    command->footer("Files keep their permissions for reading, writing and executing. $NAME in "
                    "FILE is a variable of "
                    "the agent's environment. A file appears under its name when it and those sent "
                    "with it are whole.");
    add_transfer(command, status, get);
}

} // namespace kessctl

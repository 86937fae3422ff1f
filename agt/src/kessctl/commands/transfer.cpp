// kessctl put, get.
//
// Each request takes a connection of its own, so what one request cannot carry costs one more
// connection. The first request that fails is the last.
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <climits>
#include <functional>
#include <memory>
#include <set>

#include "commands/commands.h"
#include "commands/progress_bar.h"
#include "server/ext_client.h"
#include "server/ext_transfer.h"

namespace kessctl {
namespace {

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
            return report(result, agent, client);
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
            return download_files(client, request, chosen.paths, directory, chosen.agent.limit_ms,
                                  observe, &taken);
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

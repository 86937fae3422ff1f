// kessctl exec.
//
// Each request takes a connection of its own, so what one request cannot carry costs one more
// connection. The first request that fails is the last; a command that fails is not a failed
// request.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <climits>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "commands/commands.h"
#include "commands/json_output.h"
#include "server/ext_client.h"
#include "wire/text.h"

namespace kessctl {
namespace {

struct exec_options {
    agent_address agent;
    std::vector<std::string> commands;
    std::vector<std::string> sent; // the texts that the agent gets for them
    int time_value = 0;            // 0: none is sent
    bool strict = false;
    bool raw = false;
    bool json = false;
};

std::string describe(const command_result& result) {
    if (!result.whole)
        return "the answer broke off, its end is not known";
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

// Shows a command as a terminal would, then how it ended. What others wrote does not command the
// terminal.
void print_result(const std::string& command, const command_result& result) {
    const bool on_terminal = isatty(STDOUT_FILENO) == 1;
    const std::string shown = on_terminal ? printable(result.output, "\n\t") : result.output;
    std::printf("$ %s\n", command.c_str());
    std::fwrite(shown.data(), 1, shown.size(), stdout);
    if (!shown.empty() && shown.back() != '\n')
        std::putchar('\n');
    std::printf("-> %s\n", describe(result).c_str());
    std::fflush(stdout);
}

nlohmann::ordered_json as_json(const std::string& command, const command_result& result) {
    const command_end end = result.whole ? end_of(result) : command_end::no_output;
    const bool exited = end == command_end::succeeded || end == command_end::exit_status;
    return {{"command", command},
            {"end", describe(result)},
            {"exit_status", exited ? nlohmann::ordered_json(result.exit_code) : nullptr},
            {"output", result.output}};
}

// The results that came before a failure are shown too, or join `all`.
exit_status run_request(exec_options& chosen, const ext_request& request,
                        nlohmann::ordered_json* all) {
    command_client client;
    if (!connect_agent(chosen.agent, client))
        return EXIT_ERROR;
    std::vector<command_result> results;
    const ext_result sent = run_commands(client, request, chosen.agent.limit_ms, &results);
    exit_status status = report(sent, chosen.agent, client);
    for (std::size_t i = 0; i < results.size(); ++i) {
        const std::string& command = chosen.commands[request.first + i];
        if (chosen.sent[request.first + i] != command)
            take_report(&results[i]);
        if (chosen.json)
            all->push_back(as_json(command, results[i]));
        else
            print_result(command, results[i]);
        if (status == EXIT_OK && !succeeded(results[i], chosen.strict))
            status = EXIT_REFUSED;
    }
    return status;
}

exit_status exec(exec_options& chosen) {
    std::vector<ext_request> requests;
    if (check_items(chosen.commands) != EXIT_OK)
        return EXIT_ERROR;
    const ext_form form = command_form(chosen.time_value);
    for (const std::string& command : chosen.commands)
        chosen.sent.push_back(chosen.raw ? command : reporting(form, command));
    const std::string wrong = plan_requests(form, chosen.sent, &requests);
    if (!wrong.empty())
        return complain(wrong);
    exit_status status = EXIT_OK;
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    for (const ext_request& request : requests) {
        const exit_status ran = run_request(chosen, request, &all);
        if (ran != EXIT_OK)
            status = ran;
        if (ran == EXIT_ERROR || std::ferror(stdout) != 0)
            break;
    }
    if (chosen.json)
        print_json(all);
    return status;
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
    command->add_flag("--strict", chosen->strict,
                      "Count a command whose end is not known as failed");
    command->add_flag("--raw", chosen->raw, "Send the texts as they are");
    add_json_flag(*command, chosen->json);
    command->add_option("command", chosen->commands, "Command lines, one per argument")->required();
    command->footer(
        "Exit status 1 when a command failed: its exit status is not 0, it ran into its limit, a "
        "signal ended it or it could not be run. The agent tells the exit status only of a "
        "command that writes something, so \"echo;\" goes in front of each, and the empty line is "
        "taken off its output. With --raw, or without room for that, the end of a command that "
        "writes nothing is not known, which is no failure unless --strict is given.");
    command->callback([chosen, status] { *status = exec(*chosen); });
}

} // namespace kessctl

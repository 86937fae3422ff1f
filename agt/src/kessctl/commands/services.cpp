// kessctl services add|update|delete.
#include "commands/commands.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "server/service_file.h"
#include "wire/frame.h"

namespace kessctl {
namespace {

struct change {
    const char* name;
    const char* help;
    char mode;
};

const change CHANGES[] = {
    {"add", "Add services; those that exist already stay as they are", 'A'},
    {"update", "Overwrite services, adding those that do not exist", 'Y'},
    {"delete", "Delete services", 'D'},
};

struct services_options {
    agent_address agent;
    std::vector<std::string> words;
    std::string file;
};

// The services of the words: a word without '=' starts one. Empty, or what is wrong.
std::string parse_words(const std::vector<std::string>& words, std::vector<SERVICE_ELEMENT>* out) {
    for (auto word = words.begin(); word != words.end();) {
        const auto end = std::find_if(word + 1, words.end(), [](const std::string& text) {
            return text.find('=') == text.npos;
        });
        SERVICE_ELEMENT service;
        const std::string wrong = parse_service({word, end}, &service);
        if (!wrong.empty())
            return wrong;
        out->push_back(service);
        word = end;
    }
    return {};
}

std::string collect(const services_options& chosen, char mode, std::vector<SERVICE_ELEMENT>* out) {
    std::string wrong = parse_words(chosen.words, out);
    if (wrong.empty() && !chosen.file.empty())
        wrong = read_service_file(chosen.file, out);
    for (SERVICE_ELEMENT& service : *out)
        service.update_mode[0] = mode;
    return wrong.empty() && out->empty() ? "no services: give some, or a --file" : wrong;
}

// Sends block after block, stopping at the first that the agent did not take whole.
exit_status send_blocks(const agent_address& agent, command_client& client,
                        const std::vector<SERVICE_ELEMENT>& services) {
    for (std::size_t at = 0; at < services.size(); at += SERVICE_ELEMENT_MAX) {
        const std::size_t count = std::min<std::size_t>(services.size() - at, SERVICE_ELEMENT_MAX);
        TCP_CMD_MSG answer;
        const exit_status asked =
            ask_agent(agent, client, modified_services_frame(services.data() + at, count), &answer);
        if (asked != EXIT_OK)
            return asked;
        const long taken = std::strtol(field_text(answer, "element_num").c_str(), nullptr, 10);
        if (taken != static_cast<long>(count)) {
            complain("the agent took " + std::to_string(taken) + " of the " +
                     std::to_string(count) + " services from number " + std::to_string(at + 1) +
                     " on");
            return EXIT_REFUSED;
        }
    }
    std::printf("%zu services sent\n", services.size());
    return EXIT_OK;
}

exit_status change_services(services_options& chosen, char mode) {
    std::vector<SERVICE_ELEMENT> services;
    const std::string wrong = collect(chosen, mode, &services);
    if (!wrong.empty())
        return complain(wrong);
    command_client client;
    return connect_agent(chosen.agent, client) ? send_blocks(chosen.agent, client, services)
                                               : EXIT_ERROR;
}

} // namespace

void add_services(CLI::App& app, exit_status* status) {
    CLI::App* command = app.add_subcommand("services", "Change the agent's service table");
    command->require_subcommand(1);
    for (const change& row : CHANGES) {
        const auto chosen = std::make_shared<services_options>();
        CLI::App* action = command->add_subcommand(row.name, row.help);
        add_agent_options(*action, chosen->agent);
        action->add_option("service", chosen->words,
                           "SERVICE_ID [key=value ...] ..., as in a services file");
        action->add_option("--file", chosen->file, "Services file, one service per line");
        action->callback(
            [chosen, status, mode = row.mode] { *status = change_services(*chosen, mode); });
    }
}

} // namespace kessctl

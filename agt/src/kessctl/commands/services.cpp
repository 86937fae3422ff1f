// kessctl services add|update|delete.
#include "commands/commands.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>

#include "agent/agent_snapshot.h"
#include "agent/report_text.h"
#include "commands/json_output.h"
#include "server/service_file.h"
#include "wait.h"
#include "wire/frame.h"
#include "wire/text.h"

namespace kessctl {
namespace {

constexpr int LOOK_AGAIN_MS = 50;
constexpr char RETRIEVAL_THREAD[] = "get_service_list";
constexpr char CHANGE_DELETE = 'D';

struct change {
    const char* name;
    const char* help;
    char mode;
};

const change CHANGES[] = {
    {"add", "Add services; those that exist already stay as they are", 'A'},
    {"update", "Overwrite services, adding those that do not exist", 'Y'},
    {"delete", "Delete services", CHANGE_DELETE},
};

struct services_options {
    agent_address agent;
    std::vector<std::string> words;
    std::string file;
    bool json = false;
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

// Waits until the agent has its list, which replaces what is changed before. Only an agent on this
// host can be looked at; empty, or that it takes too long.
std::string wait_for_list(const agent_address& agent) {
    const pid_t pid = find_daemon(default_cfg_file()).pid;
    const long long until_ms = agt::monotonic_ms() + agent.limit_ms;
    while (has_thread(pid, RETRIEVAL_THREAD)) {
        if (agt::monotonic_ms() > until_ms)
            return "the agent still fetches its service list, which would replace the change: "
                   "try again later";
        agt::sleep_ms(LOOK_AGAIN_MS);
    }
    return {};
}

// Takes the services out that the table does not have, and names them. False, with nothing taken
// out, when the table cannot be read.
bool take_missing(std::vector<SERVICE_ELEMENT>* services, std::vector<std::string>* missing) {
    agent_snapshot now;
    now.cfg_file = default_cfg_file();
    read_services(now);
    if (!now.service_fill.known || !now.service_fill.fault.empty())
        return false;
    std::set<std::string> ids;
    for (const service_row& row : now.services)
        ids.insert(row.service_id);
    std::erase_if(*services, [&](const SERVICE_ELEMENT& one) {
        if (ids.contains(shown(one.service_id)))
            return false;
        missing->push_back(shown(one.service_id));
        return true;
    });
    return true;
}

// Sends block after block, stopping at the first that the agent did not take whole.
exit_status send_blocks(const services_options& chosen, command_client& client,
                        const std::vector<SERVICE_ELEMENT>& services) {
    for (std::size_t at = 0; at < services.size(); at += SERVICE_ELEMENT_MAX) {
        const std::size_t count = std::min<std::size_t>(services.size() - at, SERVICE_ELEMENT_MAX);
        TCP_CMD_MSG answer;
        const TCP_CMD_MSG request = modified_services_frame(services.data() + at, count);
        const exit_status asked = ask_agent(chosen.agent, client, request, &answer, !chosen.json);
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
    return EXIT_OK;
}

void print_sent(const services_options& chosen, std::size_t sent, bool is_known,
                const std::vector<std::string>& missing) {
    if (chosen.json) {
        nlohmann::ordered_json all = {{"sent", sent}, {"missing", nullptr}};
        if (is_known)
            all["missing"] = missing;
        print_json(all);
        return;
    }
    for (const std::string& id : missing)
        complain("no such service: " + id);
    std::printf("%s sent%s\n", counted(static_cast<long long>(sent), "service", "services").c_str(),
                is_known ? "" : "; whether they were there cannot be known from here");
}

exit_status change_services(services_options& chosen, char mode) {
    std::vector<SERVICE_ELEMENT> services;
    std::vector<std::string> missing;
    std::string wrong = collect(chosen, mode, &services);
    if (!wrong.empty())
        return complain(wrong);
    command_client client;
    if (!connect_agent(chosen.agent, client))
        return EXIT_ERROR;
    const bool is_own = is_own_agent(chosen.agent);
    if (is_own)
        wrong = wait_for_list(chosen.agent);
    if (!wrong.empty()) {
        complain(wrong);
        return EXIT_REFUSED;
    }
    const bool is_known = mode != CHANGE_DELETE || (is_own && take_missing(&services, &missing));
    const exit_status sent = send_blocks(chosen, client, services);
    if (sent != EXIT_OK)
        return sent;
    print_sent(chosen, services.size(), is_known, missing);
    return missing.empty() ? EXIT_OK : EXIT_REFUSED;
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
        add_json_flag(*action, chosen->json);
        action->callback(
            [chosen, status, mode = row.mode] { *status = change_services(*chosen, mode); });
    }
}

} // namespace kessctl

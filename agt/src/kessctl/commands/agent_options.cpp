// What every subcommand that talks to an agent has in common.
#include "commands/agent_options.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "commands/columns.h"
#include "host/state_view.h"
#include "host_address.h"
#include "wire/print_frame.h"
#include "wire/text.h"

namespace kessctl {
namespace {

// Whether a list of addresses and blocks, separated by commas, holds the address; an empty one
// holds all.
bool holds(const std::string& list, in_addr address) {
    std::istringstream items(list);
    bool found = list.empty();
    for (std::string item; std::getline(items, item, ',');) {
        agt::address_block block{};
        found = found || (agt::parse_address_block(item.c_str(), &block) &&
                          (ntohl(address.s_addr) & block.mask) == block.address);
    }
    return found;
}

// How many connections an agent on this host has refused for want of a place, where it tells.
std::string refused_for_places() {
    const std::string cfg = default_cfg_file();
    const state_view state = read_state(cfg, find_daemon(cfg));
    return state.known()
               ? ", for which it has refused " +
                     std::to_string(state.values.connections_refused[STATE_REFUSED_PLACE]) +
                     " since its start"
               : "";
}

// Why an agent closed a connection on which it has said nothing. The configuration of an agent on
// this host tells; of another, that it read the request before.
std::string reason_of_close(const agent_address& agent, const command_client& client,
                            bool extended) {
    const std::string no_remote_commands =
        "it refuses remote commands and transfers (REMOTE_COMMANDS_YN is N)";
    const std::string no_place = "all its places for connections are taken";
    char own[INET_ADDRSTRLEN] = "";
    const in_addr address = client.own_address();
    inet_ntop(AF_INET, &address, own, sizeof own);
    agt::config_file file;
    if (is_own_agent(agent) && file.open(default_cfg_file()).empty()) {
        if (!holds(file.value_of(agt::config_key_of("TRAN_AGENT", "ALLOWED_ADDRESSES")), address))
            return std::string("ALLOWED_ADDRESSES does not hold ") + own;
        const auto& switch_key = agt::config_key_of("TRAN_AGENT", "REMOTE_COMMANDS_YN");
        return extended && file.value_of(switch_key) == "N" ? no_remote_commands
                                                            : no_place + refused_for_places();
    }
    if (extended && agent.identity == nullptr &&
        client.closed_early() == command_client::early_close::read)
        return no_remote_commands;
    return no_place + ", its ALLOWED_ADDRESSES do not hold " + own +
           " or what stands for it there, or " +
           (agent.identity == nullptr ? "it wants TLS" : "it does not want this certificate");
}

// Says why the agent most likely closed the connection at once, if it did.
void explain_close(const agent_address& agent, const command_client& client, bool extended) {
    if (client.closed_early() != command_client::early_close::not_closed)
        complain("most likely " + reason_of_close(agent, client, extended) + "; its log says");
}

} // namespace

void add_tls_files(CLI::App& command, tls_options& tls) {
    command.add_option("--cert", tls.files.cert,
                       "Certificate to show, PEM (default: CERT_FILE of section [TLS] of "
                       "TRAN_AGT_CFG_FILE)");
    command.add_option("--key", tls.files.key, "Key of that certificate (default: KEY_FILE)");
    command.add_option("--ca", tls.files.ca,
                       "Certificates that sign those of the peers (default: CA_FILE)");
}

void add_tls_options(CLI::App& command, tls_options& tls) {
    add_tls_files(command, tls);
    command.add_option("--server-name", tls.server_name,
                       "Name that the agent's certificate must carry (default: the host)");
}

void add_agent_options(CLI::App& command, agent_address& agent) {
    command.add_option("--host", agent.host,
                       "Address of the agent (default: IP_ADDRESS of TRAN_AGT_CFG_FILE, 127.0.0.1 "
                       "where that is 0.0.0.0)");
    command
        .add_option("--port", agent.port,
                    "Command port of the agent (default: CMD_PORT of TRAN_AGT_CFG_FILE)")
        ->check(CLI::Range(1, 65535));
    command
        .add_option("--timeout-ms", agent.limit_ms,
                    "Longest wait for the connection and for an answer")
        ->check(CLI::Range(1, 3600000))
        ->capture_default_str();
    add_tls_options(command, agent.tls);
}

void add_cfg_option(CLI::App& command, std::string& cfg_file) {
    command.add_option("--config,--cfg", cfg_file,
                       "Configuration file of the agent (default: TRAN_AGT_CFG_FILE)");
}

std::string open_cfg(const std::string& cfg_file, const std::string& give, agt::config_file* out) {
    return cfg_file.empty() ? "no file: " + give + ", or set TRAN_AGT_CFG_FILE"
                            : out->open(cfg_file);
}

void add_look_options(CLI::App& command, look_options& look) {
    add_cfg_option(command, look.cfg_file);
    command
        .add_option("--full", look.full_percent,
                    "Fill level of a queue or table, in per cent, that is a problem")
        ->check(CLI::Range(0.0, 100.0))
        ->capture_default_str();
}

CLI::Validator fits(std::size_t size, bool number) {
    return CLI::Validator(
        [size, number](const std::string& text) {
            const std::string fault = field_fault(text, size, number);
            return fault.empty() ? "" : "'" + text + "'" + fault;
        },
        "");
}

CLI::Validator within(const CLI::Validator& range, const CLI::Option* force) {
    return CLI::Validator(
        [range, force](std::string& text) -> std::string {
            const std::string wrong = force->count() > 0 ? "" : range(text);
            return wrong.empty() ? "" : wrong + " (--force sends it all the same)";
        },
        "");
}

CLI::Option* add_force_flag(CLI::App& command) {
    return command.add_flag("--force")->description("Send values outside of their ranges too");
}

bool connect_agent(agent_address& agent, command_client& client) {
    const std::string cfg = default_cfg_file();
    if (agent.host.empty())
        agent.host = agent_host(cfg);
    if (agent.port == 0)
        agent.port =
            std::atoi(cfg_value(cfg, agt::config_key_of("TRAN_AGENT", "CMD_PORT")).c_str());
    if (agent.port <= 0) {
        agt::config_file file;
        const std::string wrong = open_cfg(cfg, "give --port", &file);
        complain(wrong.empty() ? cfg + ": no CMD_PORT, give --port" : wrong);
        return false;
    }
    std::string why;
    if (agent.identity == nullptr)
        agent.identity = open_tls(default_cfg_file(), agent.tls.files, &why);
    if (!why.empty()) {
        complain(why);
        return false;
    }
    client.use_tls(agent.identity, agent.tls.server_name);
    if (client.connect(agent.host, agent.port, agent.limit_ms))
        return true;
    complain(client.error());
    explain_close(agent, client, false);
    return false;
}

bool is_own_agent(const agent_address& agent) {
    const std::string cfg = default_cfg_file();
    return std::to_string(agent.port) ==
               cfg_value(cfg, agt::config_key_of("TRAN_AGENT", "CMD_PORT")) &&
           (agent.host == "127.0.0.1" || agent.host == "localhost" ||
            agent.host == cfg_value(cfg, agt::config_key_of("TRAN_AGENT", "IP_ADDRESS")));
}

exit_status ask_agent(const agent_address& agent, command_client& client,
                      const TCP_CMD_MSG& request, TCP_CMD_MSG* answer, bool shown) {
    if (!client.request(request, answer, agent.limit_ms)) {
        complain(client.error());
        explain_close(agent, client, false);
        return EXIT_ERROR;
    }
    if (shown)
        print_frame(stdout, "<- ", *answer);
    return field_text(*answer, "result_code") == "0" ? EXIT_OK : EXIT_REFUSED;
}

exit_status report(const ext_result& result, const agent_address& agent,
                   const command_client& client) {
    if (result.ok())
        return EXIT_OK;
    complain(result.text);
    explain_close(agent, client, true);
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

exit_status complain(const std::string& what) {
    std::fputs(fitted(STDERR_FILENO, "kessctl: " + what).c_str(), stderr);
    return EXIT_ERROR;
}

} // namespace kessctl

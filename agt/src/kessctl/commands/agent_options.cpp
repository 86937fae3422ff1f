// What every subcommand that talks to an agent has in common.
#include "commands/agent_options.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>

#include "wire/print_frame.h"
#include "wire/text.h"

namespace kessctl {

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
    command.add_option("--host", agent.host, "Address of the agent")->capture_default_str();
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

bool connect_agent(agent_address& agent, command_client& client) {
    if (agent.port == 0)
        agent.port = std::atoi(
            cfg_value(default_cfg_file(), agt::config_key_of("TRAN_AGENT", "CMD_PORT")).c_str());
    if (agent.port <= 0) {
        complain(
            "no port: give --port, or name the agent's configuration file in TRAN_AGT_CFG_FILE");
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
    return false;
}

exit_status ask_agent(command_client& client, const TCP_CMD_MSG& request, int limit_ms,
                      TCP_CMD_MSG* answer) {
    if (!client.request(request, answer, limit_ms))
        return complain(client.error());
    print_frame(stdout, "<- ", *answer);
    return field_text(*answer, "result_code") == "0" ? EXIT_OK : EXIT_REFUSED;
}

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

exit_status complain(const std::string& what) {
    std::fprintf(stderr, "kessctl: %s\n", what.c_str());
    return EXIT_ERROR;
}

} // namespace kessctl

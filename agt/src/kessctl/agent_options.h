// What every subcommand that talks to an agent, or looks at its shared memory, has in common.
#pragma once

#include <string>

#include "command_client.h"
#include "config_keys.h"
#include "kessard/cmd_msg.h"

namespace CLI {
class App;
}

namespace kessctl {

enum exit_status { EXIT_OK = 0, EXIT_REFUSED = 1, EXIT_ERROR = 2 };

struct agent_address {
    std::string host = "127.0.0.1";
    int port = 0; // 0: CMD_PORT of the configuration file
    int limit_ms = COMMAND_LIMIT_MS;
};

// The value of TRAN_AGT_CFG_FILE; empty without it.
std::string default_cfg_file();

// Of a look at a whole agent.
struct look_options {
    std::string cfg_file = default_cfg_file();
    double full_percent = 90; // fill level that is a problem
};

// The word of a key in a configuration file; empty when it is not there.
std::string cfg_value(const std::string& cfg_file, const agt::config_key& key);

// Adds --host, --port and --timeout-ms.
void add_agent_options(CLI::App& command, agent_address& agent);

// Adds --config and --full.
void add_look_options(CLI::App& command, look_options& look);

// Connects, taking the port from the configuration file if none was given. False after a line on
// standard error.
bool connect_agent(agent_address& agent, command_client& client);

// Sends a request and prints the answer. EXIT_OK for result_code '0', EXIT_REFUSED for another,
// EXIT_ERROR, after a line on standard error, when there is no answer.
exit_status ask_agent(command_client& client, const TCP_CMD_MSG& request, int limit_ms,
                      TCP_CMD_MSG* answer);

// Says on standard error what is wrong; EXIT_ERROR.
exit_status complain(const std::string& what);

} // namespace kessctl

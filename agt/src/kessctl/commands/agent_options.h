// What every subcommand that talks to an agent, or looks at its shared memory, has in common.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "config_file.h"
#include "host/cfg_value.h"
#include "host/tls_files.h"
#include "kessard/cmd_msg.h"
#include "server/command_client.h"
#include "server/ext_client.h"

namespace CLI {
class App;
class Option;
class Validator;
} // namespace CLI

namespace kessctl {

enum exit_status { EXIT_OK = 0, EXIT_REFUSED = 1, EXIT_ERROR = 2 };

// TLS of the user's own; what is empty is as section [TLS] says.
struct tls_options {
    agt::tls_files files;
    std::string server_name; // empty: the host that is connected to
};

struct agent_address {
    std::string host; // empty: where the agent of the configuration file listens
    int port = 0;     // 0: CMD_PORT of the configuration file
    int limit_ms = COMMAND_LIMIT_MS;
    tls_options tls;
    std::shared_ptr<agt::tls_identity> identity; // of the first connection, kept for the next
};

// Of a look at a whole agent.
struct look_options {
    std::string cfg_file = default_cfg_file();
    double full_percent = 90; // fill level that is a problem
};

// Adds --cert, --key, --ca and --server-name; those of a server, without the last.
void add_tls_options(CLI::App& command, tls_options& tls);
void add_tls_files(CLI::App& command, tls_options& tls);

// Adds --host, --port, --timeout-ms and those of TLS.
void add_agent_options(CLI::App& command, agent_address& agent);

// Adds --config; `cfg_file` holds the default.
void add_cfg_option(CLI::App& command, std::string& cfg_file);

// Opens a configuration file that an option names, `give` saying how one does that. Empty on
// success, else why not.
[[nodiscard]] std::string open_cfg(const std::string& cfg_file, const std::string& give,
                                   agt::config_file* out);

// Adds --config and --full.
void add_look_options(CLI::App& command, look_options& look);

// Accepts text that fits a field of `size` bytes, or a number that does.
CLI::Validator fits(std::size_t size, bool number = false);

// Accepts what `range` accepts, and anything where the flag `force` is given.
CLI::Validator within(const CLI::Validator& range, const CLI::Option* force);

// Adds --force, for values that within() does not let through.
CLI::Option* add_force_flag(CLI::App& command);

// Connects, taking host and port from the configuration file where they were not given. False after
// a line on standard error.
[[nodiscard]] bool connect_agent(agent_address& agent, command_client& client);

// Whether an agent that was connected to is the one of the configuration file, so that its shared
// memory is on this host.
bool is_own_agent(const agent_address& agent);

// Sends a request and, if `shown`, prints the answer. EXIT_OK for result_code '0', EXIT_REFUSED for
// another, EXIT_ERROR, after a line on standard error, when there is no answer.
exit_status ask_agent(const agent_address& agent, command_client& client,
                      const TCP_CMD_MSG& request, TCP_CMD_MSG* answer, bool shown = true);

// What became of an extended request, as an exit status: EXIT_REFUSED when the agent refused it,
// EXIT_ERROR when it failed, each after a line on standard error.
exit_status report(const ext_result& result, const agent_address& agent,
                   const command_client& client);

// Whether each text can be an item of an extended request: EXIT_OK, or EXIT_ERROR after a line on
// standard error.
[[nodiscard]] exit_status check_items(const std::vector<std::string>& items);

// Says on standard error what is wrong; EXIT_ERROR.
exit_status complain(const std::string& what);

} // namespace kessctl

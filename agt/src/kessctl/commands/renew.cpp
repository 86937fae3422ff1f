// kessctl renew.
#include <CLI/CLI.hpp>
#include <memory>

#include "commands/commands.h"
#include "field.h"
#include "wire/frame.h"

namespace kessctl {
namespace {

exit_status renew(agent_address& agent) {
    command_client client;
    if (!connect_agent(agent, client))
        return EXIT_ERROR;
    TCP_CMD_MSG request = start_frame(MSG_RENEW_SERVICE_LIST_REQ);
    agt::put_text(request.body.renew_service_list_req.ipaddr, agent.host.c_str());
    TCP_CMD_MSG answer;
    return ask_agent(agent, client, request, &answer);
}

} // namespace

void add_renew(CLI::App& app, exit_status* status) {
    const auto agent = std::make_shared<agent_address>();
    CLI::App* command = app.add_subcommand("renew", "Make the agent fetch its service list again");
    add_agent_options(*command, *agent);
    command->callback([agent, status] { *status = renew(*agent); });
}

} // namespace kessctl

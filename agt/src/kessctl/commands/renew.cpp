// kessctl renew.
#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>

#include "commands/commands.h"
#include "commands/json_output.h"
#include "field.h"
#include "wire/frame.h"
#include "wire/json_frame.h"

namespace kessctl {
namespace {

struct renew_options {
    agent_address agent;
    bool json = false;
};

exit_status renew(renew_options& chosen) {
    command_client client;
    if (!connect_agent(chosen.agent, client))
        return EXIT_ERROR;
    TCP_CMD_MSG request = start_frame(MSG_RENEW_SERVICE_LIST_REQ);
    agt::put_text(request.body.renew_service_list_req.ipaddr, chosen.agent.host.c_str());
    TCP_CMD_MSG answer;
    const exit_status asked = ask_agent(chosen.agent, client, request, &answer, !chosen.json);
    if (chosen.json && asked != EXIT_ERROR)
        print_json(fields_json(decode(answer)));
    else if (asked == EXIT_OK)
        std::printf("the list is on its way; it replaces what is changed before it has come\n");
    return asked;
}

} // namespace

void add_renew(CLI::App& app, exit_status* status) {
    const auto chosen = std::make_shared<renew_options>();
    CLI::App* command = app.add_subcommand("renew", "Make the agent fetch its service list again");
    add_agent_options(*command, chosen->agent);
    add_json_flag(*command, chosen->json);
    command->callback([chosen, status] { *status = renew(*chosen); });
}

} // namespace kessctl

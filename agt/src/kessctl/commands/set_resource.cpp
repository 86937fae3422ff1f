// kessctl set-resource.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <climits>
#include <memory>

#include "commands/commands.h"
#include "field.h"
#include "wire/frame.h"

namespace kessctl {
namespace {

struct resource_options {
    agent_address agent;
    std::string cpu_sec;
    std::string cpu_pcnt;
    std::string fs_pcnt;
    std::vector<std::string> mount_points;
};

// Each mount point ended by a comma, the last one by a blank; empty without any.
std::string mount_point_list(const std::vector<std::string>& mount_points) {
    std::string list;
    for (const std::string& mount_point : mount_points)
        list += mount_point + ",";
    if (!list.empty())
        list.back() = ' ';
    return list;
}

exit_status set_resource(resource_options& chosen) {
    TCP_CMD_MSG request = start_frame(MSG_SET_SYS_RESOURCE_SET_REQ);
    BODY_SET_SYS_RESOURCE_SET_REQ& body = request.body.set_sys_resource_set_req;
    const std::string list = mount_point_list(chosen.mount_points);
    if (list.size() > sizeof body.file_sys_list - 1)
        return complain("the mount points take more than " +
                        std::to_string(sizeof body.file_sys_list - 1) + " characters");
    if (chosen.mount_points.size() > 5)
        return complain("an agent watches at most 5 file systems");
    agt::put_text(body.cpu_alert_sec, chosen.cpu_sec.c_str());
    agt::put_text(body.cpu_alert_pcnt, chosen.cpu_pcnt.c_str());
    agt::put_text(body.file_sys_alert_pcnt, chosen.fs_pcnt.c_str());
    std::copy(list.begin(), list.end(),
              body.file_sys_list); // zeros behind it: a blank of its own would be an item
    command_client client;
    TCP_CMD_MSG answer;
    return connect_agent(chosen.agent, client) ? ask_agent(chosen.agent, client, request, &answer)
                                               : EXIT_ERROR;
}

} // namespace

void add_set_resource(CLI::App& app, exit_status* status) {
    const auto chosen = std::make_shared<resource_options>();
    using body = BODY_SET_SYS_RESOURCE_SET_REQ;
    CLI::App* command =
        app.add_subcommand("set-resource", "Set the thresholds of the CPU and file-system alerts");
    add_agent_options(*command, chosen->agent);
    const CLI::Option* force = add_force_flag(*command);
    const CLI::Validator percent = within(CLI::Range(0, 100), force);
    command->add_option("--cpu-sec", chosen->cpu_sec, "Seconds the CPU load must last, 0 or more")
        ->check(fits(sizeof(body::cpu_alert_sec), true) & within(CLI::Range(0, INT_MAX), force))
        ->required();
    command->add_option("--cpu-pcnt", chosen->cpu_pcnt, "CPU load, 0 to 100 per cent")
        ->check(fits(sizeof(body::cpu_alert_pcnt), true) & percent)
        ->required();
    command
        ->add_option("--fs-pcnt", chosen->fs_pcnt, "Fullness of a file system, 0 to 100 per cent")
        ->check(fits(sizeof(body::file_sys_alert_pcnt), true) & percent)
        ->required();
    command
        ->add_option("--fs", chosen->mount_points,
                     "Mount points, separated by commas (none: watch none)")
        ->delimiter(',');
    command->callback([chosen, status] { *status = set_resource(*chosen); });
}

} // namespace kessctl

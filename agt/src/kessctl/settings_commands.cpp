// kessctl renew, set-config, set-resource.
//
// The configuration message carries every setting and the agent applies each. So that changing one
// does not clear the others, those not given on the command line are sent as they stand in the
// agent's settings segment; where that cannot be read, all of them must be given.
#include "commands.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>

#include "field.h"
#include "frame.h"
#include "log_flags.h"
#include "service_file.h"
#include "shared_view.h"

namespace kessctl {
namespace {

using config_body = BODY_SET_SYS_CONFIG_SET_REQ;

struct setting {
    const char* option;
    const char* help;
    std::size_t at;
    std::size_t size;
    bool number;
    std::string (*current)(const TRAN_LOGF_QUE_INFO&);
};

std::string tracing_switch(const TRAN_LOGF_QUE_INFO& now) {
    return now.magic_code == TRACE_ON_MAGIC_CODE ? "1" : std::to_string(now.magic_code);
}

#define SETTING(option, member, number, value, help)                                               \
    {                                                                                              \
        option, help, offsetof(config_body, member), sizeof(config_body::member), number,          \
            [](const TRAN_LOGF_QUE_INFO& now) -> std::string { return value; }                     \
    }
const setting SETTINGS[] = {
    SETTING("--log-flags", log_flag_set, false, agt::letters_of_flags(now.log_flag_set),
            "Log types, letters of SEVBCIXQ"),
    SETTING("--log-qcnt", log_qcnt, true, std::to_string(now.qcnt), "Log queues: 1, 2, 4, 8 or 16"),
    SETTING("--log-onoff", log_onoff, true, tracing_switch(now), "Tracing: 1 on, 0 off"),
    SETTING("--sfilter", sfilter_onoff, true, std::to_string(now.svc_filtering),
            "Service filter: 1 on, 0 off"),
    SETTING("--call-trc-depth", call_trc_depth, true, std::to_string(now.call_trc_depth),
            "Call-trace depth"),
    SETTING("--call-trc-limit", call_trc_limit, true, std::to_string(now.call_trc_limit),
            "Call-trace limit"),
    SETTING("--dbio-trc-limit", dbio_trc_limit, true, std::to_string(now.dbio_trc_limit),
            "Database-I/O trace limit"),
    SETTING("--sql-trc-limit", sql_trc_limit, true, std::to_string(now.sql_trc_limit),
            "SQL trace limit"),
};
#undef SETTING
constexpr std::size_t SETTING_COUNT = std::size(SETTINGS);

struct config_options {
    agent_address agent;
    std::string values[SETTING_COUNT];
    CLI::Option* given[SETTING_COUNT];
};

// Accepts text that fits a field of `size` bytes.
CLI::Validator fits(std::size_t size, bool number) {
    return CLI::Validator(
        [size, number](std::string& text) -> std::string {
            if (text.size() > size - 1)
                return "'" + text + "' is longer than " + std::to_string(size - 1) + " characters";
            return number && !is_number(text) ? "'" + text + "' is not a number" : "";
        },
        "");
}

// Whether the agent addressed is the one of the configuration file, so that its shared memory is on
// this host.
bool is_agent_of_cfg(const agent_address& agent) {
    const std::string cfg = default_cfg_file();
    return std::to_string(agent.port) ==
               cfg_value(cfg, agt::config_key_of("TRAN_AGENT", "CMD_PORT")) &&
           (agent.host == "127.0.0.1" || agent.host == "localhost" ||
            agent.host == cfg_value(cfg, agt::config_key_of("TRAN_AGENT", "IP_ADDRESS")));
}

// Fills in the settings that were not given; empty, or why that cannot be done.
std::string keep_others(config_options& chosen) {
    TRAN_LOGF_QUE_INFO now{};
    bool read = false;
    for (std::size_t i = 0; i < SETTING_COUNT; ++i) {
        if (chosen.given[i]->count() > 0)
            continue;
        const std::string give = std::string("give ") + SETTINGS[i].option + " too: ";
        if (!is_agent_of_cfg(chosen.agent))
            return give +
                   "the current settings can be read only for the agent of TRAN_AGT_CFG_FILE";
        const std::string wrong = read ? "" : read_settings(default_cfg_file(), &now);
        if (!wrong.empty())
            return give + wrong;
        read = true;
        chosen.values[i] = SETTINGS[i].current(now);
        if (chosen.values[i].size() > SETTINGS[i].size - 1)
            return give + "its current value " + chosen.values[i] + " does not fit the message";
    }
    return {};
}

exit_status set_config(config_options& chosen) {
    command_client client;
    if (!connect_agent(chosen.agent, client))
        return EXIT_ERROR;
    const std::string wrong = keep_others(chosen);
    if (!wrong.empty())
        return complain(wrong);
    TCP_CMD_MSG request = start_frame(MSG_SET_SYS_CONFIG_SET_REQ);
    config_body& body = request.body.set_sys_config_set_req;
    agt::put_text(body.ipaddr, chosen.agent.host.c_str());
    for (std::size_t i = 0; i < SETTING_COUNT; ++i)
        put_field(reinterpret_cast<char*>(&body) + SETTINGS[i].at, SETTINGS[i].size,
                  chosen.values[i]);
    TCP_CMD_MSG answer;
    return ask_agent(client, request, chosen.agent.limit_ms, &answer);
}

exit_status renew(agent_address& agent) {
    command_client client;
    if (!connect_agent(agent, client))
        return EXIT_ERROR;
    TCP_CMD_MSG request = start_frame(MSG_RENEW_SERVICE_LIST_REQ);
    agt::put_text(request.body.renew_service_list_req.ipaddr, agent.host.c_str());
    TCP_CMD_MSG answer;
    return ask_agent(client, request, agent.limit_ms, &answer);
}

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
    return connect_agent(chosen.agent, client)
               ? ask_agent(client, request, chosen.agent.limit_ms, &answer)
               : EXIT_ERROR;
}

} // namespace

void add_renew(CLI::App& app, exit_status* status) {
    const auto agent = std::make_shared<agent_address>();
    CLI::App* command = app.add_subcommand("renew", "Make the agent fetch its service list again");
    add_agent_options(*command, *agent);
    command->callback([agent, status] { *status = renew(*agent); });
}

void add_set_config(CLI::App& app, exit_status* status) {
    const auto chosen = std::make_shared<config_options>();
    CLI::App* command = app.add_subcommand(
        "set-config", "Change the agent's settings; those not given stay as they are");
    add_agent_options(*command, chosen->agent);
    for (std::size_t i = 0; i < SETTING_COUNT; ++i)
        chosen->given[i] =
            command->add_option(SETTINGS[i].option, chosen->values[i], SETTINGS[i].help)
                ->check(fits(SETTINGS[i].size, SETTINGS[i].number));
    command->callback([chosen, status] { *status = set_config(*chosen); });
}

void add_set_resource(CLI::App& app, exit_status* status) {
    const auto chosen = std::make_shared<resource_options>();
    using body = BODY_SET_SYS_RESOURCE_SET_REQ;
    CLI::App* command =
        app.add_subcommand("set-resource", "Set the thresholds of the CPU and file-system alerts");
    add_agent_options(*command, chosen->agent);
    command->add_option("--cpu-sec", chosen->cpu_sec, "Seconds the CPU load must last")
        ->check(fits(sizeof(body::cpu_alert_sec), true))
        ->required();
    command->add_option("--cpu-pcnt", chosen->cpu_pcnt, "CPU load, per cent")
        ->check(fits(sizeof(body::cpu_alert_pcnt), true))
        ->required();
    command->add_option("--fs-pcnt", chosen->fs_pcnt, "Fullness of a file system, per cent")
        ->check(fits(sizeof(body::file_sys_alert_pcnt), true))
        ->required();
    command
        ->add_option("--fs", chosen->mount_points,
                     "Mount points, separated by commas (none: watch none)")
        ->delimiter(',');
    command->callback([chosen, status] { *status = set_resource(*chosen); });
}

} // namespace kessctl

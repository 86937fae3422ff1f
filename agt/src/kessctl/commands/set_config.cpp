// kessctl set-config.
//
// The configuration message carries every setting and the agent applies each. So that changing one
// does not clear the others, those not given on the command line are sent as they stand in the
// agent's settings segment; where that cannot be read, all of them must be given.
#include "commands/commands.h"

#include <CLI/CLI.hpp>
#include <climits>
#include <memory>

#include "field.h"
#include "host/shared_view.h"
#include "log_flags.h"
#include "wire/frame.h"
#include "wire/text.h"

namespace kessctl {
namespace {

using config_body = BODY_SET_SYS_CONFIG_SET_REQ;

struct setting {
    const char* option;
    const char* help;
    std::size_t at;
    std::size_t size;
    bool number;
    CLI::Validator range;
    std::string (*current)(const TRAN_LOGF_QUE_INFO&);
};

std::string tracing_switch(const TRAN_LOGF_QUE_INFO& now) {
    return now.magic_code == TRACE_ON_MAGIC_CODE ? "1" : std::to_string(now.magic_code);
}

CLI::Validator one_of(const std::vector<std::string>& words) {
    return CLI::IsMember(words);
}

const CLI::Validator SWITCH = one_of({"1", "0"});
const CLI::Validator NO_LESS_THAN_0 = CLI::Range(0, INT_MAX);
const CLI::Validator LETTERS(
    [](const std::string& text) {
        return text.find_first_not_of("SEVBCIXQ") == text.npos ? "" : text + " not of SEVBCIXQ";
    },
    "");

#define SETTING(option, member, number, range, value, help)                                        \
    {                                                                                              \
        option, help, offsetof(config_body, member), sizeof(config_body::member), number, range,   \
            [](const TRAN_LOGF_QUE_INFO& now) -> std::string { return value; }                     \
    }
const setting SETTINGS[] = {
    SETTING("--log-flags", log_flag_set, false, LETTERS, agt::letters_of_flags(now.log_flag_set),
            "Log types, letters of SEVBCIXQ"),
    SETTING("--log-qcnt", log_qcnt, true, one_of({"1", "2", "4", "8", "16"}),
            std::to_string(now.qcnt), "Log queues: 1, 2, 4, 8 or 16"),
    SETTING("--log-onoff", log_onoff, true, SWITCH, tracing_switch(now), "Tracing: 1 on, 0 off"),
    SETTING("--sfilter", sfilter_onoff, true, SWITCH,
            std::to_string(static_cast<signed char>(now.svc_filtering)),
            "Service filter: 1 on, 0 off"),
    SETTING("--call-trc-depth", call_trc_depth, true, NO_LESS_THAN_0,
            std::to_string(now.call_trc_depth), "Call-trace depth, 0 or more"),
    SETTING("--call-trc-limit", call_trc_limit, true, NO_LESS_THAN_0,
            std::to_string(now.call_trc_limit), "Call-trace limit, 0 or more"),
    SETTING("--dbio-trc-limit", dbio_trc_limit, true, NO_LESS_THAN_0,
            std::to_string(now.dbio_trc_limit), "Database-I/O trace limit, 0 or more"),
    SETTING("--sql-trc-limit", sql_trc_limit, true, NO_LESS_THAN_0,
            std::to_string(now.sql_trc_limit), "SQL trace limit, 0 or more"),
};
#undef SETTING
constexpr std::size_t SETTING_COUNT = std::size(SETTINGS);

struct config_options {
    agent_address agent;
    std::string values[SETTING_COUNT];
    CLI::Option* given[SETTING_COUNT];
};

// Fills in the settings that were not given; empty, or why that cannot be done.
std::string keep_others(config_options& chosen) {
    TRAN_LOGF_QUE_INFO now{};
    bool read = false;
    for (std::size_t i = 0; i < SETTING_COUNT; ++i) {
        if (chosen.given[i]->count() > 0)
            continue;
        const std::string give = std::string("give ") + SETTINGS[i].option + " too: ";
        if (!is_own_agent(chosen.agent))
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
    return ask_agent(chosen.agent, client, request, &answer);
}

} // namespace

void add_set_config(CLI::App& app, exit_status* status) {
    const auto chosen = std::make_shared<config_options>();
    CLI::App* command = app.add_subcommand(
        "set-config", "Change the agent's settings; those not given stay as they are");
    add_agent_options(*command, chosen->agent);
    const CLI::Option* force = add_force_flag(*command);
    for (std::size_t i = 0; i < SETTING_COUNT; ++i)
        chosen->given[i] =
            command->add_option(SETTINGS[i].option, chosen->values[i], SETTINGS[i].help)
                ->check(fits(SETTINGS[i].size, SETTINGS[i].number) &
                        within(SETTINGS[i].range, force));
    command->callback([chosen, status] { *status = set_config(*chosen); });
}

} // namespace kessctl

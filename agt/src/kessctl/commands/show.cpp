// kessctl show settings|services|registry|queues: the agent's shared objects, decoded.
#include "commands/commands.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>

#include "agent/agent_snapshot.h"
#include "agent/report_text.h"
#include "agent/status_json.h"
#include "commands/columns.h"
#include "commands/json_output.h"
#include "commands/show.h"
#include "host/shared_view.h"
#include "log_flags.h"
#include "wire/frame.h"
#include "wire/json_frame.h"
#include "wire/print_frame.h"
#include "wire/text.h"

namespace kessctl {
namespace {

void dump_hex(const void* bytes, std::size_t size) {
    const auto* at = static_cast<const unsigned char*>(bytes);
    for (std::size_t line = 0; line < size; line += 16) {
        std::printf("    %04zx ", line);
        for (std::size_t i = line; i < std::min(line + 16, size); ++i)
            std::printf(" %02x", static_cast<unsigned>(at[i]));
        std::printf("\n");
    }
}

// The bytes that are not 0, as "index=value".
template <class T, std::size_t N> std::string set_ones(const T (&values)[N]) {
    std::string text;
    for (std::size_t i = 0; i < N; ++i)
        if (values[i] != 0)
            text += (text.empty() ? "" : " ") + std::to_string(i) + "=" + std::to_string(values[i]);
    return text.empty() ? "all 0" : text;
}

const char* switch_text(const TRAN_LOGF_QUE_INFO& now) {
    return now.magic_code == TRACE_ON_MAGIC_CODE ? "on" : "off";
}

exit_status show_settings(const show_options& chosen) {
    TRAN_LOGF_QUE_INFO now{};
    const std::string wrong = read_settings(chosen.cfg_file, &now);
    if (!wrong.empty())
        return complain(wrong);
    char magic[32];
    std::snprintf(magic, sizeof magic, "0x%08X (%s)", now.magic_code, switch_text(now));
    const std::vector<field_value> fields = {
        {"qcnt", std::to_string(now.qcnt)},
        {"qcnt_mask", std::to_string(now.qcnt_mask)},
        {"magic_code", magic},
        {"log_flag_set", agt::letters_of_flags(now.log_flag_set)},
        {"fst_err_rc_set", set_ones(now.fst_err_rc_set)},
        {"call_trc_depth", std::to_string(now.call_trc_depth)},
        {"call_trc_limit", std::to_string(now.call_trc_limit)},
        {"dbio_trc_limit", std::to_string(now.dbio_trc_limit)},
        {"sql_trc_limit", std::to_string(now.sql_trc_limit)},
        {"svc_filtering", std::to_string(static_cast<signed char>(now.svc_filtering))},
        {"save_apilog_yn", std::string(1, now.save_apilog_yn)},
        {"save_relllog_yn", std::string(1, now.save_relllog_yn)},
        {"discard_qmsgs", set_ones(now.discard_qmsgs)}};
    if (chosen.json) {
        print_json(fields_json(fields));
        return EXIT_OK;
    }
    print_fields(stdout, fields);
    dump_hex(&now, sizeof now);
    return EXIT_OK;
}

using table_row = std::vector<std::string>;

// Prints rows in columns as wide as what stands in them, numbers to the right. What a terminal is
// too narrow for goes to a second line of each row.
void print_table(const std::vector<table_row>& rows, const std::vector<bool>& numbers) {
    std::vector<std::size_t> widths(numbers.size(), 0);
    for (const table_row& row : rows)
        for (std::size_t i = 0; i < widths.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());
    const std::size_t columns = columns_of(STDOUT_FILENO);
    for (const table_row& row : rows) {
        std::string line = "  ";
        for (std::size_t i = 0; i < widths.size(); ++i) {
            const std::string fill(widths[i] - row[i].size(), ' ');
            const std::string cell = "  " + (numbers[i] ? fill + row[i] : row[i] + fill);
            if (columns > 0 && line.size() + cell.size() > columns) {
                std::printf("%s\n", line.c_str());
                line = "        ";
            }
            line += cell;
        }
        std::printf("%s\n", line.substr(0, line.find_last_not_of(' ') + 1).c_str());
    }
}

exit_status show_services(const show_options& chosen) {
    agent_snapshot now;
    unsigned count = 0;
    const std::string wrong = read_shared(chosen.cfg_file, agt::SERVICE_TABLE,
                                          offsetof(SVC_HASH_TBL, alloc_cnt), &count, sizeof count);
    if (!wrong.empty())
        return complain(wrong);
    now.cfg_file = chosen.cfg_file;
    read_services(now);
    if (!now.service_fill.fault.empty())
        complain("the table is unsound: " + now.service_fill.fault);
    if (chosen.json) {
        nlohmann::ordered_json all = nlohmann::ordered_json::array();
        for (const service_row& service : now.services)
            all.push_back(service_json(service));
        print_json(all);
        return EXIT_OK;
    }
    std::printf("%u services, %lu slots used, %lu free\n", count, now.service_fill.used,
                now.service_fill.slots - now.service_fill.used);
    std::vector<table_row> rows = {{"slot", "service_id", "host_name", "server_id", "limit/s",
                                    "depth", "call", "dbio", "sql", "flags", "tflag"}};
    for (const service_row& one : now.services)
        rows.push_back({std::to_string(one.slot), one.service_id, one.host_name, one.server_id,
                        std::to_string(one.limit_sec), std::to_string(one.call_trc_depth),
                        std::to_string(one.call_trc_limit), std::to_string(one.dbio_trc_limit),
                        std::to_string(one.sql_trc_limit), one.flags, std::to_string(one.tflag)});
    print_table(rows, {true, false, false, false, true, true, true, true, true, false, true});
    return EXIT_OK;
}

std::string start_text(const PROCESS_INFO& process) {
    char since[32] = "-";
    struct tm local {};
    if (process.proc_uptime > 0 && localtime_r(&process.proc_uptime, &local) != nullptr)
        std::strftime(since, sizeof since, "%F %T", &local);
    return since;
}

void print_process(const PROCESS_INFO& process) {
    std::printf("    %3d  %8d  %-16s  %3d  %3d  %3u/%-3u in %d s  since %s  %s\n", process.proc_idx,
                process.proc_pid, shown(process.proc_bin).c_str(), process.cur_sts, process.act_sts,
                static_cast<unsigned>(process.cur_retry_cnt),
                static_cast<unsigned>(process.set_retry_cnt), process.chk_retry_cnt_sec,
                start_text(process).c_str(), shown(process.exec_args).c_str());
}

void print_registry(const TRAN_AGT_SHM& agent, int file_systems, int processes) {
    const DEVICE_INFO& device = agent.device_info;
    std::printf("host %s, %s, %d cores, memory %.0f\n", shown(device.host_name).c_str(),
                shown(device.os_info).c_str(), device.core_cnt, device.mem_total);
    std::printf("CPU alert at %d %% over %d s\n", agent.cpu.alert_pcnt, agent.cpu.alert_sec);
    std::printf("%s\n", counted(agent.file_sys_num, "file system", "file systems").c_str());
    for (int i = 0; i < file_systems; ++i)
        std::printf("    %s: alert at %d %%, %d raised\n",
                    shown(agent.file_system[i].file_system).c_str(),
                    agent.file_system[i].alert_pcnt, agent.file_system[i].alert_cnt);
    std::printf("%s\n    idx       pid  program           cur  act  restarts\n",
                counted(agent.proc_num, "process", "processes").c_str());
    for (int i = 0; i < processes; ++i)
        print_process(agent.proc_info[i]);
}

nlohmann::ordered_json registry_json(const TRAN_AGT_SHM& agent, int file_systems, int processes) {
    const DEVICE_INFO& device = agent.device_info;
    nlohmann::ordered_json all = {{"host", shown(device.host_name)},
                                  {"system", shown(device.os_info)},
                                  {"cores", device.core_cnt},
                                  {"memory", device.mem_total},
                                  {"cpu_alert_percent", agent.cpu.alert_pcnt},
                                  {"cpu_alert_sec", agent.cpu.alert_sec},
                                  {"file_systems", nlohmann::ordered_json::array()},
                                  {"processes", nlohmann::ordered_json::array()}};
    for (int i = 0; i < file_systems; ++i)
        all["file_systems"].push_back({{"mount_point", shown(agent.file_system[i].file_system)},
                                       {"alert_percent", agent.file_system[i].alert_pcnt},
                                       {"alerts", agent.file_system[i].alert_cnt}});
    for (int i = 0; i < processes; ++i) {
        const PROCESS_INFO& one = agent.proc_info[i];
        all["processes"].push_back({{"row", one.proc_idx},
                                    {"pid", one.proc_pid},
                                    {"program", shown(one.proc_bin)},
                                    {"state", one.cur_sts},
                                    {"wanted", one.act_sts},
                                    {"restarts", static_cast<unsigned>(one.cur_retry_cnt)},
                                    {"restarts_allowed", static_cast<unsigned>(one.set_retry_cnt)},
                                    {"restart_period_sec", one.chk_retry_cnt_sec},
                                    {"started", start_text(one)},
                                    {"arguments", shown(one.exec_args)}});
    }
    return all;
}

exit_status show_registry(const show_options& chosen) {
    // Only the front of the segment and the host description are looked at.
    const auto agent = std::make_unique<TRAN_AGT_SHM>();
    DEVICE_INFO& device = agent->device_info;
    std::string wrong = read_shared(chosen.cfg_file, agt::AGENT_SEGMENT, 0, agent.get(),
                                    offsetof(TRAN_AGT_SHM, log_proc));
    if (wrong.empty())
        wrong = read_shared(chosen.cfg_file, agt::AGENT_SEGMENT,
                            offsetof(TRAN_AGT_SHM, device_info), &device, sizeof device);
    if (!wrong.empty())
        return complain(wrong);
    const int file_systems = std::min<int>(agent->file_sys_num, FILE_SYSTEM_MAX);
    const int processes = std::min<int>(agent->proc_num, PROCESS_INFO_MAX);
    if (chosen.json)
        print_json(registry_json(*agent, file_systems, processes));
    else
        print_registry(*agent, file_systems, processes);
    return EXIT_OK;
}

struct view {
    const char* name;
    const char* help;
    exit_status (*show)(const show_options&);
};

const view VIEWS[] = {
    {"settings", "The runtime settings segment, decoded and as bytes", show_settings},
    {"services", "The service table", show_services},
    {"registry", "The process registry, the alert settings and the host description",
     show_registry},
    {"queues", "The notification queue and the parse-log queues", show_queues},
};

} // namespace

void add_show(CLI::App& app, exit_status* status) {
    CLI::App* command = app.add_subcommand("show", "Look at the agent's shared memory, read-only");
    command->require_subcommand(1);
    for (const view& row : VIEWS) {
        const auto chosen = std::make_shared<show_options>();
        CLI::App* action = command->add_subcommand(row.name, row.help);
        add_cfg_option(*action, chosen->cfg_file);
        add_json_flag(*action, chosen->json);
        if (row.show == show_queues)
            action->add_option("--records", chosen->records, "How many of the last records to show")
                ->check(CLI::Range(0, 1000))
                ->capture_default_str();
        action->callback([chosen, status, show = row.show] { *status = show(*chosen); });
    }
}

} // namespace kessctl

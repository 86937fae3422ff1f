// kessctl show settings|services|registry|queues: the agent's shared objects, decoded.
#include "commands/commands.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include "agent/event_record.h"
#include "agent/ring_view.h"
#include "host/shared_view.h"
#include "log_flags.h"
#include "wire/frame.h"
#include "wire/print_frame.h"
#include "wire/text.h"

namespace kessctl {
namespace {

struct show_options {
    std::string cfg_file = default_cfg_file();
    int records = 3;
};

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

exit_status show_settings(const show_options& chosen) {
    TRAN_LOGF_QUE_INFO now{};
    const std::string wrong = read_settings(chosen.cfg_file, &now);
    if (!wrong.empty())
        return complain(wrong);
    char magic[32];
    std::snprintf(magic, sizeof magic, "0x%08X (%s)", now.magic_code,
                  now.magic_code == TRACE_ON_MAGIC_CODE ? "on" : "off");
    print_fields(stdout, {{"qcnt", std::to_string(now.qcnt)},
                          {"qcnt_mask", std::to_string(now.qcnt_mask)},
                          {"magic_code", magic},
                          {"log_flag_set", agt::letters_of_flags(now.log_flag_set)},
                          {"fst_err_rc_set", set_ones(now.fst_err_rc_set)},
                          {"call_trc_depth", std::to_string(now.call_trc_depth)},
                          {"call_trc_limit", std::to_string(now.call_trc_limit)},
                          {"dbio_trc_limit", std::to_string(now.dbio_trc_limit)},
                          {"sql_trc_limit", std::to_string(now.sql_trc_limit)},
                          {"svc_filtering", std::to_string(now.svc_filtering)},
                          {"save_apilog_yn", std::string(1, now.save_apilog_yn)},
                          {"save_relllog_yn", std::string(1, now.save_relllog_yn)},
                          {"discard_qmsgs", set_ones(now.discard_qmsgs)}});
    dump_hex(&now, sizeof now);
    return EXIT_OK;
}

void print_service(unsigned slot, const SVC_HASH_ARR& service) {
    std::printf("    %5u  %-16s  %-16s  %-15s  %7d  %5d  %10ld  %10ld  %10ld  %-8s  %d\n", slot,
                shown(service.service_id).c_str(), shown(service.host_name).c_str(),
                shown(service.server_id).c_str(), service.limit, service.call_trc_depth,
                service.call_trc_limit, service.dbio_trc_limit, service.sql_trc_limit,
                agt::letters_of_flags(static_cast<unsigned char>(service.uflag_set)).c_str(),
                service.tflag);
}

exit_status show_services(const show_options& chosen) {
    const auto table = std::make_unique<SVC_HASH_TBL>();
    const std::string wrong =
        read_shared(chosen.cfg_file, agt::SERVICE_TABLE, 0, table.get(), sizeof *table);
    if (!wrong.empty())
        return complain(wrong);
    std::printf("%u services, %u slots used, %u free\n", table->alloc_cnt, table->used.top,
                table->available.top);
    std::printf("    %5s  %-16s  %-16s  %-15s  %7s  %5s  %10s  %10s  %10s  %-8s  %s\n", "slot",
                "service_id", "host_name", "server_id", "limit/s", "depth", "call", "dbio", "sql",
                "flags", "tflag");
    for (unsigned i = 0; i < std::min<unsigned>(table->used.top, SVC_HASH_SLOTS); ++i) {
        const unsigned slot = table->used.idx[i];
        if (slot < SVC_HASH_SLOTS)
            print_service(slot, table->h_arr[slot].param);
        else
            std::printf("    used[%u] names the slot %u, which does not exist\n", i, slot);
    }
    return EXIT_OK;
}

void print_process(const PROCESS_INFO& process) {
    char since[32] = "-";
    struct tm local {};
    if (process.proc_uptime > 0 && localtime_r(&process.proc_uptime, &local) != nullptr)
        std::strftime(since, sizeof since, "%F %T", &local);
    std::printf("    %3d  %8d  %-16s  %3d  %3d  %3u/%-3u in %d s  since %s  %s\n", process.proc_idx,
                process.proc_pid, shown(process.proc_bin).c_str(), process.cur_sts, process.act_sts,
                static_cast<unsigned>(process.cur_retry_cnt),
                static_cast<unsigned>(process.set_retry_cnt), process.chk_retry_cnt_sec, since,
                shown(process.exec_args).c_str());
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
    std::printf("host %s, %s, %d cores, memory %.0f\n", shown(device.host_name).c_str(),
                shown(device.os_info).c_str(), device.core_cnt, device.mem_total);
    std::printf("CPU alert at %d %% over %d s\n", agent->cpu.alert_pcnt, agent->cpu.alert_sec);
    std::printf("%d file systems\n", agent->file_sys_num);
    for (int i = 0; i < std::min<int>(agent->file_sys_num, FILE_SYSTEM_MAX); ++i)
        std::printf("    %s: alert at %d %%, %d raised\n",
                    shown(agent->file_system[i].file_system).c_str(),
                    agent->file_system[i].alert_pcnt, agent->file_system[i].alert_cnt);
    std::printf("%d processes\n    idx       pid  program           cur  act  restarts\n",
                agent->proc_num);
    for (int i = 0; i < std::min<int>(agent->proc_num, PROCESS_INFO_MAX); ++i)
        print_process(agent->proc_info[i]);
    return EXIT_OK;
}

// Prints the indexes of one ring and returns how many of its last records are worth a look.
template <class Queue> int print_ring(const std::string& name, agt::ring_indexes at, int wanted) {
    if (!index_fault<Queue>(at).empty()) {
        std::printf("%s: front %d, rear %d: not indexes of this queue\n", name.c_str(), at.front,
                    at.rear);
        return 0;
    }
    std::printf("%s: front %d, rear %d, %d waiting\n", name.c_str(), at.front, at.rear,
                records_between<Queue>(at));
    return std::min(wanted, agt::ring_slots<Queue>);
}

std::string show_noti_queue(const show_options& chosen) {
    NOTI_SEND_QUE_INFO info{};
    std::string wrong = read_shared(chosen.cfg_file, agt::NOTI_QUEUE, 0, &info, sizeof info);
    if (!wrong.empty())
        return wrong;
    const int count =
        print_ring<NOTI_SEND_QUE>("noti_send_que", {info.front, info.rear}, chosen.records);
    for (int i = 0; i < count && wrong.empty(); ++i) {
        const auto slot =
            static_cast<std::size_t>((info.rear - i + NOTI_SEND_QUE_SLOTS) % NOTI_SEND_QUE_SLOTS);
        ACTIVE_SERVICE_DETAIL record;
        wrong = read_shared(chosen.cfg_file, agt::NOTI_QUEUE,
                            offsetof(NOTI_SEND_QUE, data) + slot * sizeof(NOTI_SEND_QUE_DATA),
                            &record, sizeof record);
        std::vector<field_value> fields;
        decode_record(ACTIVE_SERVICE_ITEMS, reinterpret_cast<const char*>(&record), "", fields);
        if (!wrong.empty() ||
            std::all_of(fields.begin(), fields.end(), [](const auto& f) { return f.text.empty(); }))
            break; // never written
        std::printf("  slot %zu\n", slot);
        print_fields(stdout, fields);
    }
    return wrong;
}

std::string show_parse_queue(const show_options& chosen, std::size_t que) {
    PARSE_LOG_QUE_INFO info{};
    const std::size_t start = que * sizeof(PARSE_LOG_QUE);
    std::string wrong = read_shared(chosen.cfg_file, agt::PARSE_QUEUES, start, &info, sizeof info);
    if (!wrong.empty() ||
        (que > 0 && info.front == 0 && info.rear == 0)) // a queue nobody has used yet
        return wrong;
    const std::string name = "parse_log_que " + std::to_string(que);
    const int count = print_ring<PARSE_LOG_QUE>(name, {info.front, info.rear}, chosen.records);
    for (int i = 0; i < count && wrong.empty(); ++i) {
        const auto slot =
            static_cast<std::size_t>((info.rear - i + PARSE_LOG_QUE_SLOTS) % PARSE_LOG_QUE_SLOTS);
        TRAN_LOG_FMT log;
        wrong =
            read_shared(chosen.cfg_file, agt::PARSE_QUEUES,
                        start + offsetof(PARSE_LOG_QUE, data) + slot * sizeof(PARSE_LOG_QUE_DATA),
                        &log, sizeof log);
        if (!wrong.empty() || log.hdr.log_type[0] == '\0')
            break; // never written
        std::printf("  slot %zu\n", slot);
        print_fields(stdout, decode_event(log));
    }
    return wrong;
}

// The parse-log queues do not exist while the worker watchdog is off.
exit_status show_queues(const show_options& chosen) {
    std::string wrong = show_noti_queue(chosen);
    if (!wrong.empty())
        return complain(wrong);
    for (std::size_t que = 0; que < PARSE_LOG_QUE_POOL_SIZE && wrong.empty(); ++que)
        wrong = show_parse_queue(chosen, que);
    if (!wrong.empty())
        std::printf("no parse-log queues: %s\n", wrong.c_str());
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
        if (row.show == show_queues)
            action->add_option("--records", chosen->records, "How many of the last records to show")
                ->check(CLI::Range(0, 1000))
                ->capture_default_str();
        action->callback([chosen, status, show = row.show] { *status = show(*chosen); });
    }
}

} // namespace kessctl

// One look at an agent: its objects, its registry and its queue statistics.
#include "agent/agent_snapshot.h"

#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "host/cfg_value.h"
#include "sem.h"
#include "util.h"
#include "wire/text.h"

namespace kessctl {
namespace {

std::string check_cfg(const std::string& cfg_file) {
    if (cfg_file.empty())
        return "no configuration: give --config, or name the agent's configuration file in "
               "TRAN_AGT_CFG_FILE";
    std::FILE* file = agt::open_text_file(cfg_file.c_str());
    if (file == nullptr)
        return cfg_file + ": " + std::strerror(errno);
    std::fclose(file);
    const bool names_one = std::any_of(
        std::begin(agt::SHARED_OBJECTS), std::end(agt::SHARED_OBJECTS),
        [&](const auto* object) { return !cfg_value(cfg_file, object->key()).empty(); });
    return names_one ? "" : cfg_file + " names none of the agent's shared objects";
}

semaphore_set read_semaphores(const object_state& object) {
    semaphore_set set{object, {}};
    if (!object.exists())
        return set;
    const std::size_t count = std::min(object.size, object.object->size);
    for (std::size_t i = 0; i < count; ++i) {
        const semaphore_state one = read_semaphore(object.id, static_cast<int>(i));
        if (one.value < 0) { // gone, or not ours to read
            set.object.fault = std::strerror(errno);
            break;
        }
        set.semaphores.push_back(one);
    }
    return set;
}

void read_objects(agent_snapshot& now) {
    for (const agt::shared_object* object : agt::SHARED_OBJECTS) {
        const object_state state = find_object(now.cfg_file, *object);
        if (object->kind == agt::object_kind::segment)
            now.segments.push_back(state);
        else
            now.semaphores.push_back(read_semaphores(state));
    }
}

process_row decode_process(int row, const PROCESS_INFO& process) {
    process_row out;
    out.row = row;
    out.program = shown(process.proc_bin);
    out.command = shown(process.exec_args);
    out.pid = process.proc_pid;
    out.state = process.cur_sts;
    out.wanted = process.act_sts;
    out.restarts = process.cur_retry_cnt;
    out.restarts_allowed = process.set_retry_cnt;
    out.restart_period_sec = process.chk_retry_cnt_sec;
    out.started = process.proc_uptime;
    out.alive = process_alive(process.proc_pid);
    return out;
}

void read_registry(agent_snapshot& now, const segment_view& agent) {
    int count = 0;
    if (!agent.copy(offsetof(TRAN_AGT_SHM, proc_num), &count))
        return;
    if (count < 0 || count > PROCESS_INFO_MAX) {
        now.registry_fault =
            "proc_num " + std::to_string(count) + " of " + std::to_string(PROCESS_INFO_MAX);
        return;
    }
    for (int row = 0; row < count; ++row) {
        PROCESS_INFO process;
        if (agent.copy(offsetof(TRAN_AGT_SHM, proc_info) +
                           static_cast<std::size_t>(row) * sizeof process,
                       &process))
            now.processes.push_back(decode_process(row, process));
    }
}

queue_traffic decode_traffic(const QUE_STAT& stat) {
    queue_traffic out;
    out.in = stat.in_qcnt;
    out.in_discarded = stat.in_discard_qcnt;
    out.out = stat.out_qcnt;
    out.out_discarded = stat.out_discard_qcnt;
    out.now = stat.cur_qcnt;
    out.hash_table_percent =
        std::isfinite(stat.log_hashtbl_used_pcnt) ? stat.log_hashtbl_used_pcnt : 0;
    return out;
}

void read_agent_segment(agent_snapshot& now) {
    const segment_view agent(now.cfg_file, agt::AGENT_SEGMENT);
    read_registry(now, agent);
    QUE_STAT stats[QUE_STAT_MAX];
    if (agent.copy(offsetof(TRAN_AGT_SHM, que_stat), &stats))
        for (const QUE_STAT& stat : stats)
            now.que_stat.push_back(decode_traffic(stat));
    char host[sizeof DEVICE_INFO::host_name];
    if (agent.copy(offsetof(TRAN_AGT_SHM, device_info) + offsetof(DEVICE_INFO, host_name), &host))
        now.host = shown(host);
}

std::string server_address(const std::string& cfg_file) {
    return printable(cfg_value(cfg_file, agt::config_key_of("TRAN_SERVER", "IP_ADDRESS")) + ":" +
                     cfg_value(cfg_file, agt::config_key_of("TRAN_SERVER", "CMD_PORT")));
}

// One that only the daemon's user may read is as the daemon says.
std::optional<certificate_state> find_certificate(const agent_snapshot& now) {
    std::optional<certificate_state> found = read_certificate(now.cfg_file);
    const std::int64_t end_sec = now.state.known() ? now.state.values.certificate_end_sec : 0;
    if (found && end_sec > 0 && access(found->file.c_str(), R_OK) != 0 && errno == EACCES) {
        found->expires = static_cast<time_t>(end_sec);
        found->fault.clear();
    }
    return found;
}

} // namespace

semaphore_state read_semaphore(int semid, int number) {
    semaphore_state state;
    state.value = semctl(semid, number, GETVAL);
    state.pid = semctl(semid, number, GETPID);
    state.waiting = semctl(semid, number, GETNCNT);
    state.process = process_name(state.pid);
    state.alive = process_alive(state.pid);
    return state;
}

int agent_snapshot::object_count() const {
    const auto segments_there =
        std::count_if(segments.begin(), segments.end(), [](const auto& s) { return s.exists(); });
    const auto sets_there = std::count_if(semaphores.begin(), semaphores.end(),
                                          [](const auto& s) { return s.object.exists(); });
    return static_cast<int>(segments_there + sets_there);
}

agent_snapshot take_snapshot(const std::string& cfg_file) {
    agent_snapshot now;
    now.taken = std::time(nullptr);
    now.cfg_file = cfg_file;
    now.cfg_fault = check_cfg(cfg_file);
    if (!now.cfg_fault.empty())
        return now;
    now.watchdog_on =
        std::atoi(
            cfg_value(cfg_file, agt::config_key_of("KESSARD", "WORKER_CHECK_INTERVAL")).c_str()) !=
        0;
    now.daemon = find_daemon(cfg_file);
    now.state = read_state(cfg_file, now.daemon);
    now.server = server_address(cfg_file);
    now.certificate = find_certificate(now);
    read_objects(now);
    TRAN_LOGF_QUE_INFO settings;
    if (read_settings(cfg_file, &settings).empty())
        now.settings = settings;
    read_agent_segment(now);
    read_tables(now);
    read_queues(now);
    return now;
}

} // namespace kessctl

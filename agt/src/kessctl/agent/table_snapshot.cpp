// One look at an agent: its tables and queues.
#include <algorithm>
#include <memory>
#include <type_traits>

#include "agent/agent_snapshot.h"
#include "agent/ring_view.h"
#include "log_flags.h"
#include "wait.h"
#include "wire/text.h"

namespace kessctl {
namespace {

template <class Table>
inline constexpr std::size_t table_slots = std::extent_v<decltype(Table::h_arr)>;

// Empty, or that the two stacks do not add up to the slots. Somebody who inserts has a slot in his
// hands, so it counts only when it is so however often one looks.
template <class Table> std::string lost_slots(const segment_view& view) {
    unsigned used = 0;
    unsigned available = 0;
    for (int look = 0; look < 3; ++look) {
        if (look > 0)
            agt::sleep_ms(10);
        if (!view.copy(offsetof(Table, used), &used) ||
            !view.copy(offsetof(Table, available), &available) ||
            used + available == table_slots<Table>)
            return {};
    }
    return std::to_string(used) + " slots used and " + std::to_string(available) + " free of " +
           std::to_string(table_slots<Table>);
}

// The number of used slots.
template <class Table>
fill_level read_fill(const segment_view& view, const char* name, const char* id) {
    fill_level fill;
    fill.name = name;
    fill.id = id;
    fill.slots = table_slots<Table>;
    unsigned top = 0;
    fill.known = view.copy(offsetof(Table, used), &top); // the stack begins with it
    if (top <= fill.slots)
        fill.used = top;
    else
        fill.fault = "used.top " + std::to_string(top) + " of " + std::to_string(fill.slots);
    if (fill.known && fill.fault.empty())
        fill.fault = lost_slots<Table>(view);
    return fill;
}

// The used slots, those that exist; one that does not becomes the fault of the fill level.
template <class Table>
std::vector<unsigned> read_used_slots(const segment_view& view, fill_level& fill) {
    std::vector<unsigned> used(fill.known ? fill.used : 0);
    if (used.empty() || !view.copy(offsetof(Table, used) + sizeof(unsigned), used.data(),
                                   used.size() * sizeof used[0]))
        return {};
    std::erase_if(used, [&](unsigned slot) {
        if (slot < fill.slots)
            return false;
        fill.fault = "the used slots include number " + std::to_string(slot) + " of " +
                     std::to_string(fill.slots);
        return true;
    });
    return used;
}

service_row decode_service(unsigned slot, const SVC_HASH_ARR& service) {
    service_row out;
    out.slot = slot;
    out.service_id = shown(service.service_id);
    out.host_name = shown(service.host_name);
    out.server_id = shown(service.server_id);
    out.limit_sec = service.limit;
    out.call_trc_depth = service.call_trc_depth;
    out.call_trc_limit = service.call_trc_limit;
    out.dbio_trc_limit = service.dbio_trc_limit;
    out.sql_trc_limit = service.sql_trc_limit;
    out.flags = agt::letters_of_flags(static_cast<unsigned char>(service.uflag_set));
    out.tflag = service.tflag;
    return out;
}

// Reads what a trace entry says of its process and its state, and leaves the rest of *entry as it
// is.
bool read_trace(const segment_view& view, unsigned slot, PTRC_HASH_ARR* entry) {
    const std::size_t at = offsetof(PTRC_HASH_TBL, h_arr) + slot * sizeof(PTRC_HASH_ARR_LIST) +
                           offsetof(PTRC_HASH_ARR_LIST, param);
    return view.copy(at, entry, offsetof(PTRC_HASH_ARR, call_trc_depth_list)) &&
           view.copy(at + offsetof(PTRC_HASH_ARR, lasted_access), &entry->lasted_access);
}

void count_trace(traced_process& process, const PTRC_HASH_ARR& entry) {
    process.name = shown(entry.proc_nm);
    process.pid = shown(entry.pid);
    process.threads += entry._tid != 0 ? 1 : 0;
    process.dead += entry.isalive == 0 ? 1 : 0;
    process.last_access = std::max(process.last_access, entry.lasted_access);
    ++process.states[printable({&entry.trc_sts, 1})];
}

void read_traces(agent_snapshot& now) {
    const segment_view view(now.cfg_file, agt::TRACE_TABLE);
    now.trace_fill = read_fill<PTRC_HASH_TBL>(view, "trace table", "trace");
    std::map<std::pair<std::string, std::string>, traced_process> by_process;
    const auto entry = std::make_unique<PTRC_HASH_ARR>();
    for (const unsigned slot : read_used_slots<PTRC_HASH_TBL>(view, now.trace_fill))
        if (read_trace(view, slot, entry.get()))
            count_trace(by_process[{shown(entry->proc_nm), shown(entry->pid)}], *entry);
    for (auto& [key, process] : by_process)
        now.traced.push_back(std::move(process));
}

// `front` and `rear` of a queue at the byte `at`; one slot always stays empty.
template <class Queue> void read_queue(const segment_view& view, std::size_t at, fill_level& fill) {
    decltype(Queue::info) ends{};
    fill.slots = agt::ring_slots<Queue> - 1;
    fill.known = view.copy(at, &ends);
    fill.fault = index_fault<Queue>({ends.front, ends.rear});
    if (fill.fault.empty())
        fill.used = static_cast<unsigned long>(records_between<Queue>({ends.front, ends.rear}));
}

} // namespace

void read_services(agent_snapshot& now) {
    const segment_view view(now.cfg_file, agt::SERVICE_TABLE);
    now.service_fill = read_fill<SVC_HASH_TBL>(view, "service table", "service");
    for (const unsigned slot : read_used_slots<SVC_HASH_TBL>(view, now.service_fill)) {
        SVC_HASH_ARR_LIST entry;
        if (view.copy(offsetof(SVC_HASH_TBL, h_arr) + slot * sizeof entry, &entry))
            now.services.push_back(decode_service(slot, entry.param));
    }
}

void read_tables(agent_snapshot& now) {
    read_services(now);
    read_traces(now);
    now.cache_fill = read_fill<JCACHE_HASH_TBL>(segment_view(now.cfg_file, agt::CACHE_TABLE),
                                                "cache table", "cache");
}

void read_queues(agent_snapshot& now) {
    fill_level notifications;
    notifications.name = "notification queue";
    notifications.id = "notification";
    read_queue<NOTI_SEND_QUE>(segment_view(now.cfg_file, agt::NOTI_QUEUE), 0, notifications);
    now.queues.push_back(notifications);
    const segment_view pool(now.cfg_file, agt::PARSE_QUEUES);
    for (std::size_t i = 0; i < PARSE_LOG_QUE_POOL_SIZE; ++i) {
        fill_level queue;
        queue.name = "parse-log queue " + std::to_string(i);
        queue.id = "parse_log_" + std::to_string(i);
        read_queue<PARSE_LOG_QUE>(pool, i * sizeof(PARSE_LOG_QUE), queue);
        now.queues.push_back(queue);
    }
}

} // namespace kessctl

// kessctl put-trace: being a tracer that enters processes and threads into the trace table.
//
// An entry's key is its pid and tid text, which stand side by side; an entry that exists is
// renewed. Nothing in the table is trusted: counts and indexes are checked before they are used,
// and a chain is followed for as many steps as there are slots.
#include "commands/commands.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include "agent/shared_edit.h"
#include "hash_chain.h"
#include "host/process.h"
#include "sem.h"
#include "wire/text.h"

namespace kessctl {
namespace {

constexpr int FIRST_MADE_UP_PID = 4194305; // beyond the largest that the system gives
constexpr std::size_t KEY_SIZE = sizeof(PTRC_HASH_ARR::pid) + sizeof(PTRC_HASH_ARR::tid);
static_assert(offsetof(PTRC_HASH_ARR, tid) ==
              offsetof(PTRC_HASH_ARR, pid) + sizeof(PTRC_HASH_ARR::pid));

struct trace_options {
    std::string cfg_file = default_cfg_file();
    std::vector<int> pids; // of real processes; none: made-up ones
    int count = 1;         // made-up processes
    std::string name;
    int threads = 0; // of each process
    unsigned long first_tid = 1;
    std::string state = "a";
    int alive = 1;
    int idle_sec = 0;
    int thread_idle_sec = -1; // below 0: as the process
    bool clear = false;
};

struct trace_entry {
    int pid;
    unsigned long tid; // 0: the process itself
    std::string name;
    int idle_sec;
};

// The entries that the options ask for, each process before its threads. Empty, or why there are
// none.
std::string list_entries(const trace_options& chosen, std::vector<trace_entry>* out) {
    std::vector<int> pids = chosen.pids;
    for (int i = 0; chosen.pids.empty() && i < chosen.count; ++i)
        pids.push_back(FIRST_MADE_UP_PID + i);
    for (const int pid : pids) {
        std::string name = chosen.name;
        if (name.empty())
            name = chosen.pids.empty() ? "madeup" : process_comm(pid);
        if (name.empty())
            return "there is no process " + std::to_string(pid) + "; give its --name";
        out->push_back({pid, 0, name, chosen.idle_sec});
        for (int i = 0; i < chosen.threads; ++i)
            out->push_back({pid, chosen.first_tid + static_cast<unsigned long>(i), name,
                            chosen.thread_idle_sec < 0 ? chosen.idle_sec : chosen.thread_idle_sec});
    }
    return {};
}

// Text and a terminator; the rest of the field is zero.
template <std::size_t N> void set_text(char (&field)[N], const std::string& text) {
    std::memset(field, 0, N);
    std::memcpy(field, text.data(), std::min(text.size(), N - 1));
}

void set_key(PTRC_HASH_ARR& param, const trace_entry& entry) {
    char tid[sizeof param.tid];
    std::snprintf(tid, sizeof tid, "%015lu", entry.tid);
    set_text(param.pid, std::to_string(entry.pid));
    set_text(param.tid, tid);
}

void fill_entry(PTRC_HASH_ARR& param, const trace_entry& entry, const trace_options& chosen) {
    set_text(param.proc_nm, entry.name);
    param._pid = entry.pid;
    param._tid = entry.tid;
    agt::shared_store(param.lasted_access, std::time(nullptr) - entry.idle_sec);
    agt::shared_store(param.isalive, static_cast<char>(chosen.alive));
    agt::shared_store(param.trc_sts, chosen.state[0]);
}

std::string check_stacks(const PTRC_HASH_TBL& table) {
    const unsigned used = agt::shared_load(table.used.top);
    const unsigned available = agt::shared_load(table.available.top);
    if (used <= PTRC_HASH_SLOTS && available <= PTRC_HASH_SLOTS)
        return {};
    return "the table is corrupt: " + std::to_string(used) + " slots used, " +
           std::to_string(available) + " free";
}

enum class put_outcome { put, renewed, full };

// Puts or renews one entry; the caller holds the table's semaphore. Empty, or what is wrong with
// the table.
std::string put_entry(PTRC_HASH_TBL& table, const trace_entry& entry, const trace_options& chosen,
                      put_outcome* done) {
    PTRC_HASH_ARR key;
    set_key(key, entry);
    const int bucket = agt::bucket_of<PTRC_HASH_TBL>(key.pid, KEY_SIZE);
    const std::string wrong = check_stacks(table);
    if (!wrong.empty())
        return wrong;
    const agt::chain_place at =
        agt::find_in_chain(table, bucket, [&key](const PTRC_HASH_ARR& param) {
            return std::memcmp(param.pid, key.pid, KEY_SIZE) == 0;
        });
    if (at.stray != agt::NO_SLOT)
        return "the chain of bucket " + std::to_string(bucket) + " is corrupt at slot " +
               std::to_string(at.stray);
    const bool is_new = at.slot == agt::NO_SLOT;
    const int slot = is_new ? agt::stack_pop(table.available) : at.slot;
    *done = slot == agt::NO_SLOT ? put_outcome::full
            : is_new             ? put_outcome::put
                                 : put_outcome::renewed;
    if (slot == agt::NO_SLOT)
        return {};
    if (!agt::is_slot<PTRC_HASH_TBL>(slot))
        return "the stack of free slots is corrupt: it holds " + std::to_string(slot);
    PTRC_HASH_ARR& param = table.h_arr[slot].param;
    if (is_new)
        param = {};
    std::memcpy(param.pid, key.pid, KEY_SIZE);
    fill_entry(param, entry, chosen);
    if (is_new) {
        agt::append_to_chain(table, bucket, slot, at.tail);
        agt::stack_push(table.used, static_cast<unsigned>(slot));
        agt::shared_store(table.alloc_cnt, agt::shared_load(table.alloc_cnt) + 1);
    }
    std::printf("%s slot %d: %s, pid %d, tid %lu, state %c, idle %d s\n",
                is_new ? "put" : "renewed", slot, printable(entry.name).c_str(), entry.pid,
                entry.tid, chosen.state[0], entry.idle_sec);
    return {};
}

exit_status put_entries(PTRC_HASH_TBL& table, const std::vector<trace_entry>& entries,
                        const trace_options& chosen) {
    int left_out = 0;
    for (const trace_entry& entry : entries) {
        put_outcome done = put_outcome::full;
        const std::string wrong = put_entry(table, entry, chosen, &done);
        if (!wrong.empty())
            return complain(wrong);
        left_out += done == put_outcome::full ? 1 : 0;
    }
    if (left_out > 0)
        std::printf("the table is full: %d entries did not fit\n", left_out);
    return left_out > 0 ? EXIT_REFUSED : EXIT_OK;
}

exit_status put_trace(const trace_options& chosen) {
    std::vector<trace_entry> entries;
    std::string wrong;
    if (!chosen.clear)
        wrong = list_entries(chosen, &entries);
    shared_edit edit;
    if (wrong.empty())
        wrong = edit.open(chosen.cfg_file, agt::TRACE_TABLE, agt::TRACE_TABLE_SEM);
    if (!wrong.empty())
        return complain(wrong);
    const agt::sem_hold hold(edit.semid(), 0);
    if (!hold.held())
        return complain(std::string("the table's semaphore: ") + std::strerror(errno));
    PTRC_HASH_TBL& table = *static_cast<PTRC_HASH_TBL*>(edit.address());
    if (!chosen.clear)
        return put_entries(table, entries, chosen);
    agt::clear_hash_tbl(table);
    std::printf("the table is empty\n");
    return EXIT_OK;
}

} // namespace

void add_put_trace(CLI::App& app, exit_status* status) {
    const auto chosen = std::make_shared<trace_options>();
    CLI::App* command =
        app.add_subcommand("put-trace", "Enter processes and threads into the trace table, as a "
                                        "tracer would; what is there is renewed");
    add_cfg_option(*command, chosen->cfg_file);
    CLI::Option* pids =
        command->add_option("--pid", chosen->pids, "Pids of processes (default: made-up ones)")
            ->check(CLI::Range(1, 99999999));
    command->add_option("--count", chosen->count, "How many made-up processes")
        ->check(CLI::Range(1, int{PTRC_HASH_SLOTS}))
        ->excludes(pids)
        ->capture_default_str();
    command->add_option("--name", chosen->name,
                        "Name of the processes (default: what the system says of a pid)");
    command->add_option("--threads", chosen->threads, "Thread entries of each process")
        ->check(CLI::Range(0, int{PTRC_HASH_SLOTS}));
    command->add_option("--tid", chosen->first_tid, "Identifier of the first thread")
        ->check(CLI::Range(1, INT_MAX))
        ->capture_default_str();
    command
        ->add_option("--state", chosen->state,
                     "Trace state, a letter; the sweep looks at f (after 5 idle seconds) and "
                     "h at once")
        ->check([](const std::string& text) { return text.size() == 1 ? "" : "one letter"; })
        ->capture_default_str();
    command
        ->add_option("--alive", chosen->alive,
                     "Mark of the last liveness check; 2 and above is kept")
        ->check(CLI::Range(0, 127))
        ->capture_default_str();
    command->add_option("--idle", chosen->idle_sec, "Seconds since the last access")
        ->check(CLI::Range(0, INT_MAX));
    command
        ->add_option("--thread-idle", chosen->thread_idle_sec,
                     "The same of the threads (default: as the process)")
        ->check(CLI::Range(0, INT_MAX));
    command->add_flag("--clear", chosen->clear, "Empty the table instead");
    command->callback([chosen, status] { *status = put_trace(*chosen); });
}

} // namespace kessctl

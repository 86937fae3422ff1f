// The liveness sweep.
//
// Each entry that is due has its process looked up in /proc, once for all its threads: what was
// found of a process is remembered for the length of a sweep, as far as chk_pids finds it again.
#include "check_ptrc_hash_tbl.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "chk_pids.h"
#include "field.h"
#include "index_stack.h"
#include "log_printf.h"
#include "printable.h"
#include "process_globals.h"
#include "ptrc_hash_stk.h"
#include "settings.h"
#include "shortage.h"
#include "state_file.h"
#include "tran_logf_que_info.h"
#include "unique_fd.h"

namespace kessard {
namespace {

constexpr int PROC_NM_SIZE = sizeof(CHK_PID::proc_nm);
constexpr int FINISHED_IDLE_SEC = 5; // an entry in state 'f' is checked after this
constexpr int CHECK_PERIOD_SEC = 9;  // any other entry after more than this
constexpr char KEPT_ALIVE = 2;       // isalive from here up is the tracer's

// Reads /proc/<pid>/stat; its length, or -1 when it cannot be opened.
ssize_t read_stat(pid_t pid, char* text, std::size_t size) {
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%d/stat", pid);
    const agt::unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.valid())
        return -1;
    const ssize_t length = read(fd.get(), text, size - 1);
    text[length > 0 ? length : 0] = '\0';
    return length > 0 ? length : 0;
}

// 1 alive, 0 dead.
char look_up_process(const CHK_PID& process) {
    char stat[512];
    if (read_stat(process.pid, stat, sizeof stat) < 0) {
        log_shortage("liveness check", errno);
        agt::log_printf("@@@ process down: %s(%d)", agt::printable(process.proc_nm).c_str(),
                        process.pid);
        return 0;
    }
    long found_pid = 0;
    char name[128] = "";
    char state = 0;
    if (std::sscanf(stat, "%ld (%127[^)]) %c", &found_pid, name, &state) < 3)
        return 1;
    if (found_pid == process.pid && std::strncmp(name, process.proc_nm, PROC_NM_SIZE) == 0)
        return 1;
    agt::log_printf("@@@ process down : %s(%d)", agt::printable(process.proc_nm).c_str(),
                    process.pid);
    return 0;
}

// 1 alive, 0 dead. `k` counts the checks of this sweep; the first one forgets the last sweep's.
char is_alive_pid(int k, pid_t pid, const char (&proc_nm)[PROC_NM_SIZE]) {
    CHK_PID wanted = {pid, ""};
    std::memcpy(wanted.proc_nm, proc_nm, sizeof wanted.proc_nm);
    if (k == 0)
        clear_chk_pids();
    return isalive_of(wanted, look_up_process);
}

// Whether it is the entry's turn; counts its seconds otherwise.
bool is_due(PTRC_HASH_ARR& entry) {
    const char trc_sts = agt::shared_load(entry.trc_sts);
    if (trc_sts == 'h' || (trc_sts == 'f' && agt::shared_load(entry.lasted_access) <
                                                 std::time(nullptr) - FINISHED_IDLE_SEC))
        return true;
    const long elapsed =
        static_cast<signed char>(agt::shared_load(entry.chk_elps_sec)) + long{trc_sts_check_period};
    const bool due = elapsed > CHECK_PERIOD_SEC;
    agt::shared_store(entry.chk_elps_sec, static_cast<char>(due ? 0 : elapsed));
    return due;
}

// Whether it is alive.
bool check_entry(PTRC_HASH_ARR& entry, int k) {
    const bool alive = is_alive_pid(k, agt::get_number(entry.pid), entry.proc_nm) != 0;
    if (!alive)
        agt::shared_store(entry.isalive, char{0});
    else if (static_cast<signed char>(agt::shared_load(entry.isalive)) < KEPT_ALIVE)
        agt::shared_store(entry.isalive, char{1});
    return alive;
}

std::int64_t monotonic_us() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * std::int64_t{1000000} + now.tv_nsec / 1000;
}

void tell_sweep(std::int64_t start_us, std::int64_t entries, std::int64_t dead) {
    figure_set(figures->sweep_us, monotonic_us() - start_us);
    figure_set(figures->sweep_entries, entries);
    figure_set(figures->sweep_dead, dead);
    figure_add(figures->sweeps);
}

} // namespace

void check_ptrc_hash_tbl() {
    if (ptrc_hash_tbl == nullptr)
        return;
    agt::log_printf("##### ptrc hash table (total : %d) #####\n",
                    static_cast<int>(agt::shared_load(ptrc_hash_tbl->alloc_cnt)));
    const unsigned int used = agt::stack_top(ptrc_hash_tbl->used);
    if (used > PTRC_HASH_SLOTS) {
        set_magic_code(0);
        return;
    }
    const std::int64_t start_us = monotonic_us();
    int k = 0;
    int dead = 0;
    for (unsigned int i = 0; i < used && running != 0; ++i) {
        const unsigned int slot = agt::shared_load(ptrc_hash_tbl->used.idx[i]);
        if (slot < PTRC_HASH_SLOTS && is_due(ptrc_hash_tbl->h_arr[slot].param))
            dead += check_entry(ptrc_hash_tbl->h_arr[slot].param, k++) ? 0 : 1;
    }
    tell_sweep(start_us, k, dead);
}

} // namespace kessard

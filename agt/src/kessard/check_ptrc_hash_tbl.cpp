// The liveness sweep.
//
// A cache of (pid, name) pairs saves repeated looks into /proc: entries of one process mostly stand
// side by side, so the last record is tried first. Behind that the cache is sorted and searched
// with an equality test, which is no order: a record that is there may be missed, which costs one
// more look and nothing else. It has to stay so; the C library's qsort and bsearch take such a
// function without harm.
#include "check_ptrc_hash_tbl.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "field.h"
#include "index_stack.h"
#include "log_printf.h"
#include "printable.h"
#include "process_globals.h"
#include "ptrc_hash_stk.h"
#include "settings.h"
#include "tran_logf_que_info.h"
#include "unique_fd.h"

namespace kessard {
namespace {

constexpr std::size_t PROC_NM_SIZE = sizeof(PTRC_HASH_ARR::proc_nm);
constexpr int FINISHED_IDLE_SEC = 5; // an entry in state 'f' is checked after this
constexpr int CHECK_PERIOD_SEC = 9;  // any other entry after more than this
constexpr char KEPT_ALIVE = 2;       // isalive from here up is the tracer's

struct CHK_PID {
    pid_t pid;
    const char* proc_nm; // in the trace table, perhaps without a terminator
    char isalive;
};

CHK_PID chk_pids[PTRC_HASH_SLOTS];
std::size_t j = 0; // records in chk_pids

int comp_chk_pid(const void* a, const void* b) {
    const auto* first = static_cast<const CHK_PID*>(a);
    const auto* second = static_cast<const CHK_PID*>(b);
    return first->pid == second->pid &&
                   std::strncmp(first->proc_nm, second->proc_nm, PROC_NM_SIZE) == 0
               ? 0
               : 1;
}

const CHK_PID* find_cached(const CHK_PID& wanted) {
    if (j == 0)
        return nullptr;
    if (comp_chk_pid(&wanted, &chk_pids[j - 1]) == 0)
        return &chk_pids[j - 1];
    std::qsort(chk_pids, j, sizeof chk_pids[0], comp_chk_pid);
    return static_cast<const CHK_PID*>(
        std::bsearch(&wanted, chk_pids, j, sizeof chk_pids[0], comp_chk_pid));
}

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

// A field as the log shows it.
std::string shown_name(const char* proc_nm) {
    return agt::printable({proc_nm, agt::text_length(proc_nm, PROC_NM_SIZE - 1)});
}

char look_up_process(pid_t pid, const char* proc_nm) {
    char stat[512];
    if (read_stat(pid, stat, sizeof stat) < 0) {
        agt::log_printf("@@@ process down: %s(%d)", shown_name(proc_nm).c_str(), pid);
        return 0;
    }
    long found_pid = 0;
    char name[128] = "";
    char state = 0;
    if (std::sscanf(stat, "%ld (%127[^)]) %c", &found_pid, name, &state) < 3)
        return 1;
    if (found_pid == pid && std::strncmp(name, proc_nm, PROC_NM_SIZE) == 0)
        return 1;
    agt::log_printf("@@@ process down : %s(%d)", shown_name(proc_nm).c_str(), pid);
    return 0;
}

// 1 alive, 0 dead. `k` counts the checks of this sweep; the first one empties the cache.
char is_alive_pid(int k, pid_t pid, const char* proc_nm) {
    const CHK_PID wanted = {pid, proc_nm, 0};
    if (k == 0)
        j = 0;
    const CHK_PID* cached = find_cached(wanted);
    if (cached != nullptr)
        return cached->isalive;
    CHK_PID& record = chk_pids[j++];
    record = wanted;
    record.isalive = look_up_process(pid, proc_nm);
    return record.isalive;
}

// Whether it is the entry's turn; counts its seconds otherwise.
bool is_due(PTRC_HASH_ARR& entry, std::time_t now) {
    const char trc_sts = agt::shared_load(entry.trc_sts);
    if (trc_sts == 'h' ||
        (trc_sts == 'f' && agt::shared_load(entry.lasted_access) < now - FINISHED_IDLE_SEC))
        return true;
    const long elapsed =
        static_cast<signed char>(agt::shared_load(entry.chk_elps_sec)) + long{trc_sts_check_period};
    const bool due = elapsed > CHECK_PERIOD_SEC;
    agt::shared_store(entry.chk_elps_sec, static_cast<char>(due ? 0 : elapsed));
    return due;
}

void check_entry(PTRC_HASH_ARR& entry, int k) {
    if (is_alive_pid(k, agt::get_number(entry.pid), entry.proc_nm) == 0)
        agt::shared_store(entry.isalive, char{0});
    else if (agt::shared_load(entry.isalive) < KEPT_ALIVE)
        agt::shared_store(entry.isalive, char{1});
}

} // namespace

void check_ptrc_hash_tbl() {
    if (ptrc_hash_tbl == nullptr)
        return;
    agt::log_printf("##### ptrc hash table (total : %d) #####\n",
                    static_cast<int>(agt::shared_load(ptrc_hash_tbl->alloc_cnt)));
    const unsigned int used = agt::shared_load(ptrc_hash_tbl->used.top);
    if (used > PTRC_HASH_SLOTS) {
        set_magic_code(0);
        return;
    }
    const std::time_t now = std::time(nullptr);
    int k = 0;
    for (unsigned int i = 0; i < used && running != 0; ++i) {
        const unsigned int slot = agt::shared_load(ptrc_hash_tbl->used.idx[i]);
        if (slot < PTRC_HASH_SLOTS && is_due(ptrc_hash_tbl->h_arr[slot].param, now))
            check_entry(ptrc_hash_tbl->h_arr[slot].param, k++);
    }
}

} // namespace kessard

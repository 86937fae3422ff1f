// A trace table inside a test.
#include "trace_table.h"

#include <sys/mman.h>

#include <cstdio>
#include <ctime>

#include "field.h"
#include "log_printf.h"
#include "ptrc_hash_stk.h"

namespace test_support {

// One mapping for the life of the process: modules may remember an entry of an earlier pass.
trace_table::trace_table() {
    static void* const memory = mmap(nullptr, sizeof(PTRC_HASH_TBL), PROT_READ | PROT_WRITE,
                                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    madvise(memory, sizeof(PTRC_HASH_TBL), MADV_DONTNEED);
    table_ = static_cast<PTRC_HASH_TBL*>(memory);
    kessard::ptrc_hash_tbl = table_;
}

trace_table::~trace_table() {
    kessard::ptrc_hash_tbl = nullptr;
}

PTRC_HASH_ARR& trace_table::add(const std::string& proc_nm, int pid, unsigned long tid,
                                int idle_sec) {
    const unsigned slot = PTRC_HASH_SLOTS - 1 - table_->alloc_cnt++;
    table_->used.idx[table_->used.top++] = slot;
    PTRC_HASH_ARR& entry = table_->h_arr[slot].param;
    agt::copy_text(entry.proc_nm, proc_nm.c_str());
    std::snprintf(entry.pid, sizeof entry.pid, "%d", pid);
    std::snprintf(entry.tid, sizeof entry.tid, "%015lu", tid);
    entry._pid = pid;
    entry._tid = tid;
    entry.trc_sts = 'a';
    entry.isalive = 1;
    entry.lasted_access = std::time(nullptr) - idle_sec;
    return entry;
}

trace_table_test::trace_table_test() {
    kessard::running = 1;
    EXPECT_EQ(agt::open_log(a.path("logs/proc/kessard").c_str(), "kessard", 1), 0);
}

trace_table_test::~trace_table_test() {
    agt::close_log();
}

} // namespace test_support

// A trace table and the log of an agent, for tests of the sweep and the watchdog in one process.
#pragma once

#include <sys/mman.h>

#include "checks.h"
#include "log_printf.h"
#include "process_globals.h"
#include "ptrc_hash_stk.h"

namespace test_support {

// The process's one trace table, emptied and attached as the daemon's. One mapping for the life of
// the process, because modules may remember an entry; untouched pages of it cost nothing.
class trace_table {
  public:
    trace_table() {
        static void* const memory = mmap(nullptr, sizeof(PTRC_HASH_TBL), PROT_READ | PROT_WRITE,
                                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        madvise(memory, sizeof(PTRC_HASH_TBL), MADV_DONTNEED);
        table_ = kessard::ptrc_hash_tbl = static_cast<PTRC_HASH_TBL*>(memory);
    }
    ~trace_table() { kessard::ptrc_hash_tbl = nullptr; }
    PTRC_HASH_TBL& operator*() const { return *table_; }
    PTRC_HASH_TBL* operator->() const { return table_; }

    // Puts an entry last on the used stack, in state 'a', alive and last accessed so long ago.
    PTRC_HASH_ARR& add(const std::string& name, int pid, unsigned long tid = 0, int idle_sec = 0) {
        const unsigned slot = PTRC_HASH_SLOTS - 1 - table_->alloc_cnt++;
        table_->used.idx[table_->used.top++] = slot;
        PTRC_HASH_ARR& entry = table_->h_arr[slot].param;
        agt::copy_text(entry.proc_nm, name.c_str());
        std::snprintf(entry.pid, sizeof entry.pid, "%d", pid);
        std::snprintf(entry.tid, sizeof entry.tid, "%015lu", tid);
        entry._pid = pid;
        entry._tid = tid;
        entry.trc_sts = 'a';
        entry.isalive = 1;
        entry.lasted_access = std::time(nullptr) - idle_sec;
        return entry;
    }

  private:
    PTRC_HASH_TBL* table_;
};

// The table, in a daemon that runs, and the keys, files and log of an agent.
class trace_table_test : public testing::Test {
  protected:
    agent a;
    trace_table table;

    trace_table_test() {
        kessard::running = 1;
        EXPECT_EQ(agt::open_log(a.path("logs/proc/kessard").c_str(), "kessard", 1), 0);
    }
    ~trace_table_test() override { agt::close_log(); }
};

} // namespace test_support

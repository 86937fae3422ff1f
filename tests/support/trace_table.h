// What the tests of the sweep, the watchdog and the statistics need inside one process: a trace
// table, and the log of an agent.
#pragma once

#include <string>

#include "checks.h"
#include "kessard/ptrc_hash_tbl.h"
#include "process_globals.h"

namespace test_support {

// The process's one trace table, emptied; untouched pages of it cost nothing. Attached as the
// daemon's until detached.
class trace_table {
  public:
    trace_table();
    ~trace_table();
    PTRC_HASH_TBL& operator*() const { return *table_; }
    PTRC_HASH_TBL* operator->() const { return table_; }

    // Puts an entry last on the used stack, in state 'a', alive and last accessed so long ago.
    PTRC_HASH_ARR& add(const std::string& proc_nm, int pid, unsigned long tid = 0,
                       int idle_sec = 0);

  private:
    PTRC_HASH_TBL* table_;
};

// The table, in a daemon that runs, and the keys, files and log of an agent.
class trace_table_test : public testing::Test {
  protected:
    agent a;
    trace_table table;

    trace_table_test();
    ~trace_table_test() override;
};

// Runs `pass` after `prepare(now)` until both fall into one second, which it returns.
template <class Prepare, class Pass> time_t within_one_second(Prepare prepare, Pass pass) {
    time_t now = 0;
    do {
        now = time(nullptr);
        prepare(now);
        pass();
    } while (time(nullptr) != now);
    return now;
}

} // namespace test_support

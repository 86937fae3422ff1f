// The once-a-second housekeeping thread: traffic statistics, the period of the trace-table sweep,
// the update triggers.
#pragma once

#include <atomic>

namespace kessard {

// Logs received, in all. Nothing in the daemon counts into it yet.
extern std::atomic<int> tot_logs;

void th_start_st_log();
void th_cancel_st_log();
void th_join_st_log();

// The thread's entry.
void* st_log(void* arg);

// Sets the countdowns to the configured periods and forgets what earlier passes kept.
void start_st_log_passes();

// One pass: everything but the second's sleep behind it.
void st_log_pass();

} // namespace kessard

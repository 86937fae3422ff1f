// The worker watchdog: reports traced processes and threads that stopped making progress.
#pragma once

namespace kessard {

// Starts the watchdog thread; logs when it cannot be created.
void th_check_worker();

// Ends the watchdog without a word in the log: its waits end, and it is waited for like any other
// thread.
void stop_check_worker();

// One pass over the trace table, after init_is_working; false when the table is corrupt, which was
// reported.
bool check_worker_pass();

// The thread's entry.
void* check_worker(void* arg);

} // namespace kessard

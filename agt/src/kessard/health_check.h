// Reports to the central server: the device information once, then a health check every 30 seconds
// on one persistent connection.
#pragma once

#include <atomic>

namespace kessard {

inline constexpr int HEALTH_CHECK_INTERVAL_SEC = 30;

// The reporting connection; 0 or less when there is none. The health-check thread's while it runs.
extern std::atomic<int> svr_cmd_sockfd;

void th_start_health_check();
void th_cancel_health_check();
void th_join_health_check();

// The thread's entry.
void* health_check(void* arg);

// One health check: connects when there is no connection, reports, reads the answer. A failed
// connect sets
// `*reconnect`; a success that follows one clears it and starts a service-list retrieval.
void health_check_cycle(bool* reconnect);

// Sends the device information unless a connection is open already. 1, or -1 when that failed.
int transfer_device_info();

// Attach count of the segment of `key`; negative when there is none.
int get_shm_nattch(int key);

// Writes the names of the processes that are not in their wanted state, each with the length of its
// run, into `text` (301 bytes, the first 300 are cleared). 1 when there is one, else 0.
int get_engine_sts(char* text);

// Process entries of the trace table that are not the agent's own programs; -1 when the table is
// not attached.
int get_init_proc_num();

// Copies the first two lines of the API statistics file into the two records at `api_stat` (210
// bytes); leaves them alone when the file cannot be opened.
void set_api_stat(char* api_stat);

} // namespace kessard

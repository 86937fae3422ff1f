// Retrieval of the service list from the central server into the service table.
#pragma once

namespace kessard {

// Starts the retrieval thread and returns at once; refused with a log line while one runs.
void th_start_get_service_list();

// Ends a running retrieval's waits.
void th_cancel_get_service_list();

// Waits for a running retrieval and logs that it was joined. At start-up it lasts as long as the
// retrieval, unless a terminating signal arrives, which cancels the retrieval.
void th_join_get_service_list();

// The thread's entry: one retrieval.
void* get_service_list(void* arg);

} // namespace kessard

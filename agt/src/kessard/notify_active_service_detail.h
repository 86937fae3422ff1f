// The notifier: forwards active-service records from the notification queue to the central server.
#pragma once

namespace kessard {

void th_start_notify_active_service_detail();
// The daemon ends the notifier with stop_notify_active_service_detail; nothing in the programs
// calls these two.
void th_cancel_notify_active_service_detail();
void th_join_notify_active_service_detail();

// Ends the notifier without a word in the log: its waits end, and it is waited for like any other
// thread.
void stop_notify_active_service_detail();

// The thread's entry.
void* notify_active_service_detail(void* arg);

} // namespace kessard

// Upload of a script's service list to the central server.
#pragma once

namespace kessard {

// Starts an upload in a thread of its own and returns at once.
void th_start_shcmd_service_list();
void th_cancel_shcmd_service_list();
void th_join_shcmd_service_list();

// Whether an upload is under way.
bool shcmd_service_list_running();

// The thread's entry: one upload.
void* shcmd_service_list(void* arg);

} // namespace kessard

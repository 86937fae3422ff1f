// What every module of the daemon looks at: whether it runs, and how it was started.
#pragma once

#include <atomic>

#include "mutex.h"

namespace kessard {

inline constexpr char PROGRAM_NAME[] = "kessard";

// 1 from start to the terminating signal; every loop of the daemon polls it.
inline std::atomic<int> running{0};

// What the process ends with after an orderly end.
inline int exit_status = 0;

// From the command line: seconds of silence after which the traffic counters are cleared (-c),
// seconds between statistics prints (-p), this process's row in the process registry (-i, -1
// without one).
inline int clear_time = 0;
inline int print_time = 0;
inline int process_idx = -1;

// Held while the configuration file is read at start and by a reconnection of the notify link.
inline agt::mutex cfg_mutex;

} // namespace kessard

// The state file of the daemon that runs, read once.
//
// Read by one call and not mapped: a file that is cut off under its reader is a short read then and
// no signal, and the system copies aligned words whole. A link is followed, since it is its owner
// who made it. What stands in the file is foreign until it has been checked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "host/daemon_process.h"
#include "kessard/state_file.h"
#include "shared_objects.h"

namespace kessctl {

struct state_view {
    std::string path;       // empty: the configuration names none
    std::string fault;      // why the file says nothing of the daemon that runs
    bool unseen = false;    // and that is so because of who looks
    KESSARD_STATE values{}; // while there is no fault: no number below 0, every text with its end
    long long read_ms = 0;  // when, by the clock of its times
    double read_sec = 0;    // and since the epoch

    bool known() const { return !path.empty() && fault.empty(); }
    // Milliseconds since a time of the file, 0 or more.
    long long age_ms(std::int64_t when_ms) const { return read_ms - when_ms; }
    // A time of the file in seconds since the epoch: the same at each look, unless the system's
    // clock was set since the daemon started.
    double epoch_sec(std::int64_t when_ms) const;
};

// Reads the state file that the configuration names, a relative path under the home of the daemon
// or, where that cannot be seen, under TRAN_AGT_HOME.
state_view read_state(const std::string& cfg_file, const daemon_state& daemon);

// The threads of the file by their place, for people and as a word for programs.
const char* thread_name(std::size_t place);
const char* thread_id(std::size_t place);

// Words for the reasons of a refused connection, by their place in the file.
inline constexpr const char* REFUSALS[] = {"address", "place", "tls", "shortage"};

// The set of semaphores that a thread waits for; null when it waits for none.
const agt::shared_object* waited_for(const STATE_THREAD& thread);

// Why the server did not answer: what errno says, or a text of ours.
std::string server_error_text(std::int64_t error);

} // namespace kessctl

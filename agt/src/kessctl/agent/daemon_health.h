// Whether what the daemon has to do goes on: its server, its link and its threads, as its state
// file tells.
#pragma once

#include <cstddef>
#include <string>

#include "agent/agent_snapshot.h"
#include "agent/problem.h"

namespace kessctl {

inline constexpr int SERVER_LIMIT_SEC = 90; // two health checks with their time-outs
inline constexpr int FIRST_ANSWER_SEC = 45; // of a daemon that has just started
inline constexpr int LINK_LIMIT_SEC = 5;    // a reconnection takes a second or two
inline constexpr int PASS_LIMIT_SEC = 60;   // or twice the thread's rhythm

// Of a state file that is known: whether the server has not answered for too long, the link is down
// for too long although it is wanted, a thread that runs has not passed for too long.
bool server_overdue(const state_view& state);
bool link_missed(const state_view& state);
bool thread_stalled(const state_view& state, std::size_t place);

// "server 10.0.0.1:7720: answered 12 s ago", "notify link: up since 09:12:40, ..." and what a
// thread waits for: "PTRC_HASH_TBL_SEMKEY[0] (trace table), held by 1234 (tracer)", or nothing.
std::string server_text(const agent_snapshot& now);
std::string link_text(const agent_snapshot& now);
std::string wait_text(const agent_snapshot& now, const STATE_THREAD& thread);

// Adds what is wrong with these, with the state file itself, and what the daemon has lost.
void judge_state(const agent_snapshot& now, problem_list& problems);

} // namespace kessctl

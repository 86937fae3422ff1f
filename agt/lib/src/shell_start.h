// The start of a shell in a child process, and the signals that children start with.
#pragma once

#include <sys/types.h>

#include <initializer_list>

namespace agt {

struct shell_start {
    const char* command;
    int out; // its outputs, -1: the caller's
    int err;
    bool own_group; // a process group of its own
};

// Starts "/bin/sh -c `command`" without a descriptor beyond 0, 1 and 2, with default actions and an
// empty mask of signals; safe in a process with several threads. The pid; -1 with errno when it
// could not be started.
pid_t spawn_shell(const shell_start& how);

// Becomes that shell, with the signals as they are. Returns only when it fails.
void exec_shell(const char* command);

// Notes which signals have another action than the default: the others are left alone from then on
// when actions are given back. Before the first thread.
void note_signals();

// Gives every signal but those that are `kept` its default action and empties the signal mask of
// the calling thread.
void restore_signals(std::initializer_list<int> kept);

} // namespace agt

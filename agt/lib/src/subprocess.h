// Runs a shell command line, or a function, in a child process and collects its exit status,
// terminating signal, standard output and standard error, optionally with a limit of time after
// which the child is killed.
//
// A run is over when the child closes either of its two outputs, and it returns when the child
// itself has ended. A background process that keeps both outputs open therefore holds a run until
// its limit, and a child that closes an output early and goes on is waited for however long it
// takes. The child starts with default signal dispositions and an empty signal mask; a shell
// command sees no descriptor beyond 0, 1 and 2. The caller must leave SIGCHLD at its default: a
// child that the system reaps has no exit status.
//
// shell_reader is the way to read from a shell command in a process with several threads;
// everything else here forks.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace agt {

inline constexpr std::size_t SUBPROCESS_OUTPUT_STEP = 4096; // growth of a buffer
inline constexpr std::size_t SUBPROCESS_OUTPUT_MAX =
    64UL * 1024 * 1024; // output beyond it is read and dropped

// Collected text; always terminated by a NUL.
struct subprocess_output_t {
    char* buf_p;
    std::size_t length; // bytes held, without the NUL
    std::size_t size;   // bytes allocated
};

struct subprocess_result_t {
    int exit_code;     // -1 until the child is known to have exited normally
    int signal_number; // that ended the child, or -1
    int is_timeout;    // 1 when the limit cut the run off
    subprocess_output_t stdout_;
    subprocess_output_t stderr_; // empty when merged into stdout_
    int is_cut;                  // 1 when some of an output did not fit and was dropped
};

// What runs in the child; when it returns, the child exits with status 0.
using subprocess_entry_t = void (*)(void* arg);

// Replaces the process with "/bin/sh -c `command`" (a char*); exits with status 1 when that fails.
void exec_entry(void* command);

// Runs `entry(arg)` in a child with the caller's outputs and waits for it. The result, which the
// caller frees with subprocess_result_free; null when a pipe, the fork or memory failed.
subprocess_result_t* subprocess_call(subprocess_entry_t entry, void* arg);

// The same, collecting both outputs. A failing poll or read ends the calling process with status 1.
subprocess_result_t* subprocess_call_output(subprocess_entry_t entry, void* arg);

// The same within `seconds` (negative: no limit), counted in whole seconds of the clock; then the
// child, but not what it started itself, is killed.
subprocess_result_t* subprocess_call_output_timeout(subprocess_entry_t entry, void* arg,
                                                    int seconds);

// The same with standard error merged into stdout_ as it arrives.
subprocess_result_t* subprocess_call_output_timeout_ex(subprocess_entry_t entry, void* arg,
                                                       int seconds);

// The four for a shell command line. The programs call only the last one.
subprocess_result_t* subprocess_exec(const char* command);
subprocess_result_t* subprocess_exec_output(const char* command);
subprocess_result_t* subprocess_exec_output_timeout(const char* command, int seconds);
subprocess_result_t* subprocess_exec_output_timeout_ex(const char* command, int seconds);

// Whether there is a result and the child exited with status 0.
bool subprocess_completed_successfully(const subprocess_result_t* result);

// Shows a result on standard output.
// Nothing in the programs calls it.
void subprocess_result_print(const subprocess_result_t* result);

// Frees a result and its buffers; nothing for null.
void subprocess_result_free(subprocess_result_t* result);

// A running shell command whose standard output `fd` reads; `pid` leads its process group.
struct shell_reader {
    pid_t pid;
    int fd; // close-on-exec
};

// Starts "/bin/sh -c `command`", safely in a process with several threads. False when a pipe or the
// process could not be made, with `reader` untouched and errno set.
[[nodiscard]] bool shell_reader_start(const char* command, shell_reader* reader);

} // namespace agt

// Runs commands and functions in child processes.
#include "subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "shell_start.h"
#include "unique_fd.h"
#include "wait.h"

namespace agt {
namespace {

constexpr int NO_LIMIT = -1;
constexpr int FIRST_OWN_FD = 3;
constexpr std::size_t PASS_BYTES =
    std::size_t{1024} * 1024; // read from one stream before the time is looked at again

struct result_deleter {
    void operator()(subprocess_result_t* result) const { subprocess_result_free(result); }
};
using result_ptr = std::unique_ptr<subprocess_result_t, result_deleter>;

struct capture {
    int limit_ms;
    bool merge;
};

struct pipe_ends {
    unique_fd read;
    unique_fd write;
};

// The caller is as a rule a forked child itself: nothing that its parent registered for its own end
// may run here.
[[noreturn]] void end_process(const char* what) {
    std::perror(what);
    _exit(1);
}

bool start_buffer(subprocess_output_t& out) {
    out.buf_p = static_cast<char*>(std::malloc(SUBPROCESS_OUTPUT_STEP));
    if (out.buf_p == nullptr)
        return false;
    out.buf_p[0] = '\0';
    out.size = SUBPROCESS_OUTPUT_STEP;
    return true;
}

result_ptr new_result() {
    result_ptr result(
        static_cast<subprocess_result_t*>(std::calloc(1, sizeof(subprocess_result_t))));
    if (result == nullptr || !start_buffer(result->stdout_) || !start_buffer(result->stderr_))
        return nullptr;
    result->exit_code = -1;
    result->signal_number = -1;
    return result;
}

// Above the standard descriptors, so that putting one end in their place never hits another; they
// may all be closed.
bool move_up(unique_fd& end) {
    if (end.get() < FIRST_OWN_FD)
        end.reset(fcntl(end.get(), F_DUPFD_CLOEXEC, FIRST_OWN_FD));
    return end.valid();
}

bool open_pipe(pipe_ends& ends) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return false;
    ends.read.reset(fds[0]);
    ends.write.reset(fds[1]);
    return move_up(ends.read) && move_up(ends.write);
}

void grow(subprocess_output_t& out) {
    if (out.size >= SUBPROCESS_OUTPUT_MAX)
        return;
    char* larger = static_cast<char*>(std::realloc(out.buf_p, out.size + SUBPROCESS_OUTPUT_STEP));
    if (larger == nullptr)
        return;
    out.buf_p = larger;
    out.size += SUBPROCESS_OUTPUT_STEP;
}

// Reads until nothing is left, the stream ends or about `most` bytes have come: a child that writes
// without a pause must not keep its limit from being looked at. A full buffer drops what is read.
// Whether it did.
bool append_from(int fd, subprocess_output_t& out, std::size_t most) {
    char dropped[SUBPROCESS_OUTPUT_STEP];
    bool is_cut = false;
    for (std::size_t taken = 0; taken < most;) {
        const std::size_t room = out.size - out.length - 1;
        const ssize_t got =
            room > 0 ? read(fd, out.buf_p + out.length, room) : read(fd, dropped, sizeof dropped);
        if (got < 0 && errno == EINTR)
            continue;
        if (got == 0 || (got < 0 && errno == EAGAIN))
            break;
        if (got < 0)
            end_process("read");
        taken += static_cast<std::size_t>(got);
        is_cut = is_cut || room == 0;
        if (room == 0)
            continue;
        out.length += static_cast<std::size_t>(got);
        out.buf_p[out.length] = '\0';
        if (out.length + 1 == out.size)
            grow(out);
    }
    return is_cut;
}

// Whether the child has closed one of the streams. Both are emptied then: the one that was looked
// at first may have got its last output while the other was looked at.
bool take_output(pollfd (&watched)[2], subprocess_output_t* (&sinks)[2], int& is_cut) {
    const bool ended = ((watched[0].revents | watched[1].revents) & POLLHUP) != 0;
    for (int i = 0; i < 2; ++i) {
        const bool no_writer = (watched[i].revents & POLLHUP) != 0;
        if ((ended || (watched[i].revents & POLLIN) != 0) &&
            append_from(watched[i].fd, *sinks[i], no_writer ? SIZE_MAX : PASS_BYTES))
            is_cut = 1;
    }
    return ended;
}

void collect_output(int out_fd, int err_fd, const capture& how, subprocess_result_t& result) {
    const long long deadline_sec = monotonic_ms() / 1000 + how.limit_ms / 1000;
    pollfd watched[2] = {{out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}};
    subprocess_output_t* sinks[2] = {&result.stdout_,
                                     how.merge ? &result.stdout_ : &result.stderr_};
    fcntl(out_fd, F_SETFL, O_NONBLOCK);
    fcntl(err_fd, F_SETFL, O_NONBLOCK);
    for (;;) {
        const int ready = poll(watched, 2, how.limit_ms);
        if (ready < 0 && errno != EINTR)
            end_process("poll");
        if (ready == 0 || (how.limit_ms >= 0 && monotonic_ms() / 1000 >= deadline_sec)) {
            result.is_timeout = 1;
            return;
        }
        if (ready > 0 && take_output(watched, sinks, result.is_cut))
            return;
    }
}

bool reap(pid_t pid, int& status) {
    pid_t ended;
    do
        ended = waitpid(pid, &status, 0);
    while (ended == -1 && errno == EINTR);
    return ended == pid;
}

void wait_for_pid(pid_t pid, subprocess_result_t& result) {
    if (result.is_timeout != 0) {
        kill(pid, SIGTERM);
        if (kill(pid, 0) == 0)
            kill(pid, SIGKILL);
    }
    int status = 0;
    if (!reap(pid, status))
        return;
    if (WIFEXITED(status))
        result.exit_code = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        result.signal_number = WTERMSIG(status);
}

void flush_outputs() {
    std::fflush(stdout);
    std::fflush(stderr);
}

[[noreturn]] void run_child(subprocess_entry_t entry, void* arg) {
    restore_signals({});
    entry(arg);
    flush_outputs();
    _exit(0);
}

void become(const pipe_ends& ends, int target) {
    if (!ends.write.valid())
        return;
    close(ends.read.get());
    while (dup2(ends.write.get(), target) == -1 && errno == EINTR)
        continue;
    close(ends.write.get());
}

// Starts the child; pipes that are not open leave it the caller's outputs. A shell that cannot be
// spawned is forked, so that a failing exec is the child's exit status like everywhere else.
pid_t start_child(subprocess_entry_t entry, void* arg, const pipe_ends& out, const pipe_ends& err) {
    flush_outputs();
    if (entry == exec_entry) {
        const pid_t pid =
            spawn_shell({static_cast<const char*>(arg), out.write.get(), err.write.get(), false});
        if (pid != -1)
            return pid;
    }
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    become(out, STDOUT_FILENO);
    become(err, STDERR_FILENO);
    run_child(entry, arg);
}

subprocess_result_t* call_output(subprocess_entry_t entry, void* arg, const capture& how) {
    pipe_ends out;
    pipe_ends err;
    result_ptr result = new_result();
    if (result == nullptr || !open_pipe(out) || !open_pipe(err))
        return nullptr;
    const pid_t pid = start_child(entry, arg, out, err);
    if (pid == -1)
        return nullptr;
    out.write.reset();
    err.write.reset();
    collect_output(out.read.get(), err.read.get(), how, *result);
    wait_for_pid(pid, *result);
    return result.release();
}

int limit_of(int seconds) {
    return seconds < 0 ? NO_LIMIT : std::min(seconds, INT_MAX / 1000) * 1000;
}

void print_output(const char* name, const subprocess_output_t& output) {
    std::printf("%s (length: %ld):\n", name, static_cast<long>(output.length));
    std::printf("%s\n", output.buf_p);
}

void* opaque(const char* command) {
    return const_cast<char*>(command);
}

} // namespace

void exec_entry(void* command) {
    exec_shell(static_cast<const char*>(command));
    _exit(1);
}

subprocess_result_t* subprocess_call(subprocess_entry_t entry, void* arg) {
    result_ptr result = new_result();
    if (result == nullptr)
        return nullptr;
    const pid_t pid = start_child(entry, arg, {}, {});
    if (pid == -1)
        return nullptr;
    wait_for_pid(pid, *result);
    return result.release();
}

subprocess_result_t* subprocess_call_output(subprocess_entry_t entry, void* arg) {
    return call_output(entry, arg, {NO_LIMIT, false});
}

subprocess_result_t* subprocess_call_output_timeout(subprocess_entry_t entry, void* arg,
                                                    int seconds) {
    return call_output(entry, arg, {limit_of(seconds), false});
}

subprocess_result_t* subprocess_call_output_timeout_ex(subprocess_entry_t entry, void* arg,
                                                       int seconds) {
    return call_output(entry, arg, {limit_of(seconds), true});
}

subprocess_result_t* subprocess_exec(const char* command) {
    return subprocess_call(exec_entry, opaque(command));
}

subprocess_result_t* subprocess_exec_output(const char* command) {
    return subprocess_call_output(exec_entry, opaque(command));
}

subprocess_result_t* subprocess_exec_output_timeout(const char* command, int seconds) {
    return subprocess_call_output_timeout(exec_entry, opaque(command), seconds);
}

subprocess_result_t* subprocess_exec_output_timeout_ex(const char* command, int seconds) {
    return subprocess_call_output_timeout_ex(exec_entry, opaque(command), seconds);
}

bool subprocess_completed_successfully(const subprocess_result_t* result) {
    return result != nullptr && result->exit_code == 0;
}

void subprocess_result_print(const subprocess_result_t* result) {
    if (result == nullptr)
        return;
    std::printf("exit_code: %d, signal_number=(%d), is_timeout=(%d)\n", result->exit_code,
                result->signal_number, result->is_timeout);
    print_output("stdout", result->stdout_);
    print_output("stderr", result->stderr_);
}

void subprocess_result_free(subprocess_result_t* result) {
    if (result == nullptr)
        return;
    std::free(result->stdout_.buf_p);
    std::free(result->stderr_.buf_p);
    std::free(result);
}

bool shell_reader_start(const char* command, shell_reader* reader) {
    pipe_ends out;
    if (!open_pipe(out))
        return false;
    const pid_t pid = spawn_shell({command, out.write.get(), -1, true});
    if (pid != -1)
        *reader = {pid, out.read.release()};
    return pid != -1;
}

} // namespace agt

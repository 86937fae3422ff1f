// Starts the shell, and gives signals back their default actions.
#include "shell_start.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>

namespace agt {
namespace {

constexpr char SHELL[] = "/bin/sh";
constexpr int FIRST_OWN_FD = 3;

sigset_t every_signal() {
    sigset_t every;
    sigfillset(&every);
    return every;
}

sigset_t changed_signals = every_signal(); // that may have another action than the default

void give_default_actions(const sigset_t& of) {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    for (int signo = 1; signo < NSIG; ++signo)
        if (sigismember(&of, signo) == 1)
            sigaction(signo, &action, nullptr);
}

// In the memory of the parent, which waits until the shell runs or could not be started.
[[noreturn]] void become_shell(const shell_start& how, int* error) {
    sigset_t none;
    sigemptyset(&none);
    if (how.own_group)
        setpgid(0, 0);
    if (how.out >= 0)
        dup2(how.out, STDOUT_FILENO);
    if (how.err >= 0)
        dup2(how.err, STDERR_FILENO);
    give_default_actions(changed_signals);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    exec_shell(how.command);
    *error = errno;
    _exit(1);
}

pid_t start_shell(const shell_start& how, int* error) {
    const pid_t pid = vfork();
    if (pid == 0)
        become_shell(how, error);
    return pid;
}

} // namespace

void exec_shell(const char* command) {
    close_range(FIRST_OWN_FD, UINT_MAX, 0);
    execl(SHELL, "sh", "-c", command, static_cast<char*>(nullptr));
}

// Much cheaper than a fork, whose copy of the page tables the shell would throw away, and safe in a
// process with several threads: no handler runs in the shared memory.
pid_t spawn_shell(const shell_start& how) {
    const sigset_t every = every_signal();
    sigset_t usual;
    int error = 0;
    pthread_sigmask(SIG_SETMASK, &every, &usual);
    const pid_t pid = start_shell(how, &error);
    const int failure = pid == -1 ? errno : error;
    pthread_sigmask(SIG_SETMASK, &usual, nullptr);
    if (pid != -1 && failure != 0)
        waitpid(pid, nullptr, 0);
    if (failure != 0)
        errno = failure;
    return failure == 0 ? pid : -1;
}

void note_signals() {
    sigemptyset(&changed_signals);
    for (int signo = 1; signo < NSIG; ++signo) {
        struct sigaction action {};
        if (sigaction(signo, nullptr, &action) == 0 &&
            (action.sa_handler != SIG_DFL || (action.sa_flags & SA_NOCLDWAIT) != 0))
            sigaddset(&changed_signals, signo);
    }
}

void restore_signals(std::initializer_list<int> kept) {
    sigset_t restored = changed_signals;
    for (const int signo : kept)
        sigdelset(&restored, signo);
    give_default_actions(restored);
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

} // namespace agt

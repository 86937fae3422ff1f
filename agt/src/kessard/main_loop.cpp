// Command loop, signals and shutdown.
//
// Signals stay blocked but at one place in the loop, its pselect and the end of a pass, so the
// handler, which logs, never interrupts code that holds a lock. Until the loop gets there, a
// pending signal makes the main thread's signal descriptor readable, which ends every wait of that
// thread (wait.h): start-up and commands come to their end at once and the loop takes the signal.
#include "main_loop.h"

#include <sys/select.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>

#include "client.h"
#include "cmd_event.h"
#include "handshakes.h"
#include "health_check.h"
#include "log_printf.h"
#include "process_globals.h"
#include "service_manager.h"
#include "shell_start.h"
#include "state_file.h"
#include "tcp_base.h"
#include "tcp_send.h"
#include "threads.h"
#include "tran_agt.h"
#include "util.h"
#include "wait.h"

namespace kessard {
namespace {

constexpr int SELECT_TIMEOUT_MS = 3000;
constexpr int ANSWER_LIMIT_MS = 1000; // longest wait for a peer that does not take its answer
constexpr unsigned int SIGNAL_PASSES =
    16; // passes of a busy loop between two looks at pending signals

sigset_t loop_mask; // the signal mask of the loop's wait

void handle(int signo, void (*handler)(int), int flags) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigfillset(&action.sa_mask);
    sigaction(signo, &action, nullptr);
}

void reap_children() {
    int status = 0;
    pid_t ret = 0;
    do
        ret = waitpid(-1, &status, WNOHANG);
    while (ret > 0);
    agt::say("(%ld) recive sinal... SIGCHLD(%ld)\n", static_cast<long>(getpid()),
             static_cast<long>(ret));
}

void log_signal(int signo) {
    static constexpr struct {
        int signo;
        const char* name;
    } NAMES[] = {
        {SIGHUP, "SIGHUP"}, {SIGINT, "SIGINT"}, {SIGTERM, "SIGTERM"}, {SIGTSTP, "SIGTSTP"}};
    for (const auto& known : NAMES) {
        if (known.signo == signo)
            agt::log_printf(">> received %s signal to terminate!", known.name);
    }
}

// Runs the handlers of pending signals: a wait that finds a descriptor ready does not, so a busy
// peer would keep them off.
void take_pending_signals() {
    sigset_t usual;
    pthread_sigmask(SIG_SETMASK, &loop_mask, &usual);
    pthread_sigmask(SIG_SETMASK, &usual, nullptr);
}

// Serves what one wait found ready: a new connection, the handshakes, and one request of one
// connection. `writable` may be null.
void serve(const fd_set& ready, const fd_set* writable) {
    if (agt_cmd_sockfd >= 0 && FD_ISSET(agt_cmd_sockfd, &ready))
        cmd_new_connection(agt_cmd_sockfd);
    if (agt_cmd_sockfd == -1)
        return;
    step_handshakes(ready, writable, list_cmd_client);
    gather_frames(ready);
    const CMD_CLIENT* client = next_cmd_client();
    if (client != nullptr)
        cmd_event(client);
}

// Closes the sockets of the command port and of the health check.
void close_fd() {
    close_cmd_client();
    close_handshakes();
    if (agt_cmd_sockfd > 0)
        agt::close_tcp_session(agt_cmd_sockfd);
    if (svr_cmd_sockfd > 0)
        agt::close_tcp_session(svr_cmd_sockfd);
}

} // namespace

void install_signals(bool daemon_mode) {
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    if (!daemon_mode)
        sigaddset(&ending, SIGINT);
    sigset_t blocked = ending;
    sigaddset(&blocked, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, daemon_mode ? &ending : &blocked, &loop_mask);
    for (const int signo : {SIGTERM, SIGINT, SIGCHLD, SIGSEGV})
        sigdelset(&loop_mask, signo);

    handle(SIGPIPE, SIG_IGN, 0);
    handle(SIGXFSZ, SIG_IGN, 0); // a limit on the size of files is a write that fails
    handle(SIGTERM, sig_term, 0);
    if (daemon_mode) {
        handle(SIGSEGV, sig_term, 0);
        handle(SIGCHLD, SIG_DFL, SA_NOCLDWAIT); // nobody waits for the children that serve requests
    } else {
        handle(SIGINT, sig_term, 0);
        handle(SIGCHLD, sig_term, 0);
    }
    agt::note_signals();
    agt::set_cancel_fd(signalfd(-1, &ending, SFD_CLOEXEC | SFD_NONBLOCK));
}

void sig_term(int signo) {
    if (signo == SIGSEGV)
        _exit(255);
    const int interrupted_errno = errno;
    if (signo == SIGCHLD) {
        reap_children();
    } else {
        log_signal(signo);
        agt::log_printf("<!> termination start");
        running = 0;
    }
    errno = interrupted_errno;
}

void start() {
    agt::log_printf("[ %s ] start... running : %d", PROGRAM_NAME, running.load());
    notify_service_manager("READY=1");
    agt::set_send_limit(ANSWER_LIMIT_MS);
    const int longest_wait_ms = std::min(SELECT_TIMEOUT_MS, service_watchdog_ms());
    for (unsigned int served = 0; running != 0;) {
        note_pass();
        keep_service_manager_posted();
        fd_set ready = readFds;
        fd_set handshakes;
        int highest = maxFd;
        fd_set* writable = watch_handshakes(&ready, &handshakes, &highest);
        const int left_ms = handshakes_left_ms(frames_left_ms(longest_wait_ms));
        const timespec timeout = {left_ms / 1000, left_ms % 1000 * 1000000L};
        const int ret = pselect(highest + 1, &ready, writable, nullptr, &timeout, &loop_mask);
        if (ret < 0 && errno == EINTR) {
            agt::log_printf("<!> interrupted system call");
            continue;
        }
        if (ret < 0) {
            agt::log_printf("<!> select error, ret : %d", ret);
            return;
        }
        serve(ready, writable);
        if (++served % SIGNAL_PASSES == 0)
            take_pending_signals();
    }
}

void end() {
    agt::set_cancel_fd(-1);
    agt::log_printf("[ %s ] end.. resource clear.", PROGRAM_NAME);
    notify_service_manager("STOPPING=1");
    agt::sleep_ms(1000);
    end_threads();
    close_fd();
    deactivate_process(process_idx);
    agt::log_printf("[ %s ] end.. complete.", PROGRAM_NAME);
    end_thread_figures();
    figure_set(figures->ended, 1);
    agt::close_log();
}

} // namespace kessard

// The daemon after start-up: signals, the command loop, the orderly end.
#pragma once

namespace kessard {

// Installs sig_term for the mode's signals (foreground: SIGTERM, SIGINT, SIGCHLD; daemon: SIGTERM,
// SIGSEGV), blocks all of them but SIGSEGV and makes a pending terminating signal end the main
// thread's waits; SIGPIPE is ignored. Before the first thread starts.
void install_signals(bool daemon_mode);

// The signal handler; runs only inside the command loop's wait, SIGSEGV apart.
void sig_term(int signo);

// The command loop; returns when `running` is 0 or the wait fails.
void start();

// The shutdown, once, after start.
void end();

} // namespace kessard

// kessard, the management daemon: command line, daemon mode, order of life.
#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "init.h"
#include "main_loop.h"
#include "process_globals.h"
#include "state_file.h"
#include "threads.h"
#include "wait.h"

namespace kessard {
namespace {

constexpr int HIGHEST_CLOSED_FD = 255;
constexpr int MAIN_RHYTHM_MS = 3000;
constexpr int MMAP_THRESHOLD_BYTES = 128 * 1024;

[[noreturn]] void help(const char* prog) {
    std::printf("usage: %s [-hvdc:p:]\n", prog);
    std::printf("\t -h: help\n"
                "\t -v: version information\n"
                "\t -d: make daemon\n"
                "\t -c: status log value clear second(s)\n"
                "\t -p: status log print second(s), disable(0)\n"
                "\t -i: process_info idx.(ref. agt.cfg)\n");
    std::exit(0);
}

[[noreturn]] void version() {
    std::printf("kessard v2.0(2013.3.26)\n");
    std::exit(0);
}

// Goes into the background; the working directory stays.
int make_daemon() {
    for (const int signo : {SIGTTIN, SIGTTOU, SIGTSTP})
        std::signal(signo, SIG_IGN);
    const pid_t pid = fork();
    if (pid < 0)
        std::exit(1);
    if (pid > 0)
        std::exit(0);
    std::signal(SIGHUP, SIG_IGN);
    if (setpgid(0, 0) == -1)
        std::exit(1);
    for (int fd = 0; fd <= HIGHEST_CLOSED_FD; ++fd)
        close(fd);
    const int null_fd = open("/dev/null", O_RDWR);
    dup(null_fd);
    dup(null_fd);
    umask(0);
    install_signals(true);
    return 1;
}

// Whether to run in the background.
bool parse_options(int argc, char** argv) {
    bool daemon_mode = false;
    for (int option = 0; (option = getopt(argc, argv, "hvdc:p:i:")) != -1;) {
        switch (option) {
        case 'v':
            version();
        case 'd':
            daemon_mode = true;
            break;
        case 'c':
            clear_time = std::atoi(optarg);
            break;
        case 'p':
            print_time = std::atoi(optarg);
            break;
        case 'i':
            process_idx = std::atoi(optarg);
            break;
        default:
            help(argv[0]);
        }
    }
    return daemon_mode;
}

// Memory of large blocks goes back to the system when it is freed, and threads share two arenas.
void keep_memory_small() {
    mallopt(M_MMAP_THRESHOLD, MMAP_THRESHOLD_BYTES);
    mallopt(M_ARENA_MAX, 2);
}

} // namespace
} // namespace kessard

int main(int argc, char** argv) {
    using namespace kessard;
    running = 1;
    begin_thread_figures(STATE_MAIN, "main", MAIN_RHYTHM_MS);
    figure_now(figures->started_ms);
    figure_set(figures->started_sec, std::time(nullptr));
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    keep_memory_small();
    if (parse_options(argc, argv))
        make_daemon();
    else
        install_signals(false);
    if (init() == 0)
        std::exit(1);
    if (!agt::cancelled()) // by a signal that the loop is about to take
        start_threads();
    start();
    end();
    return exit_status;
}

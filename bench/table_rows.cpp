// A sweep and a watchdog pass over a full trace table, in this process, in processor time.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <csignal>
#include <cstdio>
#include <ctime>

#include "check_ptrc_hash_tbl.h"
#include "check_worker.h"
#include "log_printf.h"
#include "process_globals.h"
#include "rows.h"
#include "settings.h"
#include "trace_table.h"
#include "tran_logf_que_info.h"
#include "worker_cfg.h"

namespace bench {
namespace {

constexpr int ENTRIES = PTRC_HASH_SLOTS;
constexpr int CHECK_EVERYTHING_SEC = 10; // a sweep period that makes every entry due
constexpr int ROUNDS = 11;

double processor_us() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

double cost_ms(const std::function<void()>& work) {
    const double start = processor_us();
    work();
    return (processor_us() - start) / 1000;
}

// Sleeping processes.
class sleepers {
  public:
    explicit sleepers(int count) {
        for (pid_t pid = 0; static_cast<int>(pids_.size()) < count && (pid = fork()) >= 0; pids_.push_back(pid)) {
            if (pid == 0)
                sleep_for_good();
        }
    }
    sleepers(const sleepers&) = delete;
    sleepers& operator=(const sleepers&) = delete;
    ~sleepers() {
        for (const pid_t pid : pids_)
            kill(pid, SIGKILL);
        for (const pid_t pid : pids_)
            waitpid(pid, nullptr, 0);
    }
    const std::vector<pid_t>& pids() const { return pids_; }

  private:
    [[noreturn]] static void sleep_for_good() {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;)
            pause();
    }

    std::vector<pid_t> pids_;
};

double read_stat_files(const std::vector<pid_t>& pids) {
    return cost_ms([&pids] {
        for (const pid_t pid : pids) {
            char path[32];
            char text[512];
            std::snprintf(path, sizeof path, "/proc/%d/stat", pid);
            const int fd = open(path, O_RDONLY | O_CLOEXEC);
            if (fd < 0 || read(fd, text, sizeof text) < 1)
                std::perror(path);
            close(fd);
        }
    });
}

// A log of this process in the directory of an agent.
class own_log {
  public:
    own_log() { agt::open_log(agent_.path("logs/proc/kessard").c_str(), "kessard", 1); }
    own_log(const own_log&) = delete;
    own_log& operator=(const own_log&) = delete;
    ~own_log() { agt::close_log(); }
    bool has(const char* text) const { return agent_.count_log(text) > 0; }

  private:
    test_support::agent agent_;
};

// A full table of entries of these processes, those of one process side by side.
void fill(test_support::trace_table& table, const std::vector<pid_t>& pids) {
    char name[16] = "";
    prctl(PR_GET_NAME, name);
    for (std::size_t i = 0; i < ENTRIES; ++i)
        table.add(name, pids[i * pids.size() / ENTRIES]);
}

figure sweep_over(int processes, const char* name, double limit_ms, int rounds) {
    const own_log log;
    test_support::trace_table table;
    const sleepers alive(processes);
    figure of = {name, "ms", NAN, NAN, NAN, limit_ms, false};
    if (static_cast<int>(alive.pids().size()) < processes)
        return of;
    fill(table, alive.pids());
    samples ours;
    samples bare;
    for (int i = 0; i < rounds && !interrupted(); ++i) {
        ours.push_back(cost_ms(kessard::check_ptrc_hash_tbl));
        bare.push_back(read_stat_files(alive.pids()));
    }
    of.kessard = of.value = log.has("process down") ? NAN : median(ours);
    of.bare = median(bare);
    return of;
}

} // namespace

figures sweep_row(running_agent&) {
    kessard::running = 1;
    kessard::trc_sts_check_period = CHECK_EVERYTHING_SEC;
    return {sweep_over(100, "sweep, 10,000 entries of 100 processes", 20, ROUNDS),
            sweep_over(ENTRIES, "sweep, 10,000 processes (and as many reads)", INFINITY, 1)};
}

figures watchdog_row(running_agent&) {
    const own_log log;
    test_support::trace_table table;
    kessard::running = 1;
    kessard::worker_cfg.worker_mode = kessard::WORKER_MODE_PROCESS;
    kessard::worker_cfg.worker_rest_interval = 3600;
    fill(table, {getpid()});
    samples ours;
    for (int i = 0; i < ROUNDS && !interrupted(); ++i)
        ours.push_back(cost_ms([] { kessard::check_worker_pass(); }));
    const double cost = log.has("send_event") ? NAN : median(ours);
    return {{"watchdog pass, 10,000 entries", "ms", cost, NAN, cost, 10, false}};
}

} // namespace bench

// A sweep and a watchdog pass over the trace table, with so many entries of so many processes.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "check_ptrc_hash_tbl.h"
#include "check_worker.h"
#include "inprocess.h"
#include "settings.h"
#include "trace_table.h"
#include "unique_fd.h"
#include "worker_cfg.h"

namespace bench {
namespace {

constexpr int SIZES[] = {100, 1000, PTRC_HASH_SLOTS};
constexpr int THREADS = 100;             // entries of one process that has threads
constexpr int CHECK_EVERYTHING_SEC = 10; // a sweep period that makes every entry due
constexpr int REST_INTERVAL_SEC = 3600;

// Sleeping processes, made and ended one after the other: ten thousand at once would be a load for
// the whole machine.
class sleepers {
  public:
    explicit sleepers(std::size_t count) {
        while (pids_.size() < count && add()) {
        }
    }
    sleepers(const sleepers&) = delete;
    sleepers& operator=(const sleepers&) = delete;
    ~sleepers() {
        for (const pid_t pid : pids_) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    const std::vector<pid_t>& pids() const { return pids_; }

  private:
    bool add() {
        int asleep[2];
        char byte = 0;
        if (pipe2(asleep, O_CLOEXEC) != 0)
            return false;
        const agt::unique_fd ends[2] = {agt::unique_fd(asleep[0]), agt::unique_fd(asleep[1])};
        const pid_t pid = fork();
        if (pid == 0)
            sleep_for_good(asleep[1]);
        if (pid > 0)
            pids_.push_back(pid);
        return pid > 0 && read(asleep[0], &byte, 1) == 1;
    }

    [[noreturn]] static void sleep_for_good(int asleep) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (write(asleep, "", 1) != 1)
            _exit(1);
        for (;;)
            pause();
    }

    std::vector<pid_t> pids_;
};

// At least so many, the same ones as long as they are enough.
const std::vector<pid_t>& pids_of_sleepers(std::size_t count) {
    static std::optional<sleepers> all;
    if (!all || all->pids().size() < count)
        all.emplace(count);
    return all->pids();
}

// How the entries of a process lie in the used stack.
enum class order { side_by_side, in_turn, shuffled };

// A table of entries of these processes, as dead as an unswept one may be.
class full_table {
  public:
    full_table(int entries, int processes, order by = order::side_by_side) {
        char name[16] = "";
        prctl(PR_GET_NAME, name);
        const std::vector<pid_t>& pids = pids_of_sleepers(static_cast<std::size_t>(processes));
        complete_ = pids.size() >= static_cast<std::size_t>(processes);
        std::vector<int> owners;
        for (int i = 0; i < entries; ++i)
            owners.push_back(by == order::in_turn ? i % processes : i / (entries / processes));
        if (by == order::shuffled)
            std::shuffle(owners.begin(), owners.end(), std::mt19937(1));
        for (const int owner : owners)
            if (complete_)
                table_.add(name, pids[static_cast<std::size_t>(owner)]).isalive = 0;
    }
    bool all_alive() const {
        const unsigned int* first = table_->used.idx;
        return complete_ && std::all_of(first, first + table_->used.top, [this](unsigned int slot) {
                   return table_->h_arr[slot].param.isalive == 1;
               });
    }
    PTRC_HASH_TBL& operator*() const { return *table_; }

  private:
    test_support::trace_table table_;
    bool complete_ = false;
};

void read_stat_file(pid_t pid) {
    char path[32];
    char text[512];
    std::snprintf(path, sizeof path, "/proc/%d/stat", pid);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0 || read(fd, text, sizeof text) < 1)
        std::perror(path);
    close(fd);
}

// One read for each entry of another process than the one before, and one write for each entry.
void bare_sweep(PTRC_HASH_TBL& table) {
    pid_t last = 0;
    for (unsigned int i = 0; i < table.used.top; ++i) {
        PTRC_HASH_ARR& entry = table.h_arr[table.used.idx[i]].param;
        if (entry._pid != last)
            read_stat_file(last = entry._pid);
        entry.isalive = 1;
    }
}

// One comparison for each entry.
int bare_pass(const PTRC_HASH_TBL& table) {
    const std::time_t rested = std::time(nullptr) - REST_INTERVAL_SEC;
    int idle = 0;
    for (unsigned int i = 0; i < table.used.top; ++i)
        idle += table.h_arr[table.used.idx[i]].param.lasted_access < rested ? 1 : 0;
    return idle;
}

void sweep(benchmark::State& state, bool bare, int entries, int processes, order by) {
    kessard::trc_sts_check_period = CHECK_EVERYTHING_SEC;
    const full_table table(entries, processes, by);
    for ([[maybe_unused]] const auto& round : state)
        bare ? bare_sweep(*table) : kessard::check_ptrc_hash_tbl();
    if (!table.all_alive())
        state.SkipWithError("an entry was not found alive");
    empty_log();
}

void pass(benchmark::State& state, bool bare, int entries) {
    kessard::worker_cfg.worker_mode = kessard::WORKER_MODE_PROCESS;
    kessard::worker_cfg.worker_rest_interval = REST_INTERVAL_SEC;
    const full_table table(entries, 1);
    for ([[maybe_unused]] const auto& round : state)
        benchmark::DoNotOptimize(bare ? bare_pass(*table) : kessard::check_worker_pass());
    if (log_text().find("send_event") != std::string::npos)
        state.SkipWithError("an entry was found idle");
    empty_log();
}

std::string name(const char* part, int entries, bool bare) {
    return part + std::to_string(entries) + (bare ? "/bare" : "/kessard");
}

} // namespace

void add_trace_table_benchmarks() {
    for (const int entries : SIZES) {
        for (const bool bare : {false, true}) {
            benchmark::RegisterBenchmark(name("sweep/threads-", entries, bare).c_str(), sweep, bare,
                                         entries, entries / THREADS, order::side_by_side);
            benchmark::RegisterBenchmark(name("sweep/turns-", entries, bare).c_str(), sweep, bare,
                                         entries, entries / THREADS, order::in_turn);
            benchmark::RegisterBenchmark(name("sweep/shuffled-", entries, bare).c_str(), sweep,
                                         bare, entries, entries / THREADS, order::shuffled);
            benchmark::RegisterBenchmark(name("sweep/processes-", entries, bare).c_str(), sweep,
                                         bare, entries, entries, order::side_by_side);
            benchmark::RegisterBenchmark(name("watchdog/pass-", entries, bare).c_str(), pass, bare,
                                         entries);
        }
    }
}

} // namespace bench

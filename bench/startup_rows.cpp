// Rows: start-up, and the daemon without work.
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>

#include "checks.h"
#include "rows.h"
#include "wait.h"

namespace bench {
namespace {

constexpr int STARTS = 7;
constexpr double STARTUP_LIMIT_MS = 50;
constexpr double MEMORY_LIMIT_MB = 60;
constexpr double TOUCHED_LIMIT = 0.5; // of a start that touches every page
constexpr int SETTLE_MS = 2000;
constexpr int IDLE_MS = 10000;
constexpr double IDLE_LIMIT_PERCENT = 0.5;
constexpr double WAKEUPS_LIMIT = 60;
constexpr timespec LOOK_AGAIN = {0, 100000};

struct started {
    double ms; // from before the program is started until it is ready
    double mb; // resident then
};
using start_function = std::function<started(test_support::agent&)>;

double resident_mb(pid_t pid) {
    return std::atof(test_support::status_of(pid, "VmRSS").c_str()) * 1024 / 1e6;
}

started start_kessard(test_support::agent& program) {
    log_end log(program);
    const double start_us = now_us();
    program.start();
    const double ready_us = log.wait_us("start... running");
    const started measured = {(ready_us - start_us) / 1e3, resident_mb(program.pid())};
    program.stop();
    return measured;
}

// What the bare program is told to do with the segments that the daemon makes or finds when it
// starts.
std::vector<std::string> bare_words(const test_support::agent& keys, const std::string& pages) {
    static const std::pair<const char*, std::size_t> OBJECTS[] = {
        {"TRAN_LOGF_QUE_INFO_SHMKEY", sizeof(TRAN_LOGF_QUE_INFO)},
        {"NOTI_SEND_QUE_SHMKEY", sizeof(NOTI_SEND_QUE)},
        {"SVC_HASH_TBL_SHMKEY", sizeof(SVC_HASH_TBL)},
        {"PTRC_HASH_TBL_SHMKEY", sizeof(PTRC_HASH_TBL)},
        {"JCACHE_HASH_TBL_SHMKEY", sizeof(JCACHE_HASH_TBL)},
        {"TRAN_AGT_SHMKEY", sizeof(TRAN_AGT_SHM)}};
    std::vector<std::string> words = {KESSARD_BARE, pages};
    for (const auto& [keyword, size] : OBJECTS) {
        words.push_back(std::to_string(keys.shm_key(keyword)));
        words.push_back(std::to_string(size));
    }
    return words;
}

started start_bare(const test_support::agent& keys, const std::string& pages) {
    const std::vector<std::string> words = bare_words(keys, pages);
    const double start_us = now_us();
    const test_support::process program(words, {});
    const double limit_us = start_us + test_support::LIMIT_MS * 1e3;
    while (program.out().empty() && now_us() < limit_us && !interrupted())
        nanosleep(&LOOK_AGAIN, nullptr);
    return {program.out().empty() ? NAN : (now_us() - start_us) / 1e3, resident_mb(program.pid())};
}

// One way to start: the first time on new objects, the second on existing ones.
struct side {
    start_function start;
    samples ms[2] = {};
    samples mb[2] = {};

    void measure(const running_agent& agent) {
        test_support::agent place;
        agent.configure(place);
        for (const int existing : {0, 1}) {
            const started one = start(place);
            ms[existing].push_back(interrupted() ? NAN : one.ms);
            mb[existing].push_back(interrupted() ? NAN : one.mb);
        }
    }
};

// Nanoseconds that all threads have run, and how often they gave the processor away to wait.
struct activity {
    double run_ns = 0;
    double waits = 0;
};

activity activity_of(pid_t pid) {
    activity sum;
    std::error_code error;
    for (const auto& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
        double thread_ns = 0;
        std::ifstream(task.path() / "schedstat") >> thread_ns;
        sum.run_ns += thread_ns;
        std::ifstream status(task.path() / "status");
        for (std::string word; status >> word;)
            if (word == "voluntary_ctxt_switches:" && status >> thread_ns)
                sum.waits += thread_ns;
    }
    return sum;
}

} // namespace

figures startup_row(running_agent& agent) {
    side kessard = {start_kessard};
    side left = {[](const test_support::agent& keys) { return start_bare(keys, "leave"); }};
    side touched = {[](const test_support::agent& keys) { return start_bare(keys, "touch"); }};
    for (int i = 0; i < STARTS && !interrupted(); ++i)
        for (side* one : {&kessard, &left, &touched})
            one->measure(agent);
    const spread new_ms = spread(kessard.ms[0]);
    const spread existing_ms = spread(kessard.ms[1]);
    const spread new_mb = spread(kessard.mb[0]);
    const spread existing_mb = spread(kessard.mb[1]);
    const auto own = judged::own;
    const auto ratio = judged::ratio;
    return {
        {"start on new objects", "ms", own, STARTUP_LIMIT_MS, false, new_ms, spread(left.ms[0])},
        {"  bare: every page cleared", "ms", ratio, TOUCHED_LIMIT, false, new_ms,
         spread(touched.ms[0])},
        {"start on existing objects", "ms", own, new_ms.middle, false, existing_ms,
         spread(left.ms[1])},
        {"  bare: every page cleared", "ms", ratio, TOUCHED_LIMIT, false, existing_ms,
         spread(touched.ms[1])},
        {"memory after a start on new objects", "MB", own, MEMORY_LIMIT_MB, false, new_mb,
         spread(left.mb[0])},
        {"  bare: every page cleared", "MB", ratio, TOUCHED_LIMIT, false, new_mb,
         spread(touched.mb[0])},
        {"memory after a start on existing ones", "MB", own, MEMORY_LIMIT_MB, false, existing_mb,
         spread(left.mb[1])},
        {"  bare: every page cleared", "MB", ratio, TOUCHED_LIMIT, false, existing_mb,
         spread(touched.mb[1])}};
}

figures idle_row(running_agent& agent) {
    const test_support::process bare({KESSARD_BARE, "waits"}, {});
    const pid_t pids[] = {agent.program.pid(), bare.pid()};
    agt::sleep_ms(SETTLE_MS);
    const double start_us = now_us();
    const activity before[] = {activity_of(pids[0]), activity_of(pids[1])};
    agt::sleep_ms(IDLE_MS);
    const activity after[] = {activity_of(pids[0]), activity_of(pids[1])};
    const double took_us = now_us() - start_us;
    const auto percent = [&](int i) { return (after[i].run_ns - before[i].run_ns) / 10 / took_us; };
    const auto waits = [&](int i) { return (after[i].waits - before[i].waits) * 1e6 / took_us; };
    return {
        {"idle, notify link up", "% of a core", judged::own, IDLE_LIMIT_PERCENT, false, percent(0),
         percent(1)},
        {"wake-ups, notify link up", "1/s", judged::own, WAKEUPS_LIMIT, false, waits(0), waits(1)}};
}

} // namespace bench

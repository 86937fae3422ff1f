// Rows: what is measured inside one process, by a program of its own on Google Benchmark.
#include <sys/wait.h>

#include <nlohmann/json.hpp>

#include "process.h"
#include "rows.h"

namespace bench {
namespace {

constexpr int LIMIT_MS = 180000; // of one program
constexpr double NS_OF_US = 1e3;
constexpr double NS_OF_MS = 1e6;

struct measured_case {
    const char* part; // the row that it belongs to
    const char* name;
    figure of;
    int rounds = 15;
};

const measured_case CASES[] = {
    {"log", "line", {"log line", "us", judged::ratio, 1.5}},
    {"log", "lines", {"100 log lines in one write", "us"}},
    {"request", "settings", {"settings request within one process", "us"}},
    {"table", "insert", {"10,000 services into the table", "ms"}},
    {"table", "dump", {"10,000 services to the log", "ms"}},
    {"sweep", "threads-100", {"sweep, 100 entries of 1 process", "ms"}},
    {"sweep", "threads-1000", {"sweep, 1,000 entries of 10 processes", "ms"}},
    {"sweep", "threads-10000", {"sweep, 10,000 entries of 100 processes", "ms", judged::own, 20}},
    {"sweep", "processes-100", {"sweep, 100 processes", "ms"}},
    {"sweep", "processes-1000", {"sweep, 1,000 processes", "ms"}, 5},
    {"sweep", "processes-10000", {"sweep, 10,000 processes", "ms", judged::ratio, 1.5}, 3},
    {"sweep", "turns-1000", {"sweep, 1,000 entries of 10 processes in turn", "ms"}, 5},
    {"sweep", "turns-10000", {"sweep, 10,000 entries of 100 processes in turn", "ms"}, 3},
    {"sweep", "shuffled-1000", {"sweep, 1,000 entries of 10 processes, shuffled", "ms"}, 5},
    {"sweep", "shuffled-10000", {"sweep, 10,000 entries of 100 processes, shuffled", "ms"}, 3},
    {"watchdog", "pass-100", {"watchdog pass, 100 entries", "ms"}},
    {"watchdog", "pass-1000", {"watchdog pass, 1,000 entries", "ms"}},
    {"watchdog", "pass-10000", {"watchdog pass, 10,000 entries", "ms", judged::own, 10}},
};

bool has_ended(pid_t pid) {
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
           info.si_pid == pid;
}

// What the program prints about the two sides of a case, which it measures in random order; empty
// without its end.
std::string run_case(const running_agent& agent, const measured_case& one) {
    const test_support::process program(
        {KESSARD_INPROCESS, agent.program.home(),
         "--benchmark_filter=^" + std::string(one.part) + "/" + one.name + "/",
         "--benchmark_repetitions=" + std::to_string(one.rounds),
         "--benchmark_enable_random_interleaving=true", "--benchmark_min_time=0.02",
         "--benchmark_format=json"},
        {});
    const bool ended = test_support::wait_until(
        [&] { return interrupted() || has_ended(program.pid()); }, LIMIT_MS);
    return ended && !interrupted() ? program.out() : "";
}

// Not a number when something about it failed.
spread side_of(const nlohmann::json& result, const std::string& side, double unit_ns) {
    samples values;
    for (const auto& run : result.value("benchmarks", nlohmann::json::array())) {
        if (run.value("run_type", "") == "iteration" &&
            run.value("name", "").find("/" + side) != std::string::npos)
            values.push_back(
                (run.value("error_occurred", false) ? NAN : run.value("cpu_time", NAN)) / unit_ns);
    }
    return spread(values);
}

figure measure_case(const running_agent& agent, const measured_case& one) {
    const auto result = nlohmann::json::parse(run_case(agent, one), nullptr, false);
    figure measured = one.of;
    if (!result.is_object())
        return measured;
    const double unit_ns = one.of.unit == "us" ? NS_OF_US : NS_OF_MS;
    measured.kessard = side_of(result, "kessard", unit_ns);
    measured.bare = side_of(result, "bare", unit_ns);
    return measured;
}

figures measure_part(const running_agent& agent, const std::string& part) {
    figures measured;
    for (const measured_case& one : CASES)
        if (part == one.part && !interrupted())
            measured.push_back(measure_case(agent, one));
    return measured;
}

} // namespace

figures log_row(running_agent& agent) {
    return measure_part(agent, "log");
}
figures request_row(running_agent& agent) {
    return measure_part(agent, "request");
}
figures table_row(running_agent& agent) {
    return measure_part(agent, "table");
}
figures sweep_row(running_agent& agent) {
    return measure_part(agent, "sweep");
}
figures watchdog_row(running_agent& agent) {
    return measure_part(agent, "watchdog");
}

} // namespace bench

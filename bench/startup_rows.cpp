// Rows: start-up, and the daemon without work.
#include <cmath>
#include <filesystem>
#include <fstream>

#include "checks.h"
#include "rows.h"
#include "wait.h"

namespace bench {
namespace {

constexpr int STARTS = 7;
constexpr double STARTUP_LIMIT_MS = 50;
constexpr double MEMORY_LIMIT_MB = 60;
constexpr int SETTLE_MS = 2000;
constexpr int IDLE_MS = 10000;
constexpr double IDLE_LIMIT_PERCENT = 0.5;

figure lone(const char* name, const char* unit, double value, double limit) {
    return {name, unit, value, NAN, value, limit, false};
}

// From the start of the program to its command loop.
double start_ms(test_support::agent& program) {
    log_end log(program);
    const double start_us = now_us();
    program.start();
    return (log.wait_us("start... running") - start_us) / 1e3;
}

double resident_mb(const test_support::agent& program) {
    return std::atof(test_support::status_of(program.pid(), "VmRSS").c_str()) * 1024 / 1e6;
}

// Nanoseconds that all threads have run.
double run_ns(pid_t pid) {
    double sum = 0;
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
        double thread_ns = 0;
        std::ifstream(task.path() / "schedstat") >> thread_ns;
        sum += thread_ns;
    }
    return sum;
}

} // namespace

figures startup_row(running_agent&) {
    samples on_new;
    samples on_existing;
    samples new_mb;
    samples existing_mb;
    for (int i = 0; i < STARTS && !interrupted(); ++i) {
        test_support::agent program;
        on_new.push_back(start_ms(program));
        new_mb.push_back(resident_mb(program));
        program.stop();
        on_existing.push_back(start_ms(program));
        existing_mb.push_back(resident_mb(program));
        program.stop();
    }
    return {lone("start on new objects", "ms", median(on_new), STARTUP_LIMIT_MS),
            lone("start on existing objects", "ms", median(on_existing), median(on_new)),
            lone("memory after a start on new objects", "MB", median(new_mb), MEMORY_LIMIT_MB),
            lone("memory after a start on existing ones", "MB", median(existing_mb), MEMORY_LIMIT_MB)};
}

figures idle_row(running_agent& agent) {
    agt::sleep_ms(SETTLE_MS);
    const double start_us = now_us();
    const double start_ns = run_ns(agent.program.pid());
    agt::sleep_ms(IDLE_MS);
    const double used_ns = run_ns(agent.program.pid()) - start_ns;
    return {lone("idle, notify link up", "% of a core", used_ns / 10 / (now_us() - start_us), IDLE_LIMIT_PERCENT)};
}

} // namespace bench

// kessard_bench: the daemon's speed as ratios to bare programs that do the same work, measured in
// one run. Ends with status 1 when something is not within its limit or could not be measured.
#include <sys/utsname.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>

#include "one_processor.h"
#include "rows.h"

namespace bench {
namespace {

constexpr int ATTEMPTS = 3;

struct row {
    const char* name;
    figures (*measure)(running_agent&);
    bool on_one_processor = false; // short exchanges, and both sides of what runs in one process
};
constexpr row ROWS[] = {{"command", command_row, true},
                        {"clients", clients_row, true},
                        {"exec", exec_row, true},
                        {"exec-apart", exec_apart_row},
                        {"services", services_row, true},
                        {"notify", notify_row, true},
                        {"idle", idle_row},
                        {"transfer", transfer_row},
                        {"tls", tls_row, true},
                        {"startup", startup_row},
                        {"log", log_row, true},
                        {"request", request_row, true},
                        {"table", table_row, true},
                        {"sweep", sweep_row, true},
                        {"watchdog", watchdog_row, true}};

std::string file_line(const char* path, const std::string& start) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);)
        if (line.starts_with(start))
            return line.substr(std::min(line.find(": ") + 2, line.size()));
    return {};
}

std::string machine() {
    utsname system{};
    uname(&system);
    return std::to_string(sysconf(_SC_NPROCESSORS_ONLN)) + " x " +
           file_line("/proc/cpuinfo", "model name") + ", Linux " + system.release;
}

std::string load() {
    std::ifstream file("/proc/loadavg");
    std::string text;
    file >> text;
    return text;
}

std::string number(double value) {
    char text[32];
    const double size = std::fabs(value);
    std::snprintf(text, sizeof text, size < 0.1 ? "%.4f" : size < 10 ? "%.2f" : "%.0f", value);
    return std::isnan(value) ? "-" : text;
}

std::string limit(const figure& of) {
    if (std::isinf(of.limit))
        return "";
    return (of.at_least ? ">= " : "<= ") + number(of.limit) +
           (of.by == judged::own ? " " + of.unit : "");
}

void print_table(const figures& measured, const std::string& load_before) {
    std::printf("%s; load before %s, after %s\n\n", machine().c_str(), load_before.c_str(),
                load().c_str());
    std::printf("%-38s %10s %10s %-12s %7s  %-20s\n", "", "kessard", "bare", "", "ratio", "limit");
    for (const figure& one : measured)
        std::printf("%-38s %10s %10s %-12s %7s  %-20s %s\n", one.name.c_str(),
                    number(one.kessard.middle).c_str(), number(one.bare.middle).c_str(),
                    one.unit.c_str(), number(one.ratio()).c_str(), limit(one).c_str(),
                    one.within() ? "ok" : "MISSED");
}

void print_json(const figures& measured, const std::string& load_before) {
    nlohmann::ordered_json rows = nlohmann::ordered_json::array();
    for (const figure& one : measured)
        rows.push_back({{"name", one.name},
                        {"unit", one.unit},
                        {"kessard", one.kessard.middle},
                        {"bare", one.bare.middle},
                        {"ratio", one.ratio()},
                        {"value", one.value().middle},
                        {"value_quartiles", {one.value().low, one.value().high}},
                        {one.at_least ? "at_least" : "at_most", one.limit},
                        {"within", one.within()}});
    const nlohmann::ordered_json all = {{"machine", machine()},
                                        {"load_before", load_before},
                                        {"load_after", load()},
                                        {"figures", rows}};
    std::printf("%s\n", all.dump(2).c_str());
}

bool all_within(const figures& measured) {
    return std::all_of(measured.begin(), measured.end(),
                       [](const figure& one) { return one.within(); });
}

// A row that misses a limit is measured again, as its noise may come from a neighbour.
figures measure_row(const row& of, running_agent& agent) {
    std::optional<one_processor> together;
    if (of.on_one_processor)
        together.emplace(agent.program.pid());
    figures measured;
    for (int i = 0; i < ATTEMPTS && !interrupted() && (i == 0 || !all_within(measured)); ++i) {
        std::cerr << "measuring " << of.name << (i == 0 ? "" : " again") << "\n";
        measured = of.measure(agent);
    }
    return measured;
}

figures measure(const std::vector<std::string>& names, bool keeps_state_file) {
    figures measured;
    running_agent agent(keeps_state_file);
    for (const row& one : ROWS) {
        if (names.empty() || std::find(names.begin(), names.end(), one.name) != names.end())
            for (const figure& of : measure_row(one, agent))
                measured.push_back(of);
    }
    return measured;
}

} // namespace
} // namespace bench

int main(int argc, char** argv) {
    using namespace bench;
    bool json = false;
    bool without_state_file = false;
    std::vector<std::string> names;
    std::vector<std::string> known;
    for (const row& one : ROWS)
        known.push_back(one.name);
    CLI::App app("The daemon's speed against bare programs that do the same work.",
                 "kessard_bench");
    app.add_flag("--json", json, "Print JSON instead of a table");
    app.add_flag("--without-state-file", without_state_file, "Run the daemon without STATE_FILE");
    app.add_option("row", names, "Rows to measure (default: all)")->check(CLI::IsMember(known));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    catch_signals();
    const std::string load_before = load();
    const figures measured = measure(names, !without_state_file);
    if (json)
        print_json(measured, load_before);
    else
        print_table(measured, load_before);
    return all_within(measured) && !interrupted() ? 0 : 1;
}

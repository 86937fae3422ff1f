// The log over midnight, while everything that the daemon does is asked of it.
#include "exchanges.h"

namespace {

using namespace test_support;

// The lines of the file have this date, and times that never go back.
void expect_day(const std::string& file, const std::string& date) {
    std::istringstream lines(content(file));
    std::string latest = date;
    for (std::string line; std::getline(lines, line);) {
        if (line.empty()) // behind a message that ends in a newline
            continue;
        EXPECT_TRUE(line.starts_with(date) && line.substr(0, 14) >= latest) << line;
        latest = line.substr(0, 14);
    }
    EXPECT_GT(latest, date) << file;
}

class LogOverMidnight : public exchanges {};

TEST_F(LogOverMidnight, KeepsTheDaysApart) {
    const std::time_t midnight = std::time(nullptr) + 15;
    const zone_of_midnight zone(midnight);
    const std::string file = a.path("logs/proc/kessard/kessard-%Y-%m-%d-log");
    const std::string yesterday = local_text(file.c_str(), midnight - 1);
    start_running(a);
    std::vector<std::thread> load;
    for (const auto& one : ALL)
        load.emplace_back([&] {
            while (std::time(nullptr) < midnight + 2)
                EXPECT_TRUE((this->*one.second)()) << one.first;
        });
    wait_until([&] { return std::time(nullptr) >= midnight - 1; });
    std::filesystem::rename(yesterday, a.path("renamed")); // lines go on in it
    for (std::thread& one : load)
        one.join();
    EXPECT_FALSE(std::filesystem::exists(yesterday));
    expect_day(a.path("renamed"), local_text("%m-%d ", midnight - 1));
    expect_day(local_text(file.c_str(), midnight), local_text("%m-%d ", midnight));
}

} // namespace

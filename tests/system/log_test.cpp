// The log over midnight, while everything that the daemon does is asked of it.
#include "exchanges.h"

namespace {

using namespace test_support;

// The lines of the file have this date, and times that never go back.
void expect_day(const std::string& file, const std::string& date) {
    texts times;
    std::istringstream lines(content(file));
    for (std::string line; std::getline(lines, line);)
        times.push_back(line.empty() ? times.back() : line.substr(0, 14)); // as a text's own line
    ASSERT_FALSE(times.empty()) << file;
    EXPECT_TRUE(times.front().starts_with(date) && times.back().starts_with(date)) << file;
    EXPECT_TRUE(std::is_sorted(times.begin(), times.end())) << file;
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

// The daily log. Midnight is made to pass for real: the time zone is set so that it is a few seconds away.
#include "log_printf.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "checks.h"

namespace {

using test_support::texts;
using test_support::wait_until;

class Log : public testing::Test {
  protected:
    test_support::agent directory;
    const std::string dir = directory.path("logs/proc/kessard");

    ~Log() override {
        agt::close_log();
        unsetenv("TZ");
        tzset();
    }
    void open() const { EXPECT_EQ(agt::open_log(dir.c_str(), "kessard", 1), 0); }
    std::string file_of(std::time_t when) const {
        char name[32];
        const struct tm local = agt::local_time(when);
        std::strftime(name, sizeof name, "/kessard-%Y-%m-%d-log", &local);
        return dir + name;
    }
    std::string lines_of(std::time_t when) const {
        std::ostringstream text;
        text << std::ifstream(file_of(when)).rdbuf();
        return text.str();
    }
};

TEST_F(Log, WritesLinesOfOneForm) {
    open();
    EXPECT_EQ(agt::open_log("/nowhere", "other", 1), 0); // open already: nothing changes
    agt::log_printf("one %d", 1);
    agt::log_printf("%s", "");
    agt::log_printf("ends in a newline\n");
    agt::log_printf("%s", std::string(5000, 'x').c_str());
    agt::close_log();
    agt::log_printf("dropped");
    EXPECT_EQ(agt::open_log(nullptr, nullptr, 0), 0); // the same file again
    agt::log_printf("appended");
    const std::string log = lines_of(std::time(nullptr));
    EXPECT_TRUE(std::regex_search(log, std::regex("^\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d  one 1\n")));
    const texts wanted = {"one 1", "ends in a newline", "", std::string(4095, 'x'), "appended"};
    EXPECT_EQ(test_support::messages(log), wanted);
}

// A directory that is missing costs one attempt a day; lines are in the file of their day, whenever they are flushed.
TEST_F(Log, ChangesTheFileWithTheFirstLineOfADay) {
    const std::time_t before = std::time(nullptr); // the logger converts a second only once
    wait_until([before] { return std::time(nullptr) != before; });
    const std::time_t midnight = std::time(nullptr) + 3;
    const long west = midnight % 86400; // seconds that local time is behind
    char zone[64];
    std::snprintf(zone, sizeof zone, "TST%02ld:%02ld:%02ld", west / 3600, west / 60 % 60, west % 60);
    setenv("TZ", zone, 1);
    tzset();
    std::filesystem::remove(dir);
    EXPECT_EQ(agt::open_log(dir.c_str(), "kessard", 1), -1);
    std::filesystem::create_directory(dir);
    agt::log_printf("dropped");
    EXPECT_TRUE(std::filesystem::is_empty(dir));
    open();
    agt::log_printf("old day");
    agt::log_batch batch;
    batch.printf("old day too");
    ASSERT_LT(std::time(nullptr), midnight) << "the machine is too slow for this test";
    ASSERT_TRUE(wait_until([&] { return std::time(nullptr) >= midnight; }));
    agt::log_printf("%s", "");
    EXPECT_FALSE(std::filesystem::exists(file_of(midnight)));
    agt::log_printf("new day");
    batch.flush();
    agt::log_printf("new day too");
    EXPECT_NE(file_of(midnight), file_of(midnight - 1));
    EXPECT_NE(lines_of(midnight).find(" 00:00:0"), std::string::npos);
    EXPECT_EQ(test_support::messages(lines_of(midnight)), (texts{"new day", "new day too"}));
    EXPECT_EQ(test_support::messages(lines_of(midnight - 1)), (texts{"old day", "old day too"}));
}

TEST_F(Log, KeepsLinesOfThreadsAndForkedChildrenWhole) {
    open();
    const std::string filler(200, 'a');
    std::atomic<bool> go_on{true};
    std::atomic<std::size_t> written{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&, i] {
            for (; go_on; ++written)
                agt::log_printf("thread %d says %s.", i, filler.c_str());
        });
    constexpr std::size_t CHILDREN = 40;
    for (std::size_t i = 0; i < CHILDREN; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            agt::log_printf("thread 9 says %s.", filler.c_str());
            _exit(0);
        }
        EXPECT_TRUE(wait_until([child] { return waitpid(child, nullptr, WNOHANG) == child; }));
    }
    go_on = false;
    for (std::thread& thread : threads)
        thread.join();
    const texts lines = test_support::messages(directory.log());
    EXPECT_EQ(lines.size(), written + CHILDREN);
    const std::regex whole("thread [0129] says a{200}\\.");
    for (const std::string& line : lines)
        ASSERT_TRUE(std::regex_match(line, whole)) << line;
}

} // namespace

// The log: the form of its lines, and that none is torn.
#include "log_printf.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <regex>
#include <thread>

#include "checks.h"

namespace {

using test_support::texts;
using test_support::wait_until;

class Log : public testing::Test {
  protected:
    test_support::agent directory;
    const std::string dir = directory.path("logs/proc/kessard");

    ~Log() override { agt::close_log(); }
};

TEST_F(Log, WritesLinesOfOneForm) {
    EXPECT_EQ(agt::open_log(dir.c_str(), "kessard", 1), 0);
    EXPECT_EQ(agt::open_log("/nowhere", "other", 1), 0); // open already: nothing changes
    agt::log_printf("one %d", 1);
    agt::log_printf("%s", "");
    agt::log_printf("ends in a newline\n");
    agt::log_printf("%s", std::string(5000, 'x').c_str());
    agt::close_log();
    agt::log_printf("dropped");
    EXPECT_EQ(agt::open_log(nullptr, nullptr, 0), 0); // the same file again
    agt::log_printf("appended");
    const std::string log = directory.log();
    EXPECT_TRUE(std::regex_search(log, std::regex("^\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d  one 1\n")));
    const texts wanted = {"one 1", "ends in a newline", "", std::string(4095, 'x'), "appended"};
    EXPECT_EQ(test_support::messages(log), wanted);
}

TEST_F(Log, KeepsLinesOfThreadsAndForkedChildrenWhole) {
    EXPECT_EQ(agt::open_log(dir.c_str(), "kessard", 1), 0);
    std::atomic<bool> go_on{true};
    std::atomic<std::size_t> written{0};
    const std::string line = "says " + std::string(200, 'a');
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&] {
            for (; go_on; ++written)
                agt::log_printf("%s", line.c_str());
        });
    for (int i = 0; i < 40; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            agt::log_printf("%s", line.c_str());
            _exit(0);
        }
        EXPECT_TRUE(wait_until([child] { return waitpid(child, nullptr, WNOHANG) == child; }));
    }
    go_on = false;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(test_support::messages(directory.log()), texts(written + 40, line));
}

} // namespace

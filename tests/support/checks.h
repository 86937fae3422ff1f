// What several tests look at, and the headers of the system and the library that most tests use.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <thread>

#include "agent_fixture.h"
#include "field.h"
#include "tcp_base.h"
#include "wire/text.h"

namespace test_support {

using texts = std::vector<std::string>;

// The messages of a log: its lines without their time, "MM-DD HH:MM:SS  ".
inline texts messages(const std::string& log) {
    texts found;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);)
        found.push_back(line.size() > 16 ? line.substr(16) : line);
    return found;
}

// Whether the texts occur in the log in this order.
testing::AssertionResult in_order(const std::string& log, const texts& wanted);
testing::AssertionResult in_order(const agent& one, const texts& wanted); // waits for them

// Starts the agent and waits for its command loop and its threads.
void start_running(agent& one, const texts& options = {});

// What is wrong with a table's counts, stacks and chains; empty when it is in order.
std::string table_fault(const SVC_HASH_TBL& table);

// The value of a line of /proc/<pid>/status.
inline std::string status_of(pid_t pid, const std::string& name) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);)
        if (line.starts_with(name + ":"))
            return line.substr(line.find_first_not_of(" \t", name.size() + 1));
    return {};
}

// A local time in the words of strftime().
inline std::string local_text(const char* format, std::time_t when) {
    char text[128];
    return {text, std::strftime(text, sizeof text, format, std::localtime(&when))};
}

// While it lives, that time, which is soon or was just now, is midnight; for what is started, too.
struct zone_of_midnight {
    explicit zone_of_midnight(std::time_t when) {
        const std::time_t west = when - std::time(nullptr) / 86400 * 86400;
        char zone[64];
        std::snprintf(zone, sizeof zone, "TST%ld:%ld:%ld", west / 3600, west / 60 % 60, west % 60);
        setenv("TZ", zone, 1);
        tzset();
    }
    ~zone_of_midnight() {
        unsetenv("TZ");
        tzset();
    }
};

inline std::string host_name() {
    char name[65] = "";
    gethostname(name, sizeof name);
    return name;
}

// What each open descriptor of a process refers to.
inline texts open_files(pid_t pid) {
    texts found;
    std::error_code error;
    const std::string directory = "/proc/" + std::to_string(pid) + "/fd";
    for (const auto& one : std::filesystem::directory_iterator(directory, error))
        found.push_back(std::filesystem::read_symlink(one.path(), error));
    return found;
}

// The ids of the children of a process's first thread, those not yet waited for among them.
inline texts children(pid_t pid) {
    const std::string id = std::to_string(pid);
    std::ifstream file("/proc/" + id + "/task/" + id + "/children");
    return {std::istream_iterator<std::string>(file), {}};
}

// Makes a socket's close a reset.
inline void reset_at_close(int sockfd) {
    const linger at_once = {1, 0};
    setsockopt(sockfd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

// Runs `pass` after `prepare(now)` until both fall into one second, which it returns.
template <class Prepare, class Pass> time_t within_one_second(Prepare prepare, Pass pass) {
    time_t now = 0;
    do {
        now = time(nullptr);
        prepare(now);
        pass();
    } while (time(nullptr) != now);
    return now;
}

template <class T> std::string bytes_of(const T& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

// A zeroed record; pages that nobody touches cost nothing.
template <class T> struct zeroed : std::unique_ptr<T, void (*)(void*)> {
    zeroed()
        : std::unique_ptr<T, void (*)(void*)>(static_cast<T*>(std::calloc(1, sizeof(T))),
                                              std::free) {}
};

} // namespace test_support

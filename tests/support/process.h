// Programs that a test starts: output in memory, waits with a limit, nothing left behind.
#pragma once

#include <sys/types.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "unique_fd.h"
#include "wait.h"

namespace test_support {

inline constexpr int LIMIT_MS = 20000; // of a wait that is expected to end much sooner

// Waits until `condition` holds, looking every few milliseconds; false when the limit ran out.
template <class Condition> bool wait_until(Condition condition, int limit_ms = LIMIT_MS) {
    const long long deadline_ms = agt::monotonic_ms() + limit_ms;
    while (!condition()) {
        if (agt::monotonic_ms() > deadline_ms)
            return false;
        agt::sleep_ms(5);
    }
    return true;
}

inline void pass_time(long long ms) {
    const long long from_ms = agt::monotonic_ms();
    wait_until([&] { return agt::monotonic_ms() - from_ms >= ms; });
}

// What a file holds; empty when it cannot be read.
inline std::string content(const std::string& file) {
    return (std::ostringstream() << std::ifstream(file, std::ios::binary).rdbuf()).str();
}

using environment = std::map<std::string, std::string>; // added to the test's own

// A started program, in a session of its own. What runs there when the object goes is killed.
class process {
  public:
    // Starts argv[0], a path; one that cannot be executed ends with status 127.
    process(const std::vector<std::string>& argv, const environment& variables);
    process(process&&) = default;
    process& operator=(process&&) = delete;
    ~process();

    pid_t pid() const { return pid_; }
    // What it wrote so far.
    std::string out() const { return content("/proc/self/fd/" + std::to_string(out_.get())); }
    std::string err() const { return content("/proc/self/fd/" + std::to_string(err_.get())); }

    // Waits for the end: the exit status, or 128 + the signal. One that is late is killed.
    int wait_exit(int limit_ms = LIMIT_MS);

    // After wait_exit(): takes the process that the program left in its session, having put itself
    // into the background, as the one this object stands for. False when there is none.
    bool follow_background();

    // Processes of the session that have not ended.
    std::vector<pid_t> running() const;

  private:
    agt::unique_fd out_;
    agt::unique_fd err_;
    pid_t pid_ = -1;
    pid_t session_ = -1;
};

struct program_result {
    int status;
    std::string out, err;
};

// Runs a program to its end.
inline program_result run_program(const std::vector<std::string>& argv,
                                  const environment& variables = {}, int limit_ms = LIMIT_MS) {
    process program(argv, variables);
    const int status = program.wait_exit(limit_ms);
    return {status, program.out(), program.err()};
}

} // namespace test_support

// An agent whose calls of the system fail on demand.
#pragma once

#include <sys/mman.h>

#include "exchanges.h"
#include "faults.h"

namespace test_support {

class faulty_agent : public exchanges {
  protected:
    faults::table* table = nullptr;

    void SetUp() override {
        if (FAULTS_LIBRARY[0] == '\0')
            GTEST_SKIP() << "a sanitizer wraps the same calls";
        a.write_file("faults", std::string(sizeof *table, '\0'));
        const agt::unique_fd file(open(a.path("faults").c_str(), O_RDWR | O_CLOEXEC));
        table = static_cast<faults::table*>(
            mmap(nullptr, sizeof *table, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0));
        table->longest_sleep_ms = 20;
        a.variables["KESSARD_FAULTS"] = a.path("faults");
        a.variables["LD_PRELOAD"] = FAULTS_LIBRARY;
    }
    unsigned hits(const std::string& call) const { return table->of[faults::number_of(call)].hits; }
    // Lets a call fail from its `first` time on, every so often; 0: once.
    void set(const std::string& call, int error, unsigned every = 1, unsigned first = 1) {
        faults::fault& one = table->of[faults::number_of(call)];
        one.calls = one.hits = 0;
        one.every = every;
        one.first = first;
        one.error = error;
    }
    void clear() {
        for (faults::fault& one : table->of)
            one.error = 0;
        limit_ms = LIMIT_MS;
    }
    bool ended() const {
        siginfo_t info{};
        return waitid(P_PID, static_cast<id_t>(a.pid()), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid != 0;
    }
};

} // namespace test_support

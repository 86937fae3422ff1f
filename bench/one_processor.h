// Keeps a measurement on one processor.
#pragma once

#include <sched.h>
#include <sys/types.h>

#include <vector>

namespace bench {

// While it lives, all threads of this program and of `other`, and what they start, run on one
// processor: the first that they may use. An exchange is then the sum of the work of its two ends.
// Otherwise it is mostly the time that a sleeping processor takes to wake up, or not, as it
// happens.
class one_processor {
  public:
    explicit one_processor(pid_t other);
    one_processor(const one_processor&) = delete;
    one_processor& operator=(const one_processor&) = delete;
    ~one_processor();

  private:
    cpu_set_t usual_;
    std::vector<pid_t> processes_;
};

} // namespace bench

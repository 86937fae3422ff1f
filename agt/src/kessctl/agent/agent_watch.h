// Looking at an agent again and again, on behalf of many who ask: one look serves all of a second.
#pragma once

#include <memory>
#include <string>

#include "agent/agent_diagnosis.h"
#include "agent/look_history.h"
#include "mutex.h"

namespace kessctl {

inline constexpr int KEEP_SEC = 10; // between two looks that go into the history

struct agent_look {
    agent_snapshot now;
    agent_diagnosis found;
    std::shared_ptr<const look_history> history;
};

class agent_watch {
  public:
    agent_watch(std::string cfg_file, double full_percent)
        : cfg_file_(std::move(cfg_file)), full_percent_(full_percent) {}

    // The agent as it is, or was less than a second ago. Whoever asks while another looks waits for
    // that look.
    std::shared_ptr<const agent_look> look();
    // Looks and adds what it sees to the history; every KEEP_SEC.
    void keep();

  private:
    const std::string cfg_file_;
    const double full_percent_;
    agt::mutex mutex_;
    std::shared_ptr<const agent_look> last_ AGT_GUARDED_BY(mutex_);
    long long last_ms_ AGT_GUARDED_BY(mutex_) = 0;
    std::shared_ptr<const look_history>
        history_ AGT_GUARDED_BY(mutex_) = std::make_shared<look_history>(KEEP_SEC);
};

} // namespace kessctl

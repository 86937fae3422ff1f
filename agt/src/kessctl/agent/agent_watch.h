// Looking at an agent again and again, on behalf of many who ask: one look serves all of a second.
#pragma once

#include <memory>
#include <string>

#include "agent/agent_diagnosis.h"
#include "agent/figure_history.h"
#include "mutex.h"

namespace kessctl {

struct agent_look {
    agent_snapshot now;
    agent_diagnosis found;
    figure_history history; // up to the last call of keep()
};

class agent_watch {
  public:
    agent_watch(std::string cfg_file, double full_percent)
        : cfg_file_(std::move(cfg_file)), full_percent_(full_percent) {}

    // The agent as it is, or was less than a second ago. Whoever asks while another looks waits for
    // that look.
    std::shared_ptr<const agent_look> look();
    // Looks and adds what it sees to the history.
    void keep();

  private:
    const std::string cfg_file_;
    const double full_percent_;
    agt::mutex mutex_;
    std::shared_ptr<const agent_look> last_ AGT_GUARDED_BY(mutex_);
    long long last_ms_ AGT_GUARDED_BY(mutex_) = 0;
    figure_history history_ AGT_GUARDED_BY(mutex_);
};

} // namespace kessctl

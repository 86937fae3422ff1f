// Looking at an agent again and again.
#include "agent/agent_watch.h"

#include <unistd.h>

#include "wait.h"

namespace kessctl {
namespace {

constexpr long long LOOK_MS = 1000;

std::string system_name() {
    char name[65] = "";
    gethostname(name, sizeof name - 1);
    return name;
}

} // namespace

std::shared_ptr<const agent_look> agent_watch::look() {
    const agt::lock_guard lock(mutex_);
    if (last_ == nullptr || agt::monotonic_ms() - last_ms_ >= LOOK_MS) {
        const auto fresh = std::make_shared<agent_look>();
        fresh->now = take_snapshot(cfg_file_);
        if (fresh->now.host.empty())
            fresh->now.host = system_name();
        fresh->found = diagnose(fresh->now, full_percent_);
        fresh->history = history_;
        last_ = fresh;
        last_ms_ = agt::monotonic_ms();
    }
    return last_;
}

void agent_watch::keep() {
    const std::shared_ptr<const agent_look> seen = look();
    const agt::lock_guard lock(mutex_);
    const auto longer = std::make_shared<look_history>(*history_);
    longer->add(seen->now, last_ms_);
    history_ = longer;
}

} // namespace kessctl

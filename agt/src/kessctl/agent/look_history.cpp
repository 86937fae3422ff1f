// What was seen of an agent at one look after another.
#include "agent/look_history.h"

#include <algorithm>
#include <numeric>

namespace kessctl {
namespace {

constexpr double CELL_SEC = 5;
constexpr std::size_t CELLS_KEPT = 360; // an hour, of cells of ten seconds

} // namespace

std::int64_t commands_in_all(const KESSARD_STATE& state) {
    return std::accumulate(
        std::begin(state.commands), std::end(state.commands), std::int64_t{0},
        [](std::int64_t sum, std::int64_t one) { return sum + std::min(one, INT64_MAX - sum); });
}

look_history::look_history(double interval_sec)
    : cell_ms_(static_cast<long long>(std::max(interval_sec, CELL_SEC) * 1000)) {}

// A count that went back is that of another daemon.
void look_history::add_rate(figures& seen, const std::string& figure, std::int64_t count,
                            long long at_ms) {
    const auto before = counts_.find(figure);
    if (before != counts_.end() && count >= before->second && at_ms > at_ms_)
        seen[figure] = static_cast<double>(count - before->second) * 1000 /
                       static_cast<double>(at_ms - at_ms_);
    counts_[figure] = count;
}

void look_history::add(const agent_snapshot& now, long long at_ms) {
    figures seen;
    std::vector<fill_level> fills = now.tables();
    fills.insert(fills.end(), now.queues.begin(), now.queues.end());
    for (const fill_level& fill : fills)
        if (fill.known && fill.fault.empty())
            seen[fill.id] = fill.percent();
    if (now.state.known()) {
        add_rate(seen, "commands", commands_in_all(now.state.values), at_ms);
        add_rate(seen, "notifications", now.state.values.notifications_sent, at_ms);
    } else {
        counts_.clear();
    }
    const long long passed = cells_.empty() ? 1 : at_ms / cell_ms_ - at_ms_ / cell_ms_;
    for (long long i = 0; i < std::min<long long>(passed, CELLS_KEPT); ++i)
        cells_.emplace_back();
    while (cells_.size() > CELLS_KEPT)
        cells_.pop_front();
    for (const auto& [figure, value] : seen)
        cells_.back()[figure] = std::max(cells_.back()[figure], value);
    last_ = std::move(seen);
    at_ms_ = at_ms;
}

std::optional<double> look_history::last(const std::string& figure) const {
    const auto found = last_.find(figure);
    return found == last_.end() ? std::nullopt : std::optional(found->second);
}

std::vector<double> look_history::course(const std::string& figure, std::size_t cells) const {
    std::vector<double> values(cells, -1);
    for (std::size_t back = 1; back <= std::min(cells, cells_.size()); ++back) {
        const figures& cell = cells_[cells_.size() - back];
        const auto found = cell.find(figure);
        if (found != cell.end())
            values[cells - back] = found->second;
    }
    return values;
}

} // namespace kessctl

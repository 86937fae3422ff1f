// What the daemon has counted over the last hour.
#include "agent/figure_history.h"

#include <numeric>

namespace kessctl {

void add_figures(figure_history& history, const agent_snapshot& now) {
    const KESSARD_STATE& values = now.state.values;
    figure_point point;
    point.when = now.taken;
    if (now.state.known()) {
        point.daemon = values.started_ms;
        point.notifications = values.notifications_sent;
        point.commands =
            std::accumulate(std::begin(values.commands), std::end(values.commands), 0LL);
    }
    // A clock that was put back makes what stands behind it worthless.
    while (!history.empty() && history.back().when >= point.when)
        history.pop_back();
    history.push_back(point);
    while (history.front().when < point.when - HISTORY_SEC)
        history.pop_front();
}

std::optional<double> rate_at(const figure_history& history, std::size_t at, counted_figure count) {
    if (at == 0 || at >= history.size())
        return {};
    const figure_point& before = history[at - 1];
    const figure_point& now = history[at];
    if (now.daemon == 0 || now.daemon != before.daemon || now.*count < before.*count)
        return {};
    return static_cast<double>(now.*count - before.*count) /
           static_cast<double>(now.when - before.when);
}

} // namespace kessctl

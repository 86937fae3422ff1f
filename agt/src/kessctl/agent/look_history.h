// What was seen of an agent at one look after another: its figures over the last minutes. The agent
// itself keeps no past.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "agent/agent_snapshot.h"

namespace kessctl {

// Commands of every kind since the daemon's start, at most what the type holds.
std::int64_t commands_in_all(const KESSARD_STATE& state);

class look_history {
  public:
    // Looks come every `interval_sec`. Those of a few seconds make one cell of a course; with
    // longer intervals each look is one.
    explicit look_history(double interval_sec);

    // Takes the figures of a look at this time of the monotonic clock.
    void add(const agent_snapshot& now, long long at_ms);

    // A figure at the last look: how full a table or a queue was, in per cent, by its id; how many
    // "commands" or "notifications" there were a second since the look before. None when it is not
    // known.
    std::optional<double> last(const std::string& figure) const;

    // The highest values of a figure in so many of the last cells, oldest first; -1 where it was
    // not known.
    std::vector<double> course(const std::string& figure, std::size_t cells) const;

    double cell_sec() const { return static_cast<double>(cell_ms_) / 1000; }

  private:
    using figures = std::map<std::string, double>;

    void add_rate(figures& seen, const std::string& figure, std::int64_t count, long long at_ms);

    long long cell_ms_;
    long long at_ms_ = 0; // of the last look
    figures last_;
    std::map<std::string, std::int64_t> counts_; // at the last look, by rate
    std::deque<figures> cells_;
};

} // namespace kessctl

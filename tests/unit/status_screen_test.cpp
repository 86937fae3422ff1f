// The picture of an agent on screens of several sizes.
#include "agent/status_screen.h"

#include "checks.h"

namespace {

using namespace kessctl;
using test_support::texts;

constexpr long long NOW_MS = 1000000;

// A daemon with more of everything than a screen holds; its notifier stands.
agent_snapshot busy_agent() {
    agent_snapshot now;
    now.taken = 1700000000;
    now.daemon.running = true;
    now.state.path = "run/state";
    now.state.read_ms = NOW_MS;
    now.state.values.server_answered_ms = NOW_MS - 12000;
    for (STATE_THREAD& thread : now.state.values.threads)
        thread = {{}, 1, 1000, NOW_MS, 0, 0, 0};
    now.state.values.threads[STATE_NOTIFIER].last_pass_ms -= 100000;
    now.segments.resize(1);
    now.segments[0].id = 0;
    for (const char* id : {"service", "notification", "parse_log_0"})
        now.queues.push_back({std::string("the ") + id, id, true, 0, 100, ""});
    now.processes.resize(80);
    for (int row = 0; row < 80; ++row)
        now.processes[row] = {row, "worker" + std::string(row, 'x'), "", 0, 0, row == 7, row, 9, 0,
                              0};
    now.traced.resize(50);
    return now;
}

std::string draw(const agent_snapshot& now, const look_history& history, const screen_view& view) {
    std::string picture;
    agent_diagnosis found{agent_health::degraded, {}};
    for (int i = 0; i < 20; ++i)
        found.problems.push_back(
            {"problem " + std::to_string(i) + std::string(90, '-') + " end", ""});
    const texts lines = draw_screen(now, found, history, view);
    EXPECT_EQ(lines.size(), view.lines);
    for (const std::string& line : lines) {
        const auto columns = std::count_if(line.begin(), line.end(), [](char c) {
            return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
        });
        EXPECT_LE(static_cast<std::size_t>(columns), view.columns) << line;
        picture += line + "\n";
    }
    return picture;
}

TEST(StatusScreen, UsesTheScreenThatThereIs) {
    const agent_snapshot now = busy_agent();
    const look_history history(2);
    screen_view view;
    view.report.sort = "state";
    const std::string small = draw(now, history, view);
    EXPECT_TRUE(small.starts_with("degraded: kessard\n  ! problem\n    0---"));
    EXPECT_TRUE(test_support::in_order(
        small, {"end\n", " more (kessctl doctor", "answered 12 s ago", "7 of 8 pass; not: notifier",
                "\n\nFigures", "\n\nWorkers: 79 of 80", "... 7", " more\nq quit"}))
        << small;
    view.lines = 50;
    view.columns = 200;
    view.paused = true;
    const std::string large = draw(now, history, view);
    EXPECT_TRUE(
        test_support::in_order(large, {"    notifier           passed 1 min 40 s ago\n",
                                       "Traced: 50", "\n!   7  workerxxxxxxx ", ", PAUSED\n"}))
        << large;
    for (view.lines = 1; view.lines < 40; ++view.lines)
        for (view.columns = 1; view.columns < 100; view.columns += 9)
            draw(now, history, view);
}

TEST(StatusScreen, ShowsTheLastMinutes) {
    agent_snapshot now = busy_agent();
    look_history history(2);
    for (const int percent : {0, 50, 100}) {
        now.queues[1].used = static_cast<unsigned long>(percent);
        now.state.values.commands['A'] = 2 * percent;
        history.add(now, NOW_MS + 1000 * percent / 10);
    }
    const screen_view view = {50, 80, 2, {}, true, false, false};
    const std::string picture = draw(now, history, view);
    EXPECT_TRUE(
        test_support::in_order(picture, {"  commands                 20.0 /s  200 in all ", " ██\n",
                                         " 0.0 /s", "the notification ", "100.0 %", " ▁▅█\n"}))
        << picture;
    now.state.values.commands['A'] = 1; // another daemon
    history.add(now, NOW_MS + 12000);
    EXPECT_FALSE(history.last("commands"));
    EXPECT_EQ(history.course("commands", 3), (std::vector<double>{-1, 20, 20}));
}

} // namespace

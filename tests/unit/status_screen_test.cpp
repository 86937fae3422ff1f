// The picture of an agent on screens of several sizes.
#include "agent/status_screen.h"

#include "checks.h"

namespace {

using namespace kessctl;

constexpr std::size_t A_CODE = 'A'; // of a command

// An agent with more of everything than a screen holds, whose notifier stands.
TEST(StatusScreen, UsesTheScreenThatThereIs) {
    agent_snapshot now;
    now.daemon.running = true;
    now.state.path = "run/state";
    now.state.read_ms = 1000000;
    now.state.values.server_answered_ms = now.state.read_ms - 12000;
    for (STATE_THREAD& thread : now.state.values.threads)
        thread = {{}, 1, 1000, now.state.read_ms, 0, 0, 0};
    now.state.values.threads[STATE_NOTIFIER].last_pass_ms -= 100000;
    now.segments.resize(1);
    now.segments[0].id = 0;
    now.queues = {{"queue", "notification", true, 0, 100, ""}};
    now.processes.resize(80);
    for (process_row& one : now.processes) {
        one.program = "worker";
        one.row = 1;
    }
    now.processes[7].row = 0;
    now.processes[7].wanted = 1;
    now.traced.resize(50);
    const agent_diagnosis found = {agent_health::degraded,
                                   {20, {"a " + std::string(90, '-') + " end", ""}}};
    look_history history(2);
    for (const int percent : {0, 50, 100}) {
        now.queues[0].used = static_cast<unsigned long>(percent);
        now.state.values.commands[A_CODE] = 2 * percent;
        history.add(now, percent * 100);
    }
    screen_view view;
    view.wide_glyphs = true;
    const auto picture = [&] {
        std::string all;
        const std::vector<std::string> lines = draw_screen(now, found, history, view);
        EXPECT_EQ(lines.size(), view.lines);
        for (const std::string& line : lines) {
            all += line + "\n";
            const auto is_start = [](char c) { return (static_cast<unsigned char>(c) >> 6) != 2; };
            EXPECT_LE(std::count_if(line.begin(), line.end(), is_start), view.columns) << line;
        }
        return all;
    };
    EXPECT_TRUE(test_support::in_order(
        picture(), {"degraded: kessard\n  ! a\n", "end\n", "... 19 more", "answered 12 s ago",
                    "7 of 8 pass; not: notifier", "\n\nFigures", "20.0 /s  200 in all  ", " ██\n",
                    "0.0 /s", "100.0 %", " ▁▅█\n", "\nWorkers: 79 of 80", " more\nq quit"}))
        << picture();
    view.lines = 50;
    view.columns = 200;
    EXPECT_TRUE(test_support::in_order(picture(), {"notifier           passed 1 min 40 s ago\n",
                                                   "Traced: 50", "\n!   0 ", " more\nq quit"}))
        << picture();
    for (view.lines = 1; view.lines < 40; ++view.lines)
        for (view.columns = 1; view.columns < 100; view.columns += 9)
            picture();
    now.state.values.commands[A_CODE] = 1; // another daemon
    history.add(now, 12000);
    EXPECT_FALSE(history.last("commands"));
}

} // namespace

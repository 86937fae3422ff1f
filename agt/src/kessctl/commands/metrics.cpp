// kessctl metrics: the figures of an agent for Prometheus, to standard output or to a textfile
// collector's file.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "agent/status_report.h"
#include "commands/commands.h"
#include "host/new_file.h"

namespace kessctl {
namespace {

// Replaces the file in one step. Empty, or what went wrong.
std::string replace_file(const std::string& path, const std::string& text) {
    constexpr mode_t readable_by_all = 0644;
    new_file file(path);
    const bool done = file.valid() && file.write(text.data(), text.size()) &&
                      file.finish(readable_by_all) && file.take_name();
    return done ? "" : path + ": " + std::strerror(errno);
}

struct metrics_options {
    look_options look;
    std::string output;
};

exit_status write_metrics(const metrics_options& chosen) {
    const agent_snapshot now = take_snapshot(chosen.look.cfg_file);
    const std::string text = status_metrics(now, diagnose(now, chosen.look.full_percent));
    if (chosen.output.empty())
        std::fwrite(text.data(), 1, text.size(), stdout);
    const std::string wrong = chosen.output.empty() ? "" : replace_file(chosen.output, text);
    if (!wrong.empty())
        return complain(wrong);
    return now.cfg_fault.empty() ? EXIT_OK : complain(now.cfg_fault);
}

} // namespace

void add_metrics(CLI::App& app, exit_status* status) {
    const auto chosen = std::make_shared<metrics_options>();
    CLI::App* command = app.add_subcommand(
        "metrics", "Print the figures of an agent for Prometheus (text format 0.0.4)");
    add_look_options(*command, chosen->look);
    command->add_option(
        "--output", chosen->output,
        "File to replace in one step, for a textfile collector (default: standard output)");
    command->footer("Exit status: 0 the figures are written, also those of an agent that does not "
                    "run (kessard_up 0); "
                    "2 the configuration cannot be read (kessard_up 0 and kessard_config_readable "
                    "0 are written all "
                    "the same, so that no old figures stay) or the file cannot be written.");
    command->callback([chosen, status] { *status = write_metrics(*chosen); });
}

} // namespace kessctl

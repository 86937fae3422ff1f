// kessctl metrics: the figures of an agent for Prometheus, to standard output or to a textfile
// collector's file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "agent/status_report.h"
#include "commands/commands.h"
#include "unique_fd.h"

namespace kessctl {
namespace {

// Replaces the file in one step: whoever reads it sees the old text or the new. Empty, or what went
// wrong.
std::string replace_file(const std::string& path, const std::string& text) {
    std::string unfinished = path + ".XXXXXX"; // in the same directory, and not *.prom
    const agt::unique_fd file(mkostemp(unfinished.data(), O_CLOEXEC));
    if (!file.valid())
        return path + ": " + std::strerror(errno);
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = write(file.get(), text.data() + done, text.size() - done);
        if (written < 0 && errno != EINTR)
            break;
        done += written < 0 ? 0 : static_cast<std::size_t>(written);
    }
    constexpr mode_t readable_by_all = 0644;
    if (done == text.size() && fchmod(file.get(), readable_by_all) == 0 &&
        std::rename(unfinished.c_str(), path.c_str()) == 0)
        return {};
    const std::string wrong = path + ": " + std::strerror(errno);
    unlink(unfinished.c_str());
    return wrong;
}

struct metrics_options {
    look_options look;
    std::string output;
};

exit_status write_metrics(const metrics_options& chosen) {
    const agent_snapshot now = take_snapshot(chosen.look.cfg_file);
    const std::string text = status_metrics(now, judge(now, chosen.look.full_percent));
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
                    "run (kessard_up 0);\n"
                    "2 the configuration cannot be read (kessard_up 0 and kessard_config_readable "
                    "0 are written all\n"
                    "the same, so that no old figures stay) or the file cannot be written.");
    command->callback([chosen, status] { *status = write_metrics(*chosen); });
}

} // namespace kessctl

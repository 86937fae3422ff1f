// kessctl status: one look at an agent, or one after another.
#include <sys/signalfd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <memory>

#include "agent/status_report.h"
#include "commands/commands.h"
#include "commands/terminal.h"
#include "commands/watch.h"
#include "unique_fd.h"
#include "wait.h"

namespace kessctl {
namespace {

struct status_options {
    look_options look;
    bool json = false;
    double interval_sec = 0; // 0: one look
    report_options report;
};

exit_status look_once(const status_options& chosen, std::string* out) {
    const agent_snapshot now = take_snapshot(chosen.look.cfg_file);
    const agent_diagnosis found = diagnose(now, chosen.look.full_percent);
    *out = chosen.json ? status_json(now, found, chosen.report)
                       : status_text(now, found, chosen.report);
    return static_cast<exit_status>(found.health);
}

std::string watch_head(const status_options& chosen) {
    char time[32];
    char head[96];
    struct tm local {};
    const time_t now = std::time(nullptr);
    localtime_r(&now, &local);
    std::strftime(time, sizeof time, "%F %T", &local);
    std::snprintf(head, sizeof head, "%s, every %g s\n", time, chosen.interval_sec);
    return head;
}

// Looks again and again until a signal asks for the end, for readers that are no terminal.
exit_status watch(const status_options& chosen) {
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    sigprocmask(SIG_BLOCK, &ending, nullptr);
    const agt::unique_fd signals(signalfd(-1, &ending, SFD_CLOEXEC));
    agt::set_cancel_fd(signals.get());
    exit_status status = EXIT_OK;
    do {
        std::string text;
        status = look_once(chosen, &text);
        text = watch_head(chosen) + text + "\n";
        std::fwrite(text.data(), 1, text.size(), stdout);
        std::fflush(stdout);
    } while (agt::sleep_ms(static_cast<int>(chosen.interval_sec * 1000)));
    return status;
}

exit_status show_status(status_options& chosen) {
    chosen.report.services = chosen.report.services || !chosen.report.filter.empty();
    chosen.report.colour = wants_colour();
    if (chosen.interval_sec > 0)
        return draws_on_terminal()
                   ? watch_on_screen(chosen.look, chosen.report, chosen.interval_sec)
                   : watch(chosen);
    std::string text;
    const exit_status status = look_once(chosen, &text);
    std::fwrite(text.data(), 1, text.size(), stdout);
    return status;
}

} // namespace

void add_status(CLI::App& app, exit_status* status) {
    const auto chosen = std::make_shared<status_options>();
    CLI::App* command =
        app.add_subcommand("status", "Show how an agent is doing, without touching it");
    add_look_options(*command, chosen->look);
    CLI::Option* json = command->add_flag("--json", chosen->json, "Everything as one JSON object");
    command
        ->add_option("--watch", chosen->interval_sec,
                     "Look again every so many seconds (2 without a number)")
        ->expected(0, 1)
        ->default_str("2")
        ->check(CLI::Range(0.1, 86400.0))
        ->excludes(json);
    command->add_flag("--services", chosen->report.services, "List the services");
    command->add_option(
        "--filter", chosen->report.filter,
        "Only services with this text in their id, host or server; implies --services");
    command
        ->add_option("--sort", chosen->report.sort,
                     "Order of the services: id, host, limit (highest first) or slot")
        ->check(CLI::IsMember({"id", "host", "limit", "slot"}))
        ->capture_default_str();
    command->add_flag("--traces", chosen->report.all_traces, "List the traced processes");
    command->add_flag("--all", chosen->report.all,
                      "Everything, each thread, process, queue and object, not only what fits a "
                      "screen");
    command->footer("Exit status: 0 all is well, 1 something is wrong (the output says what), 2 no "
                    "daemon runs for this "
                    "configuration, whatever it left behind, or the configuration cannot be read. "
                    "With --watch, that "
                    "of the last look; it draws one screen with the agent's last minutes, whose "
                    "last line tells the "
                    "keys, and adds one block of lines after another where the output is no "
                    "terminal.");
    command->callback([chosen, status] { *status = show_status(*chosen); });
}

} // namespace kessctl

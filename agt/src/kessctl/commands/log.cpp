// kessctl log: the daily log of an agent.
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>

#include "agent/daily_log.h"
#include "commands/commands.h"
#include "commands/terminal.h"
#include "unique_fd.h"
#include "wait.h"
#include "wire/text.h"

namespace kessctl {
namespace {

constexpr int FOLLOW_POLL_MS = 200;
constexpr std::size_t MESSAGES_SHOWN = 10;
constexpr std::size_t YEAR_SIZE = 5; // of a time, "2026-"

struct log_options {
    std::string cfg_file = default_cfg_file();
    std::optional<std::size_t> count;
    std::string since; // as given
    std::string level; // the least; empty: none
    bool follow = false;
    bool json = false;
    bool colour = false;
};

log_level least_level(const log_options& chosen) {
    return chosen.level == "warning" ? log_level::warning
           : chosen.level == "info"  ? log_level::info
                                     : log_level::unmarked;
}

std::string time_text(const struct tm& local) {
    char text[64];
    return {text, std::strftime(text, sizeof text, "%F %T", &local)};
}

// "10m": how many seconds ago; -1 when the text is nothing of the kind.
long seconds_of(const std::string& text) {
    constexpr char UNITS[] = "smhd";
    constexpr long SECONDS[] = {1, 60, 3600, 86400};
    const std::size_t digits = text.find_first_not_of("0123456789");
    if (digits == 0 || digits > 6 || digits + 1 != text.size())
        return -1;
    const std::size_t unit = std::string_view(UNITS).find(text[digits]);
    return unit == std::string_view::npos ? -1 : std::stol(text) * SECONDS[unit];
}

// A time that exists, or one of today without its day, as text; empty when it is none.
std::string absolute_time(const std::string& text, const struct tm& today) {
    for (const char* format : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M",
                               "%Y-%m-%dT%H:%M", "%Y-%m-%d", "%H:%M:%S", "%H:%M"}) {
        struct tm time = today;
        time.tm_hour = time.tm_min = time.tm_sec = 0;
        time.tm_isdst = -1;
        const char* end = strptime(text.c_str(), format, &time);
        const int day = time.tm_mday; // of a month that may have no such day
        if (end != nullptr && *end == '\0' && mktime(&time) != -1 && time.tm_mday == day)
            return time_text(time);
    }
    return "";
}

// What --since says, as the log has times; empty when it says nothing.
std::string since_time(const std::string& given) {
    const long ago_sec = seconds_of(given);
    struct tm local {};
    const time_t when = std::time(nullptr) - std::max(ago_sec, 0L);
    localtime_r(&when, &local);
    return ago_sec < 0 ? absolute_time(given, local) : time_text(local);
}

// "2026-11-23T10:00:00+01:00", by the time zone of this process.
std::string time_with_zone(const std::string& text) {
    struct tm time {};
    char zone[16] = "";
    time.tm_isdst = -1;
    if (strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &time) == nullptr || mktime(&time) == -1)
        return text;
    std::strftime(zone, sizeof zone, "%z", &time);
    return text.substr(0, 10) + "T" + text.substr(11) + std::string(zone).insert(3, ":");
}

std::string json_line(const log_entry& entry) {
    constexpr const char* NAMES[] = {nullptr, "info", "warning"};
    nlohmann::ordered_json line;
    if (!entry.time.empty())
        line["time"] = time_with_zone(entry.time);
    if (entry.level != log_level::unmarked)
        line["level"] = NAMES[static_cast<int>(entry.level)];
    line["text"] = entry.text.substr(0, entry.text.find_last_not_of('\n') + 1);
    return line.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace);
}

std::string text_line(const log_entry& entry, bool colour) {
    const std::string text = printable(entry.text, "\n");
    if (entry.time.empty())
        return text;
    const std::string time = entry.time.substr(YEAR_SIZE) + "  ";
    if (!colour)
        return time + text;
    const bool warning = entry.level == log_level::warning;
    return "\x1b[2m" + time + "\x1b[0m" + (warning ? "\x1b[33m" + text + "\x1b[0m" : text);
}

void print_entries(log_reader& reader, const log_options& chosen) {
    for (log_entry entry; reader.next(&entry);) {
        if (entry.level < least_level(chosen))
            continue;
        const std::string line = chosen.json ? json_line(entry) : text_line(entry, chosen.colour);
        std::fwrite(line.data(), 1, line.size(), stdout);
        std::putchar('\n');
    }
    std::fflush(stdout);
}

// Prints what comes until a signal asks for the end or nobody reads it any more.
void follow(log_reader& reader, const log_options& chosen) {
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    sigprocmask(SIG_BLOCK, &ending, nullptr);
    const agt::unique_fd signals(signalfd(-1, &ending, SFD_CLOEXEC));
    agt::set_cancel_fd(signals.get());
    constexpr short only_its_end = 0;
    do
        print_entries(reader, chosen);
    while (reader.fault().empty() && std::ferror(stdout) == 0 &&
           agt::wait_fd(STDOUT_FILENO, only_its_end, FOLLOW_POLL_MS) ==
               agt::wait_result::timed_out);
}

exit_status unreadable(const std::string& fault) {
    return complain("the log cannot be read: " + fault);
}

exit_status show_log(log_options& chosen) {
    const char* home = std::getenv("TRAN_AGT_HOME");
    agt::config_file file;
    const std::string wrong = open_cfg(chosen.cfg_file, "give --config", &file);
    if (!wrong.empty())
        return complain(wrong);
    if (cfg_value(chosen.cfg_file, agt::config_key_of("COMMON", "LOG_HOME")).empty())
        return complain(chosen.cfg_file + " has no LOG_HOME in section [COMMON]");
    const std::string directory = log_directory(chosen.cfg_file, home == nullptr ? "" : home);
    log_start start{chosen.since.empty() ? "" : since_time(chosen.since), chosen.count,
                    least_level(chosen)};
    if (start.since.empty() && !start.count)
        start.count = MESSAGES_SHOWN;
    log_reader reader(directory, chosen.follow);
    const std::string fault = reader.open(start);
    if (!fault.empty())
        return unreadable(fault);
    if (!reader.has_file())
        std::fprintf(stderr, "kessctl: no log in %s yet, waiting for one\n", directory.c_str());
    chosen.colour = wants_colour();
    if (chosen.follow)
        follow(reader, chosen);
    else
        print_entries(reader, chosen);
    return reader.fault().empty() ? EXIT_OK : unreadable(reader.fault());
}

} // namespace

void add_log(CLI::App& app, exit_status* status) {
    const auto chosen = std::make_shared<log_options>();
    CLI::App* command = app.add_subcommand("log", "Show the daily log of an agent on this host");
    const CLI::Validator is_time(
        [](const std::string& text) {
            return since_time(text).empty()
                       ? "'" + text + "' is no time; say 10m, 2h, 3d, '2026-11-23 10:00' or 10:00"
                       : "";
        },
        "");
    add_cfg_option(*command, chosen->cfg_file);
    command->add_option("-n,--lines", chosen->count,
                        "The last so many messages (default: 10, with --since all)");
    command
        ->add_option("--since", chosen->since,
                     "Messages from then on: so long ago (10m; s, m, h or d), a time of today "
                     "(10:00) or any (2026-11-23, '2026-11-23 10:00'), also of earlier days' "
                     "files")
        ->check(is_time);
    command
        ->add_option("--level", chosen->level,
                     "Only messages of this level and above, by the mark they begin with: info "
                     "((i), (I), >>, <!>) or warning (<!>)")
        ->check(CLI::IsMember({"info", "warning"}));
    command->add_flag("--follow", chosen->follow,
                      "Go on with what is written, over midnight too, until it is interrupted");
    command->add_flag("--json", chosen->json,
                      "One JSON object a message: time with year and zone, level, text");
    command->footer("A message is a line with a time and the lines behind it without one. Exit "
                    "status: 0 done, 2 the log or the configuration cannot be read.");
    command->callback([chosen, status] { *status = show_log(*chosen); });
}

} // namespace kessctl

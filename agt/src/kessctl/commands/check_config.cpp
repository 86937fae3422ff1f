// kessctl check-config.
#include "commands/commands.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <utility>

#include "commands/columns.h"
#include "commands/json_output.h"
#include "config/check_config.h"
#include "config/check_values.h"
#include "wait.h"

namespace kessctl {
namespace {

constexpr int ADDRESS_PAUSE_MS = 500;

struct check_options {
    std::string cfg_file = default_cfg_file();
    bool strict = false;
    bool wait = false;
    bool json = false;
};

const char* name_of(severity level) {
    return level == severity::error ? "error" : level == severity::warning ? "warning" : "note";
}

long count(const std::vector<finding>& found, severity level) {
    return std::count_if(found.begin(), found.end(),
                         [level](const finding& one) { return one.level == level; });
}

void print_text(const std::string& path, const std::vector<finding>& found) {
    for (const finding& one : found)
        std::fputs(fitted(STDOUT_FILENO, path + ":" + std::to_string(one.line) + ": " +
                                             name_of(one.level) + ": " + one.key + ": " + one.what +
                                             (one.allowed.empty() ? "" : ", allowed: ") +
                                             one.allowed)
                       .c_str(),
                   stdout);
    std::printf("%s: %zu keys checked, errors: %ld, warnings: %ld\n", path.c_str(),
                agt::CONFIG_KEYS.size(), count(found, severity::error),
                count(found, severity::warning));
}

void print_as_json(const std::string& path, const std::vector<finding>& found) {
    nlohmann::ordered_json all = {{"file", path},
                                  {"errors", count(found, severity::error)},
                                  {"warnings", count(found, severity::warning)},
                                  {"findings", nlohmann::ordered_json::array()}};
    for (const finding& one : found)
        all["findings"].push_back({{"line", one.line},
                                   {"severity", name_of(one.level)},
                                   {"key", one.key},
                                   {"what", one.what},
                                   {"allowed", one.allowed}});
    print_json(all);
}

// Opens the file, again and again while this host has not its IP_ADDRESS, which may come or be
// corrected meanwhile. Empty on success, else why not.
std::string open_with_address(const check_options& chosen, agt::config_file* file) {
    std::string missing;
    while (true) {
        const std::string wrong = open_cfg(chosen.cfg_file, "name one", file);
        if (!wrong.empty() || !chosen.wait)
            return wrong;
        const std::string address = file->value_of(agt::config_key_of("TRAN_AGENT", "IP_ADDRESS"));
        if (!is_foreign_address(address))
            return "";
        if (address != std::exchange(missing, address))
            std::fprintf(stderr, "kessctl: waiting until this host has the address %s\n",
                         address.c_str());
        agt::sleep_ms(ADDRESS_PAUSE_MS);
    }
}

exit_status check(const check_options& chosen) {
    agt::config_file file;
    const std::string wrong = open_with_address(chosen, &file);
    if (!wrong.empty())
        return complain(wrong);
    const char* home = std::getenv("TRAN_AGT_HOME");
    const std::vector<finding> found = check_config(file, home == nullptr ? "" : home);
    (chosen.json ? print_as_json : print_text)(chosen.cfg_file, found);
    const bool bad =
        count(found, severity::error) > 0 || (chosen.strict && count(found, severity::warning) > 0);
    return bad ? EXIT_REFUSED : EXIT_OK;
}

} // namespace

void add_check_config(CLI::App& app, exit_status* status) {
    const auto chosen = std::make_shared<check_options>();
    CLI::App* command = app.add_subcommand(
        "check-config", "Check everything that the daemon reads from its configuration");
    command->add_option("FILE", chosen->cfg_file,
                        "Configuration file (default: TRAN_AGT_CFG_FILE)");
    command->add_flag("--strict", chosen->strict, "Count warnings as errors");
    command->add_flag("--wait", chosen->wait,
                      "First wait, as long as it takes, until this host has IP_ADDRESS");
    add_json_flag(*command, chosen->json);
    command->footer("A finding is FILE:LINE: error|warning|note: KEY: what, allowed: values. "
                    "Relative paths are taken "
                    "under TRAN_AGT_HOME. Exit status 0 without errors, 1 with errors, 2 when the "
                    "file cannot be read.");
    command->callback([chosen, status] { *status = check(*chosen); });
}

} // namespace kessctl

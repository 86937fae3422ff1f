// The subcommands of kessctl.
#pragma once

#include "commands/agent_options.h"

namespace kessctl {

// Each adds its subcommand to `app`, which stores its outcome in *status when it was the one
// chosen.
void add_serve(CLI::App& app, exit_status* status);
void add_renew(CLI::App& app, exit_status* status);
void add_set_config(CLI::App& app, exit_status* status);
void add_set_resource(CLI::App& app, exit_status* status);
void add_services(CLI::App& app, exit_status* status);
void add_show(CLI::App& app, exit_status* status);
void add_status(CLI::App& app, exit_status* status);
void add_metrics(CLI::App& app, exit_status* status);
void add_put_notification(CLI::App& app, exit_status* status);
void add_put_trace(CLI::App& app, exit_status* status);
void add_show_events(CLI::App& app, exit_status* status);
void add_exec(CLI::App& app, exit_status* status);
void add_put(CLI::App& app, exit_status* status);
void add_get(CLI::App& app, exit_status* status);
void add_check_config(CLI::App& app, exit_status* status);
void add_doctor(CLI::App& app, exit_status* status);
void add_clean(CLI::App& app, exit_status* status);

} // namespace kessctl

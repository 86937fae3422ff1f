// The subcommands of kessctl.
#pragma once

#include "commands/agent_options.h"

namespace kessctl {

// Adds its subcommand to `app`, which stores its outcome in *status when it was the one chosen.
using subcommand = void(CLI::App& app, exit_status* status);
subcommand add_serve;
subcommand add_renew;
subcommand add_set_config;
subcommand add_set_resource;
subcommand add_services;
subcommand add_show;
subcommand add_status;
subcommand add_metrics;
subcommand add_log;
subcommand add_exporter;
subcommand add_put_notification;
subcommand add_put_trace;
subcommand add_show_events;
subcommand add_exec;
subcommand add_put;
subcommand add_get;
subcommand add_check_config;
subcommand add_doctor;
subcommand add_new_agent;
subcommand add_clean;

// All of them, in the order of the help text.
inline constexpr subcommand* SUBCOMMANDS[] = {add_serve,
                                              add_renew,
                                              add_set_config,
                                              add_set_resource,
                                              add_services,
                                              add_show,
                                              add_status,
                                              add_metrics,
                                              add_log,
                                              add_exporter,
                                              add_put_notification,
                                              add_put_trace,
                                              add_show_events,
                                              add_exec,
                                              add_put,
                                              add_get,
                                              add_check_config,
                                              add_doctor,
                                              add_new_agent,
                                              add_clean};

} // namespace kessctl

// kessctl status --watch on a terminal.
#pragma once

#include "agent/status_report.h"
#include "commands/agent_options.h"

namespace kessctl {

// Draws one picture after another until `q` or a signal asks for the end; the terminal is left as
// it was. The outcome is that of the last look.
exit_status watch_on_screen(const look_options& look, const report_options& report,
                            double interval_sec);

} // namespace kessctl

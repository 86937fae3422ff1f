// Services written as text, one per line:
//
//     SERVICE_ID [key=value ...]     # the rest of a line behind a '#' is a comment
//
// Keys: host, server, limit (seconds), depth, call_limit, dbio_limit, sql_limit, flags (log-type
// letters), tflag, mode.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "kessard/cmd_msg.h"

namespace kessctl {

// A service of this id with every number 0 and mode 'A'; an id longer than its field is cut.
SERVICE_ELEMENT make_service(std::string_view service_id);

// Reads the words of one service. Empty on success, else what is wrong; `out` is not to be used
// then.
[[nodiscard]] std::string parse_service(const std::vector<std::string>& words,
                                        SERVICE_ELEMENT* out);

// Appends the services of the file at `path` to `out`. Empty on success, else "path:line: what is
// wrong"; the services before the bad line have been appended then.
[[nodiscard]] std::string read_service_file(const std::string& path,
                                            std::vector<SERVICE_ELEMENT>* out);

// The words of `line` between blanks.
std::vector<std::string> split_words(std::string_view line);

} // namespace kessctl

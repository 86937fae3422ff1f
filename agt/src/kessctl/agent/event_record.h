// Event records of the parse-log queue, decoded.
#pragma once

#include <vector>

#include "kessard/parse_log_que.h"
#include "wire/frame.h"

namespace kessctl {

// The text fields of an event record in their order, each up to its terminator or its end and
// without trailing blanks.
std::vector<field_value> decode_event(const TRAN_LOG_FMT& record);

} // namespace kessctl

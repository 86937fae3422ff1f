// What goes over a connection, as an observer is told.
#pragma once

#include <optional>
#include <string>

#include "kessard/cmd_msg.h"

namespace kessctl {

struct traffic {
    int connection;
    bool sent;
    std::string bytes; // a whole frame unless a fault cut or replaced it
};

// The command message that the bytes are; none when their length or their magic is not that of one.
std::optional<TCP_CMD_MSG> frame_of(const std::string& bytes);

} // namespace kessctl

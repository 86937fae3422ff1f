// What goes over a connection.
#include "wire/traffic.h"

#include <cstring>

#include "tcp_recv.h"

namespace kessctl {

std::optional<TCP_CMD_MSG> frame_of(const std::string& bytes) {
    TCP_CMD_MSG frame;
    if (bytes.size() != sizeof frame || agt::magic_bit_check(-1, bytes.data()) != 1)
        return {};
    std::memcpy(&frame, bytes.data(), sizeof frame);
    return frame;
}

} // namespace kessctl

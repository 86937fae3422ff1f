// The header that starts every answer to an extended request.
#pragma once

#include <arpa/inet.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "kessard/cmd_msg.h"

namespace kessard {

// A header with the agent's host name; `status` is EXT_STATUS_*.
inline EXT_RSP_HDR make_ext_header(char status, std::uint32_t length) {
    EXT_RSP_HDR header = {TCP_CMD_MAGIC_BYTES, status, {}, {}};
    const std::uint32_t on_wire = htonl(length);
    gethostname(header.host_name, sizeof header.host_name);
    std::memcpy(header.length, &on_wire, sizeof on_wire);
    return header;
}

} // namespace kessard

// The request that the command rows send.
#pragma once

#include "kessard/cmd_msg.h"

namespace bench {

// A settings request with every field set.
TCP_CMD_MSG settings_request();

} // namespace bench

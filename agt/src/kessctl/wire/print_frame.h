// Decoded messages for people.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "kessard/cmd_msg.h"
#include "wire/frame.h"

namespace kessctl {

// "   name : text" per field, the names padded to one width.
void print_fields(std::FILE* out, const std::vector<field_value>& fields);

// The message's name behind `head`, then its fields.
void print_frame(std::FILE* out, const std::string& head, const TCP_CMD_MSG& frame);

} // namespace kessctl

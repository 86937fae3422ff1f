// How wide a terminal is.
#pragma once

#include <cstddef>

namespace kessctl {

// The columns of the terminal that `fd` is; 0 for what is none or does not tell.
std::size_t columns_of(int fd);

} // namespace kessctl

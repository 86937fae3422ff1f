// Lines as wide as a terminal.
#pragma once

#include <cstddef>
#include <string>

namespace kessctl {

// The columns of the terminal that `fd` is; 0 for what is none or does not tell.
std::size_t columns_of(int fd);

// The text in lines behind `indent` blanks that fit the terminal that `fd` is, broken at blanks; in
// one line for what is none. Each ends with a newline.
std::string fitted(int fd, const std::string& text, std::size_t indent = 0);

} // namespace kessctl

// What standard output is.
#include "commands/terminal.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace kessctl {

bool draws_on_terminal() {
    const char* terminal = std::getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && terminal != nullptr && std::strcmp(terminal, "dumb") != 0;
}

bool wants_colour() {
    return draws_on_terminal() && std::getenv("NO_COLOR") == nullptr;
}

} // namespace kessctl

// How wide a terminal is.
#include "commands/columns.h"

#include <sys/ioctl.h>

namespace kessctl {

std::size_t columns_of(int fd) {
    winsize size{};
    return ioctl(fd, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

} // namespace kessctl

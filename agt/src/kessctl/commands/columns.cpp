// Lines as wide as a terminal.
#include "commands/columns.h"

#include <sys/ioctl.h>

#include "agent/report_text.h"

namespace kessctl {

std::size_t columns_of(int fd) {
    winsize size{};
    return ioctl(fd, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

std::string fitted(int fd, const std::string& text, std::size_t indent) {
    const std::size_t columns = columns_of(fd);
    std::string out;
    for (const std::string& line :
         wrap(text, columns > indent ? columns - indent - 1 : text.size()))
        out += std::string(indent, ' ') + line + "\n";
    return out;
}

} // namespace kessctl

// Sleeping, paths, files.
#include "util.h"

#include <fcntl.h>

#include <algorithm>
#include <climits>

#include "unique_fd.h"
#include "wait.h"

namespace agt {

void set_idle(int sec, int usec) {
    const long long ms = sec * 1000LL + (usec + 999) / 1000;
    sleep_ms(static_cast<int>(std::min<long long>(ms, INT_MAX)));
}

bool resolve_path(char* out, std::size_t size, const char* home, const char* path) {
    const int length = path[0] == '/' ? std::snprintf(out, size, "%s", path)
                                      : std::snprintf(out, size, "%s/%s", home, path);
    return length >= 0 && static_cast<std::size_t>(length) < size;
}

std::FILE* open_text_file(const char* path) {
    unique_fd fd(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd.valid())
        return nullptr;
    std::FILE* file = ::fdopen(fd.get(), "r");
    if (file != nullptr)
        fd.release();
    return file;
}

} // namespace agt

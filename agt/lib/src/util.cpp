// Sleeping, paths, files.
#include "util.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>

#include "unique_fd.h"
#include "wait.h"

namespace agt {
namespace {

constexpr std::size_t WRITE_BYTES = 256UL * 1024;

} // namespace

void set_idle(int sec, int usec) {
    const long long ms = sec * 1000LL + (usec + 999) / 1000;
    sleep_ms(static_cast<int>(std::min<long long>(ms, INT_MAX)));
}

void say(const char* fmt, ...) {
    char text[4096]; // a pipe takes so much whole or not at all
    va_list args;
    va_start(args, fmt);
    const int length = std::vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    pollfd out = {STDOUT_FILENO, POLLOUT, 0};
    if (length > 0 && poll(&out, 1, 0) == 1 && (out.revents & POLLOUT) != 0) [[maybe_unused]]
        const ssize_t written =
            ::write(STDOUT_FILENO, text,
                    std::min<std::size_t>(sizeof text - 1, static_cast<std::size_t>(length)));
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

bool write_whole(int fd, const void* bytes, std::size_t length) {
    const auto* next = static_cast<const char*>(bytes);
    while (length > 0) {
        const ssize_t written = ::write(fd, next, std::min(length, WRITE_BYTES));
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 1)
            return false;
        next += written;
        length -= static_cast<std::size_t>(written);
    }
    return true;
}

} // namespace agt

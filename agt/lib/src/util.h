// Small helpers of the daemon's modules.
#pragma once

#include <cstddef>
#include <cstdio>

namespace agt {

// Sleeps for `sec` seconds and `usec` microseconds (rounded up to milliseconds); ends early when
// the calling thread is cancelled (wait.h).
void set_idle(int sec, int usec);

// Writes to standard output, unless somebody who does not read it would have to be waited for: the
// text is dropped then.
[[gnu::format(printf, 1, 2)]] void say(const char* fmt, ...);

// Writes an absolute path into `out` (`size` bytes): `path` itself when it starts with '/', else
// "home/path". False when it was cut to fit.
bool resolve_path(char* out, std::size_t size, const char* home, const char* path);

// Opens a text file for reading, close-on-exec, without ever waiting for it (a FIFO reads as
// empty). Null and errno when it cannot be opened; the caller closes it.
std::FILE* open_text_file(const char* path);

// Writes all bytes, in pieces that the page cache takes without a search for large free runs. False
// and errno when the system takes no more.
[[nodiscard]] bool write_whole(int fd, const void* bytes, std::size_t length);

} // namespace agt

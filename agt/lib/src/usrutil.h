// Text and path helpers of the extended requests.
#pragma once

#include <cstddef>

namespace agt {

// What is_file_exist finds.
enum {
    FILE_MISSING = 0,
    FILE_REGULAR = 1,
    FILE_DIRECTORY = 2,
    FILE_OTHER = 3 // a symbolic link too
};

// Splits `text` in place at every byte that is one of `separators` into at most `max` pieces, empty
// ones included; the last piece keeps the rest of the text. The number of pieces: 0 when `text` or
// `separators` is null or empty or `max` below 1.
int str_split(char* text, const char* separators, char** pieces, int max);

// Copies `text` into `out` (`size` bytes, all written) with the first 10 environment references
// replaced: $NAME,
// ${NAME} or $(NAME), by at most 127 characters of the variable's value; an unset variable's
// reference stays. False when the expansion does not fit; `out` is empty then.
bool env2str(const char* text, char* out, std::size_t size);

// The part of `path` behind its last '/'; all of it without one; "" for null.
const char* get_procname(const char* path);

// Makes the directory `path` and its parents (mode 0775 less the umask, at most 64 components). A
// regular file in the way is replaced when `force` is set; anything else that is no directory, a
// symbolic link to one too, is a failure. 0, or -1 with the parents made so far left in place.
int makedir(const char* path, int force);

// What lies at `path`, without following a symbolic link: FILE_*; FILE_MISSING for null.
int is_file_exist(const char* path);

} // namespace agt

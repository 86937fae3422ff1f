// A file that appears under its name only when it is whole: whoever reads the name sees what was
// there before or all of the new text.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

#include "unique_fd.h"

namespace kessctl {

// Written under a hidden name in the same directory, which is removed with the object unless the
// file has got its own. Every call that fails sets errno.
class new_file {
  public:
    explicit new_file(const std::string& path);
    new_file(new_file&& other) noexcept;
    new_file& operator=(new_file&&) = delete;
    ~new_file();

    const std::string& path() const { return path_; }
    // Whether the hidden file could be made.
    [[nodiscard]] bool valid() const { return fd_.valid(); }

    // Appends all of the bytes; false when that failed.
    [[nodiscard]] bool write(const char* bytes, std::size_t length);
    // Sets the nine permission bits and closes the file; false when that failed.
    [[nodiscard]] bool finish(mode_t permission);
    // Gives the file its name, replacing one that is there; false when that failed.
    [[nodiscard]] bool take_name();

  private:
    std::string path_;
    std::string hidden_; // empty once it has its name
    agt::unique_fd fd_;
};

} // namespace kessctl

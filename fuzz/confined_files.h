// A root directory for everything that the program under test does with paths.
#pragma once

#include <string>

namespace fuzz {

// Needs the wrappers of open, mkdir, unlink, stat and lstat, which let nothing outside `root` be
// reached while an object of this class lives: the kernel resolves every path as if the process had
// that root, absolute ones, ".." and links included.
class confinement {
  public:
    explicit confinement(const std::string& root);
    ~confinement();
    confinement(const confinement&) = delete;
    confinement& operator=(const confinement&) = delete;

    // Whether anything under the root may have changed.
    bool changed() const;
};

} // namespace fuzz

// A file that appears under its name only when it is whole.
#include "host/new_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "util.h"

namespace kessctl {
namespace {

std::string hidden_name(const std::string& path) {
    const std::size_t name_at = path.rfind('/') + 1; // 0 without a directory
    return path.substr(0, name_at) + "." + path.substr(name_at) + ".XXXXXX";
}

} // namespace

new_file::new_file(const std::string& path)
    : path_(path), hidden_(hidden_name(path)), fd_(mkostemp(hidden_.data(), O_CLOEXEC)) {
    if (!fd_.valid())
        hidden_.clear();
}

new_file::new_file(new_file&& other) noexcept
    : path_(std::move(other.path_)), hidden_(std::exchange(other.hidden_, {})),
      fd_(std::move(other.fd_)) {}

new_file::~new_file() {
    if (!hidden_.empty())
        unlink(hidden_.c_str());
}

bool new_file::write(const char* bytes, std::size_t length) {
    return agt::write_whole(fd_.get(), bytes, length);
}

bool new_file::finish(mode_t permission) {
    constexpr mode_t permission_bits = 0777;
    return fchmod(fd_.get(), permission & permission_bits) == 0 && ::close(fd_.release()) == 0;
}

bool new_file::take_name() {
    if (std::rename(hidden_.c_str(), path_.c_str()) != 0)
        return false;
    hidden_.clear();
    return true;
}

} // namespace kessctl

// System calls that take a path, confined to a root directory.
#include "confined_files.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "harness.h"
#include "unique_fd.h"

extern "C" {
int __real_open(const char* path, int flags, ...);
int __real_mkdir(const char* path, mode_t mode);
int __real_unlink(const char* path);
int __real_stat(const char* path, struct stat* out);
int __real_lstat(const char* path, struct stat* out);
int __wrap_open(const char* path, int flags, ...);
int __wrap_mkdir(const char* path, mode_t mode);
int __wrap_unlink(const char* path);
int __wrap_stat(const char* path, struct stat* out);
int __wrap_lstat(const char* path, struct stat* out);
}

namespace {

int root_fd = -1; // -1: not confined
bool was_changed = false;

int open_inside(const char* path, int flags, mode_t mode = 0) {
    open_how how{};
    how.flags = static_cast<unsigned>(flags);
    how.mode = (flags & O_CREAT) != 0 ? mode : 0;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS | RESOLVE_NO_XDEV;
    return static_cast<int>(syscall(SYS_openat2, root_fd, path, &how, sizeof how));
}

// The directory that holds the last component of a path, and that component.
struct place {
    agt::unique_fd directory;
    std::string name;

    explicit place(const std::string& path) {
        const std::size_t end = path.find_last_not_of('/');
        const std::size_t slash = path.rfind('/', end);
        name = end == path.npos ? "" : path.substr(slash + 1, end - slash);
        directory.reset(open_inside((path.substr(0, slash + 1) + ".").c_str(),
                                    O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
    // Neither ".." nor "." lead out of the directory then.
    bool valid() const { return directory.valid() && !name.empty() && name != "." && name != ".."; }
};

int status_inside(const char* path, int flags, struct stat* out) {
    const agt::unique_fd fd(open_inside(path, O_PATH | O_CLOEXEC | flags));
    return fd.valid() ? fstat(fd.get(), out) : -1;
}

} // namespace

int __wrap_open(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    if (root_fd < 0)
        return __real_open(path, flags, mode);
    was_changed = was_changed || (flags & O_ACCMODE) != O_RDONLY;
    return open_inside(path, flags, mode);
}

int __wrap_mkdir(const char* path, mode_t mode) {
    if (root_fd < 0)
        return __real_mkdir(path, mode);
    was_changed = true;
    const place at(path);
    return at.valid() ? mkdirat(at.directory.get(), at.name.c_str(), mode) : -1;
}

int __wrap_unlink(const char* path) {
    if (root_fd < 0)
        return __real_unlink(path);
    was_changed = true;
    const place at(path);
    return at.valid() ? unlinkat(at.directory.get(), at.name.c_str(), 0) : -1;
}

int __wrap_stat(const char* path, struct stat* out) {
    return root_fd < 0 ? __real_stat(path, out) : status_inside(path, 0, out);
}

int __wrap_lstat(const char* path, struct stat* out) {
    return root_fd < 0 ? __real_lstat(path, out) : status_inside(path, O_NOFOLLOW, out);
}

namespace fuzz {

confinement::confinement(const std::string& root) {
    was_changed = false;
    root_fd = __real_open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    require(root_fd >= 0, "no root directory");
    errno = 0;
    const agt::unique_fd probe(open_inside("/../..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!probe.valid())
        fail(std::string("the kernel cannot confine paths: ") + std::strerror(errno));
}

confinement::~confinement() {
    close(root_fd);
    root_fd = -1;
}

bool confinement::changed() const {
    return was_changed;
}

} // namespace fuzz

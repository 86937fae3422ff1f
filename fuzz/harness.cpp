// Start of a fuzz target, and what the program under test finds around it.
#include "harness.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "tls.h"

extern "C" int LLVMFuzzerInitialize(int*, char***);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t*, std::size_t);

namespace fuzz {
namespace {

constexpr int WATCHED_DESCRIPTORS = 64;

int report_fd = -1; // standard error is closed while inputs run
const pid_t own_pid = getpid();

void remove_directory() {
    std::error_code error;
    if (getpid() == own_pid)
        std::filesystem::remove_all(directory(), error);
}

std::string make_directory() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/fuzz.XXXXXX";
    require(mkdtemp(pattern.data()) != nullptr, "no directory of its own");
    return pattern;
}

std::uint64_t open_descriptors() {
    std::uint64_t open = 0;
    for (int fd = 0; fd < WATCHED_DESCRIPTORS; ++fd)
        open |= std::uint64_t{fcntl(fd, F_GETFD) != -1} << fd;
    return open;
}

} // namespace

void fail(const std::string& what) {
    dprintf(report_fd >= 0 ? report_fd : STDERR_FILENO, "FOUND: %s\n", what.c_str());
    std::abort();
}

const std::string& directory() {
    static const std::string made = make_directory();
    return made;
}

memory_file::memory_file()
    : fd_(memfd_create("fuzz", MFD_CLOEXEC)), path_("/proc/self/fd/" + std::to_string(fd_)) {
    require(fd_ >= 0, "no file in memory");
}

void memory_file::set(std::string_view content) const {
    require(ftruncate(fd_, 0) == 0 && pwrite(fd_, content.data(), content.size(), 0) ==
                                          static_cast<ssize_t>(content.size()),
            "no content of a file in memory");
    lseek(fd_, 0, SEEK_SET);
}

agt::tls_identity& own_identity() {
    static agt::tls_identity identity;
    const std::string file = directory() + "/own";
    if (identity.is_open())
        return identity;
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -noenc -subj /CN=own "
        "-keyout " +
        file + ".key -out " + file + ".crt";
    require(std::system(command.c_str()) == 0, "no certificate");
    const std::string fault = identity.open({file + ".crt", file + ".key", file + ".crt"});
    if (!fault.empty())
        fail(fault);
    return identity;
}

void far_end::connect() {
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "no connection");
    near_ = ends[0];
    far_ = ends[1];
}

void far_end::say(std::string_view says) {
    iovec part = {const_cast<char*>(says.data()), says.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    require(says.empty() || agt::send_now(far_, message) == static_cast<ssize_t>(says.size()),
            "no room in a connection");
}

far_end::far_end(std::string_view says) {
    connect();
    say(says);
    shutdown(far_, SHUT_WR);
}

far_end::far_end(std::string_view says, std::size_t record_bytes) {
    connect();
    agt::tls_identity& identity = own_identity();
    agt::tls_session* near = identity.begin(near_, agt::tls_side::accepts, {});
    agt::tls_session* far = identity.begin(far_, agt::tls_side::connects, {"own"});
    const auto step = agt::tls_module()->shake_hands;
    for (bool done = false; !done;) {
        const agt::tls_step far_step = step(far);
        const agt::tls_step near_step = step(near);
        require(far_step != agt::tls_step::failed && near_step != agt::tls_step::failed,
                "no handshake");
        done = far_step == agt::tls_step::done && near_step == agt::tls_step::done;
    }
    require(agt::set_tls_session(near_, near) && agt::set_tls_session(far_, far), "no session");
    for (std::size_t at = 0; at < says.size(); at += record_bytes)
        say(says.substr(at, record_bytes));
    shutdown(far_, SHUT_WR);
}

far_end::~far_end() {
    agt::end_tls_session(far_, false);
    close(far_);
}

std::string far_end::heard() const {
    std::string all;
    char piece[65536];
    for (ssize_t got = 0; (got = agt::recv_now(far_, piece, sizeof piece)) > 0;)
        all.append(piece, static_cast<std::size_t>(got));
    return all;
}

} // namespace fuzz

int LLVMFuzzerInitialize(int*, char***) {
    fuzz::report_fd = dup(STDERR_FILENO);
    fuzz::directory(); // made before, so that it is there when the process ends
    std::atexit(fuzz::remove_directory);
    fuzz::set_up();
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::uint64_t before = fuzz::open_descriptors();
    fuzz::run({reinterpret_cast<const char*>(data), size});
    if (const std::uint64_t after = fuzz::open_descriptors(); after != before)
        fuzz::fail("open descriptors changed from " + std::to_string(before) + " to " +
                   std::to_string(after));
    return 0;
}

// Row: transfer of a large file up and down, and the memory of the child that serves it.
//
// The daemon's other end is the console's transfer, the bare program's a plain copy in this
// program; all write to the same file system.
#include <fcntl.h>
#include <sys/socket.h>

#include <cmath>
#include <fstream>

#include "checks.h"
#include "rows.h"
#include "transfer.h"

namespace bench {
namespace {

constexpr int ROUNDS = 5;
constexpr double MIB = 1024 * 1024;
constexpr double MEMORY_LIMIT_MB = 16;

void unobserved(const std::string&, std::uint64_t, std::uint64_t) {}

} // namespace

places make_places(const test_support::agent& program) {
    const places made = {program.path("source"), program.path("copies"),
                         program.path("copies/source")};
    const std::string piece(PIECE_BYTES, 'x');
    std::ofstream source(made.source, std::ios::binary);
    for (std::size_t at = 0; at < FILE_BYTES; at += piece.size())
        source << piece;
    return made;
}

double rate(const places& at, const std::function<bool()>& transfer) {
    unlink(at.stored.c_str());
    const double start_us = now_us();
    return transfer() ? FILE_BYTES / MIB / ((now_us() - start_us) / 1e6) : NAN;
}

bool upload(kessctl::command_client& client, const places& at,
            const kessctl::transfer_observer& observe) {
    kessctl::local_file file;
    if (!kessctl::describe_file(at.source, &file).empty())
        return false;
    const std::string data =
        at.directory + static_cast<char>(EXT_SEPARATOR) + kessctl::upload_item(file);
    return kessctl::upload_files(client, {EXT_SVC_FILE_UP, data, 0, 1}, {file}, TRANSFER_LIMIT_MS,
                                 observe ? observe : unobserved)
        .ok();
}

bool download(kessctl::command_client& client, const places& at,
              const kessctl::transfer_observer& observe) {
    std::set<std::string> taken;
    return kessctl::download_files(client, {EXT_SVC_FILE_DOWN, at.source, 0, 1}, {at.source},
                                   at.directory, TRANSFER_LIMIT_MS, observe ? observe : unobserved,
                                   &taken)
        .ok();
}

namespace {

// A transfer on a connection of its own.
bool connected(const running_agent& agent, const places& at,
               bool (*transfer)(kessctl::command_client&, const places&,
                                const kessctl::transfer_observer&),
               const kessctl::transfer_observer& observe = {}) {
    kessctl::command_client client;
    return client.connect("127.0.0.1", agent.program.port()) && transfer(client, at, observe);
}

// Copies until the end; whether all bytes of the file came over.
bool copy(int from, int to) {
    static std::vector<char> piece(PIECE_BYTES);
    std::size_t copied = 0;
    for (ssize_t got = 0; (got = read(from, piece.data(), piece.size())) > 0;
         copied += static_cast<std::size_t>(got))
        for (ssize_t at = 0, done = 0; at < got; at += done)
            if ((done = write(to, piece.data() + at, static_cast<std::size_t>(got - at))) < 1)
                return false;
    return copied == FILE_BYTES;
}

bool bare_upload(const bare_peer& store, const places& at) {
    char byte = 0;
    const agt::unique_fd sockfd = store.connect();
    const agt::unique_fd file(open(at.source.c_str(), O_RDONLY | O_CLOEXEC));
    return copy(file.get(), sockfd.get()) && shutdown(sockfd.get(), SHUT_WR) == 0 &&
           recv(sockfd.get(), &byte, sizeof byte, 0) == 0;
}

bool bare_download(const bare_peer& fetch, const places& at) {
    const agt::unique_fd sockfd = fetch.connect();
    const agt::unique_fd file(open(at.stored.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    return copy(sockfd.get(), file.get());
}

double status_mb(pid_t pid, const char* name) {
    return std::atof(test_support::status_of(pid, name).c_str()) * 1024 / 1e6;
}

// The most memory of its own that the child of the daemon has had so far; not a number when there
// is none.
double child_peak_mb(pid_t daemon) {
    const std::string pid = std::to_string(daemon);
    std::ifstream children("/proc/" + pid + "/task/" + pid + "/children");
    pid_t child = -1;
    return children >> child ? status_mb(child, "VmHWM") - status_mb(child, "RssShmem") -
                                   status_mb(child, "RssFile")
                             : NAN;
}

} // namespace

figures transfer_row(running_agent& agent) {
    const places at = make_places(agent.program);
    const bare_peer store("store", at.stored);
    const bare_peer fetch("fetch", at.source);
    double peak_mb = 0;
    const auto observed = [&](const std::string&, std::uint64_t done, std::uint64_t size) {
        if (done == size - PIECE_BYTES)
            peak_mb = std::fmax(peak_mb, child_peak_mb(agent.program.pid()));
    };
    const bool whole =
        connected(agent, at, upload, observed) && connected(agent, at, download, observed);
    const double memory_mb = whole && peak_mb > 0 ? peak_mb : NAN;
    return {compare(
                {"256 MiB to the daemon", "MiB/s", judged::ratio, 0.8, true}, ROUNDS,
                [&] { return rate(at, [&] { return connected(agent, at, upload); }); },
                [&] { return rate(at, [&] { return bare_upload(store, at); }); }),
            compare(
                {"256 MiB from the daemon", "MiB/s", judged::ratio, 0.8, true}, ROUNDS,
                [&] { return rate(at, [&] { return connected(agent, at, download); }); },
                [&] { return rate(at, [&] { return bare_download(fetch, at); }); }),
            {"memory of the serving child", "MB", judged::own, MEMORY_LIMIT_MB, false, memory_mb}};
}

} // namespace bench

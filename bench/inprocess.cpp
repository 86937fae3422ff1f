// kessard_inprocess: parts of the daemon against bare loops, both inside one process, on Google
// Benchmark.
//
//     kessard_inprocess DIRECTORY [--benchmark_...]
//
// The log goes to a new directory in DIRECTORY, which goes with the program. A benchmark is named
// PART/CASE/SIDE with the sides `kessard` and `bare`; kessard_bench runs the two sides of a case in
// turn and compares their processor times.
#include "inprocess.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "log_printf.h"
#include "process_globals.h"

namespace bench {
namespace {

constexpr char BARE_LOG[] = "bare";

std::string directory;

template <class Action> void for_each_log(Action action) {
    for (const auto& file : std::filesystem::directory_iterator(directory))
        action(file.path());
}

bool open_daemon_log(const char* place) {
    std::string pattern = std::string(place) + "/inprocess.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr)
        return false;
    directory = pattern;
    return agt::open_log(directory.c_str(), "kessard", 1) == 0;
}

int run_benchmarks() {
    add_log_benchmarks();
    add_request_benchmarks();
    add_service_benchmarks();
    add_trace_table_benchmarks();
    const std::size_t run = benchmark::RunSpecifiedBenchmarks();
    std::error_code error;
    std::filesystem::remove_all(directory, error);
    return run > 0 ? 0 : 1;
}

} // namespace

std::string log_text() {
    std::ostringstream all;
    for_each_log([&](const std::filesystem::path& path) {
        if (path.filename() != BARE_LOG)
            all << std::ifstream(path).rdbuf();
    });
    return all.str();
}

void empty_log() {
    for_each_log([](const std::filesystem::path& path) { std::filesystem::resize_file(path, 0); });
}

int open_bare_log() {
    return open((directory + "/" + BARE_LOG).c_str(),
                O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
}

} // namespace bench

int main(int argc, char** argv) {
    using namespace bench;
    benchmark::Initialize(&argc, argv);
    if (argc != 2 || !open_daemon_log(argv[1])) {
        std::fprintf(stderr, "usage: %s DIRECTORY [--benchmark_...]\n", argv[0]);
        return 2;
    }
    kessard::running = 1;
    return run_benchmarks();
}

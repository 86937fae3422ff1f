// Log lines, alone and many in one write, against writes of the same bytes.
#include <unistd.h>

#include <string>

#include "inprocess.h"
#include "log_printf.h"
#include "unique_fd.h"

namespace bench {
namespace {

constexpr int LINES = 100; // of a batch
constexpr std::string_view LINE =
    "11-23 04:05:06  (I) [notify_active_service_detail] sent 2 elements, noti_send_flag : 1\n";

void log_line(benchmark::State& state) {
    for ([[maybe_unused]] const auto& round : state)
        agt::log_printf("(I) [notify_active_service_detail] sent %d elements, noti_send_flag : %d",
                        2, 1);
    empty_log();
}

void log_lines(benchmark::State& state) {
    for ([[maybe_unused]] const auto& round : state) {
        const agt::log_batch batch;
        for (int i = 0; i < LINES; ++i)
            agt::log_printf(
                "(I) [notify_active_service_detail] sent %d elements, noti_send_flag : %d", 2, 1);
    }
    empty_log();
}

void bare_write(benchmark::State& state, const std::string& text) {
    const agt::unique_fd file(open_bare_log());
    for ([[maybe_unused]] const auto& round : state)
        if (write(file.get(), text.data(), text.size()) < 1)
            state.SkipWithError("write");
    empty_log();
}

} // namespace

void add_log_benchmarks() {
    std::string lines;
    for (int i = 0; i < LINES; ++i)
        lines += LINE;
    benchmark::RegisterBenchmark("log/line/kessard", log_line);
    benchmark::RegisterBenchmark(
        "log/line/bare", [](benchmark::State& state) { bare_write(state, std::string(LINE)); });
    benchmark::RegisterBenchmark("log/lines/kessard", log_lines);
    benchmark::RegisterBenchmark("log/lines/bare",
                                 [lines](benchmark::State& state) { bare_write(state, lines); });
}

} // namespace bench

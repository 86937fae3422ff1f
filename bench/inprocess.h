// What the benchmarks inside one process share.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <string>

namespace bench {

// The log so far; and emptied again, with the file of the bare side.
std::string log_text();
void empty_log();
// A second file beside the log, for the bare side: opened for appending, and empty.
int open_bare_log();

void add_log_benchmarks();
void add_request_benchmarks();
void add_service_benchmarks();
void add_trace_table_benchmarks();

} // namespace bench

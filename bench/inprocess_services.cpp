// The two parts of a load of services: the table, and its dump to the log.
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "inprocess.h"
#include "server/service_file.h"
#include "set_svc_hash_tbl.h"
#include "show_logs.h"
#include "unique_fd.h"

namespace bench {
namespace {

constexpr std::size_t WRITE_BYTES = std::size_t{32} * 1024; // of one write of the log

const std::vector<SERVICE_ELEMENT>& services() {
    static const std::vector<SERVICE_ELEMENT> all = [] {
        std::vector<SERVICE_ELEMENT> made;
        for (int i = 0; i < SVC_HASH_SLOTS; ++i)
            made.push_back(kessctl::make_service("SERVICE" + std::to_string(i)));
        return made;
    }();
    return all;
}

SVC_HASH_TBL& table() {
    static const std::unique_ptr<SVC_HASH_TBL> only = std::make_unique<SVC_HASH_TBL>();
    return *only;
}

void insert(benchmark::State& state) {
    kessard::svc_hash_tbl = &table();
    for ([[maybe_unused]] const auto& round : state) {
        state.PauseTiming();
        kessard::init_svc_hash_tbl();
        state.ResumeTiming();
        for (const SERVICE_ELEMENT& one : services())
            kessard::set_svc_hash_tbl(&one);
    }
    if (table().alloc_cnt != SVC_HASH_SLOTS)
        state.SkipWithError("not every service is in the table");
}

// The texts of each service, without looking whether it is there.
void copy(benchmark::State& state) {
    for ([[maybe_unused]] const auto& round : state) {
        SVC_HASH_ARR_LIST* slot = table().h_arr;
        for (const SERVICE_ELEMENT& one : services()) {
            std::memcpy(slot->param.host_name, one.host_name, sizeof one.host_name - 1);
            std::memcpy(slot->param.server_id, one.server_id, sizeof one.server_id - 1);
            std::memcpy(slot++->param.service_id, one.service_id, sizeof one.service_id - 1);
        }
        benchmark::ClobberMemory();
    }
}

void fill_table() {
    kessard::svc_hash_tbl = &table();
    kessard::init_svc_hash_tbl();
    for (const SERVICE_ELEMENT& one : services())
        kessard::set_svc_hash_tbl(&one);
}

void dump(benchmark::State& state) {
    fill_table();
    for ([[maybe_unused]] const auto& round : state) {
        kessard::show_svc_hash_tbl(table());
        state.PauseTiming();
        empty_log();
        state.ResumeTiming();
    }
}

// The bytes of the dump, in writes as large as the log's.
void write_dump(benchmark::State& state) {
    fill_table();
    kessard::show_svc_hash_tbl(table());
    const std::string text = log_text();
    const agt::unique_fd file(open_bare_log());
    for ([[maybe_unused]] const auto& round : state) {
        for (std::size_t at = 0; at < text.size(); at += WRITE_BYTES)
            if (write(file.get(), &text[at], std::min(WRITE_BYTES, text.size() - at)) < 1)
                state.SkipWithError("write");
        state.PauseTiming();
        empty_log();
        state.ResumeTiming();
    }
}

} // namespace

void add_service_benchmarks() {
    benchmark::RegisterBenchmark("table/insert/kessard", insert);
    benchmark::RegisterBenchmark("table/insert/bare", copy);
    benchmark::RegisterBenchmark("table/dump/kessard", dump);
    benchmark::RegisterBenchmark("table/dump/bare", write_dump);
}

} // namespace bench

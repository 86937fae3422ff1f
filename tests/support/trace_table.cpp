// A trace table and a log inside a test.
#include "trace_table.h"

#include <sys/mman.h>

#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "field.h"
#include "log_printf.h"
#include "ptrc_hash_stk.h"

namespace test_support {

// One mapping for the life of the process: modules may remember an entry of an earlier pass.
trace_table::trace_table() {
    static void* const memory = mmap(nullptr, sizeof(PTRC_HASH_TBL), PROT_READ | PROT_WRITE,
                                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    madvise(memory, sizeof(PTRC_HASH_TBL), MADV_DONTNEED);
    table_ = static_cast<PTRC_HASH_TBL*>(memory);
    kessard::ptrc_hash_tbl = table_;
}

trace_table::~trace_table() {
    kessard::ptrc_hash_tbl = nullptr;
}

PTRC_HASH_ARR& trace_table::add(const std::string& proc_nm, int pid, unsigned long tid, int idle_sec) {
    const unsigned slot = PTRC_HASH_SLOTS - 1 - table_->alloc_cnt++;
    table_->used.idx[table_->used.top++] = slot;
    PTRC_HASH_ARR& entry = table_->h_arr[slot].param;
    agt::copy_text(entry.proc_nm, proc_nm.c_str());
    std::snprintf(entry.pid, sizeof entry.pid, "%d", pid);
    std::snprintf(entry.tid, sizeof entry.tid, "%015lu", tid);
    entry._pid = pid;
    entry._tid = tid;
    entry.trc_sts = 'a';
    entry.isalive = 1;
    entry.lasted_access = std::time(nullptr) - idle_sec;
    return entry;
}

test_log::test_log() {
    char pattern[] = "/tmp/kt.XXXXXX";
    if (mkdtemp(pattern) == nullptr || agt::open_log(pattern, "kessard", 1) != 0)
        ADD_FAILURE() << "cannot open a log under /tmp: " << std::strerror(errno);
    directory_ = pattern;
}

test_log::~test_log() {
    agt::close_log();
    std::error_code error;
    std::filesystem::remove_all(directory_, error);
}

std::string test_log::text() const {
    std::ostringstream all;
    for (const auto& file : std::filesystem::directory_iterator(directory_))
        if (file.path().filename().string().starts_with("kessard-"))
            all << std::ifstream(file.path()).rdbuf();
    return all.str();
}

std::size_t test_log::count(const std::string& part) const {
    const texts all = lines();
    return static_cast<std::size_t>(
        std::count_if(all.begin(), all.end(), [&](const std::string& line) { return line.find(part) != line.npos; }));
}

void test_log::clear() const {
    for (const auto& file : std::filesystem::directory_iterator(directory_))
        if (file.path().filename().string().starts_with("kessard-"))
            std::filesystem::resize_file(file.path(), 0);
}

} // namespace test_support

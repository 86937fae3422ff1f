// The liveness sweep: whose turn it is, what it finds, what a corrupt table does to it.
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "check_ptrc_hash_tbl.h"
#include "process_globals.h"
#include "ptrc_hash_stk.h"
#include "settings.h"
#include "trace_table.h"
#include "tran_logf_que_info.h"

namespace {

using namespace kessard;
using namespace test_support;

constexpr int DEAD_PID = 4194305; // beyond the largest that the system gives

std::string own_name() {
    char name[16] = "";
    prctl(PR_GET_NAME, name);
    return name;
}

class Sweep : public testing::Test {
  protected:
    test_log log;
    trace_table table;
    TRAN_LOGF_QUE_INFO settings{};

    Sweep() {
        running = 1;
        trc_sts_check_period = 10;
        settings.magic_code = TRACE_ON_MAGIC_CODE;
        que_info = &settings;
    }
    ~Sweep() override { que_info = nullptr; }
};

TEST_F(Sweep, LooksAtAnEntryWhenItsStateAndTimeSaySo) {
    const struct {
        char trc_sts;
        int idle_sec;
        int elapsed; // chk_elps_sec before
        int period;
        bool checked;
        int elapsed_after;
    } cases[] = {{'f', 6, 3, 1, true, 3},     {'f', 5, 3, 1, false, 4},   {'f', 5, 9, 1, true, 0},
                 {'h', 0, 3, 1, true, 3},     {'h', 100, 9, 10, true, 9}, {'a', 0, 8, 1, false, 9},
                 {'a', 0, 9, 1, true, 0},     {'a', 100, 0, 9, false, 9}, {'a', 0, 0, 10, true, 0},
                 {'a', 0, 3, 86400, true, 0}, {'F', 100, 0, 1, false, 1}, {'H', 100, 0, 1, false, 1},
                 {0, 100, 0, 1, false, 1},    {'a', 0, -5, 10, false, 5}};
    PTRC_HASH_ARR& entry = table.add("worker", DEAD_PID);
    for (const auto& one : cases) {
        SCOPED_TRACE(testing::Message() << one.trc_sts << " idle " << one.idle_sec << " elapsed " << one.elapsed);
        within_one_second(
            [&](time_t now) {
                entry.trc_sts = one.trc_sts;
                entry.lasted_access = now - one.idle_sec;
                entry.chk_elps_sec = static_cast<char>(one.elapsed);
                entry.isalive = 1;
                trc_sts_check_period = one.period;
            },
            check_ptrc_hash_tbl);
        EXPECT_EQ(entry.isalive, one.checked ? 0 : 1);
        EXPECT_EQ(entry.chk_elps_sec, one.elapsed_after);
    }
}

TEST_F(Sweep, MarksLiveRenamedAndDeadProcesses) {
    const struct {
        std::string name;
        int pid;
        char before;
        char after;
        const char* line; // without name and pid; null: none
    } cases[] = {{own_name(), getpid(), 0, 1, nullptr},
                 {own_name(), getpid(), 1, 1, nullptr},
                 {own_name(), getpid(), 2, 2, nullptr},
                 {own_name(), getpid(), 127, 127, nullptr},
                 {"another", getpid(), 1, 0, "@@@ process down : "},
                 {own_name() + "x", getpid(), 2, 0, "@@@ process down : "},
                 {"", getpid(), 1, 0, "@@@ process down : "},
                 {own_name(), DEAD_PID, 1, 0, "@@@ process down: "},
                 {"worker", DEAD_PID + 1, 5, 0, "@@@ process down: "},
                 {"worker", 0, 1, 0, "@@@ process down: "}};
    texts wanted = {"##### ptrc hash table (total : 10) #####", ""};
    std::vector<PTRC_HASH_ARR*> entries;
    for (const auto& one : cases) {
        entries.push_back(&table.add(one.name, one.pid));
        entries.back()->isalive = one.before;
        if (one.line != nullptr)
            wanted.push_back(one.line + one.name + "(" + std::to_string(one.pid) + ")");
    }
    check_ptrc_hash_tbl();
    for (std::size_t i = 0; i < entries.size(); ++i)
        EXPECT_EQ(entries[i]->isalive, cases[i].after) << "entry " << i;
    EXPECT_EQ(log.lines(), wanted);
}

TEST_F(Sweep, FindsAProcessThatWasKilled) {
    process worker({"/bin/sleep", "100"}, {});
    PTRC_HASH_ARR& entry = table.add("sleep", worker.pid());
    entry.isalive = 0;
    const auto alive = [&] {
        check_ptrc_hash_tbl();
        return entry.isalive == 1;
    };
    EXPECT_TRUE(wait_until(alive)); // until it has become sleep
    kill(worker.pid(), SIGKILL);
    EXPECT_EQ(worker.wait_exit(), 128 + SIGKILL);
    check_ptrc_hash_tbl();
    EXPECT_EQ(entry.isalive, 0);
}

TEST_F(Sweep, LooksOnceForNeighboursOfOneProcess) {
    for (int i = 0; i < 1000; ++i)
        table.add("worker", DEAD_PID, static_cast<unsigned long>(i));
    table.add("other", DEAD_PID);
    check_ptrc_hash_tbl();
    EXPECT_EQ(log.count("@@@ process down: worker(4194305)"), 1u);
    EXPECT_EQ(log.count("@@@ process down: other(4194305)"), 1u);
    for (unsigned i = 0; i < table->used.top; ++i)
        EXPECT_EQ(table->h_arr[table->used.idx[i]].param.isalive, 0);
    check_ptrc_hash_tbl(); // the next sweep knows nothing of this one
    EXPECT_EQ(log.count("@@@ process down: worker(4194305)"), 2u);
}

// The cache may miss a record that it holds; what it answers is right all the same.
TEST_F(Sweep, AnswersRightForInterleavedProcesses) {
    for (int i = 0; i < 600; ++i) {
        if (i % 3 == 0)
            table.add(own_name(), getpid());
        else
            table.add("worker" + std::to_string(i % 7), DEAD_PID + i % 5);
    }
    check_ptrc_hash_tbl();
    for (unsigned i = 0; i < table->used.top; ++i)
        EXPECT_EQ(table->h_arr[table->used.idx[i]].param.isalive, i % 3 == 0 ? 1 : 0) << i;
}

TEST_F(Sweep, SwitchesTracingOffWhenTheTableIsCorrupt) {
    PTRC_HASH_ARR& entry = table.add("worker", DEAD_PID);
    for (const unsigned top : {10001u, 0xffffffffu}) {
        settings.magic_code = TRACE_ON_MAGIC_CODE;
        table->used.top = top;
        log.clear();
        check_ptrc_hash_tbl();
        EXPECT_EQ(settings.magic_code, 0u);
        EXPECT_EQ(entry.isalive, 1);
        EXPECT_EQ(log.lines(), (texts{"##### ptrc hash table (total : 1) #####", ""}));
    }
}

TEST_F(Sweep, TakesAFullTable) {
    PTRC_HASH_ARR& entry = table.add("worker", DEAD_PID);
    for (unsigned& slot : table->used.idx)
        slot = PTRC_HASH_SLOTS - 1;
    table->used.top = PTRC_HASH_SLOTS;
    entry.trc_sts = 'h';
    check_ptrc_hash_tbl();
    EXPECT_EQ(settings.magic_code, TRACE_ON_MAGIC_CODE);
    EXPECT_EQ(log.count("@@@ process down: worker"), 1u);
}

TEST_F(Sweep, PassesOverSlotsThatDoNotExist) {
    PTRC_HASH_ARR& entry = table.add("worker", DEAD_PID);
    unsigned* used = table->used.idx;
    used[4] = used[0];
    used[0] = PTRC_HASH_SLOTS;
    used[1] = PTRC_HASH_SLOTS + 1;
    used[2] = 0x80000000u;
    used[3] = 0xffffffffu;
    table->used.top = 5;
    const std::string stacks(reinterpret_cast<char*>(&table->available), 2 * sizeof(PTRC_HASH_STK));
    check_ptrc_hash_tbl();
    EXPECT_EQ(entry.isalive, 0);
    EXPECT_EQ(std::memcmp(stacks.data(), &table->available, stacks.size()), 0);
}

TEST_F(Sweep, EndsNamesAndPidsWithoutTerminators) {
    PTRC_HASH_ARR& entry = table.add("", 1);
    std::memset(entry.proc_nm, 'x', sizeof entry.proc_nm);
    std::memset(entry.cont_nm, 'y', sizeof entry.cont_nm);
    std::memset(entry.pid, '9', sizeof entry.pid);
    std::memset(entry.tid, '1', sizeof entry.tid);
    check_ptrc_hash_tbl();
    EXPECT_EQ(log.lines().back(), "@@@ process down: " + std::string(31, 'x') + "(999999999)");
}

TEST_F(Sweep, DoesNothingWithoutATableOrAtTheEnd) {
    PTRC_HASH_ARR& entry = table.add("worker", DEAD_PID);
    running = 0;
    check_ptrc_hash_tbl();
    EXPECT_EQ(entry.isalive, 1);
    ptrc_hash_tbl = nullptr;
    log.clear();
    check_ptrc_hash_tbl();
    EXPECT_EQ(log.text(), "");
}

} // namespace

// The runtime settings segment: what its conversions take and refuse.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "tran_logf_que_info.h"

namespace {

using namespace kessard;

class Settings : public testing::Test {
  protected:
    TRAN_LOGF_QUE_INFO memory{};
    Settings() { que_info = &memory; }
    ~Settings() override { que_info = nullptr; }
};

TEST_F(Settings, TakesErrorSettingsAsCodeAndValue) {
    const struct {
        const char* text;
        int first;
        int last;
        char value;
    } taken[] = {{"5,1", 5, 5, 1},      {"127,2", 127, 127, 2}, {"128,2", 0, 127, 2},
                 {"-128,1", 0, 127, 1}, {"-5,1", 5, 5, 1},      {"x,2", 0, 0, 2}};
    for (const auto& one : taken) {
        memory = {};
        TRAN_LOGF_QUE_INFO wanted{};
        std::fill(wanted.fst_err_rc_set + one.first, wanted.fst_err_rc_set + one.last + 1, one.value);
        EXPECT_EQ(set_fst_err_rc_set(one.text), 0);
        EXPECT_EQ(std::memcmp(&memory, &wanted, sizeof memory), 0) << one.text;
    }
    const TRAN_LOGF_QUE_INFO before = memory;
    for (const char* refused : {"", "5", ",1", "5,", "5,3", "5,12", "5,x", "129,0", "-129,1", "99999999999999999999,1",
                                "-99999999999999999999,1"})
        EXPECT_EQ(set_fst_err_rc_set(refused), -1) << refused;
    EXPECT_EQ(std::memcmp(&memory, &before, sizeof memory), 0);
    EXPECT_STREQ(get_log_flag_set_str(0xff), "SEVBCIXQ");
}

TEST_F(Settings, StoresTheSaveSwitchesAsOneCharacter) {
    const struct {
        int n;
        char stored;
        int read;
    } cases[] = {{0, '0', 0}, {10, '1', 1}, {987, '9', 9}, {-3, '-', 0}, {INT_MIN, '-', 0}};
    for (const auto& one : cases) {
        EXPECT_EQ(set_save_apilog(one.n) + set_save_relllog(one.n), 2);
        EXPECT_EQ(memory.save_apilog_yn, one.stored);
        EXPECT_EQ(memory.save_relllog_yn, one.stored);
        EXPECT_EQ(get_save_apilog(), one.read);
        EXPECT_EQ(get_save_relllog(), one.read);
    }
}

TEST_F(Settings, ClearsOneDiscardCounterOrAll) {
    const struct {
        int index;
        int ret;
        int cleared;
    } cases[] = {{0, 0, 1}, {15, 0, 1}, {100, 0, 16}, {16, -1, 0}, {-1, -1, 0}, {101, -1, 0}};
    for (const auto& one : cases) {
        std::fill(memory.discard_qmsgs, memory.discard_qmsgs + 16, 7u);
        EXPECT_EQ(init_discard_qmsgs(one.index), one.ret) << one.index;
        EXPECT_EQ(std::count(memory.discard_qmsgs, memory.discard_qmsgs + 16, 0u), one.cleared) << one.index;
    }
}

} // namespace

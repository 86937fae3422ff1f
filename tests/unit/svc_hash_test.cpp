// The service table on the heap: what inserts, updates and deletes do to it, whatever is in it.
#include "cmd_event.h"
#include "set_svc_hash_tbl.h"

#include "checks.h"
#include "hash.h"
#include "server/service_file.h"
#include "settings.h"
#include "show_logs.h"
#include "tran_logf_que_info.h"

namespace {

using namespace kessard;
using namespace test_support;

constexpr int BUCKET = 77;

SERVICE_ELEMENT element(const std::string& id, char mode = 'A') {
    SERVICE_ELEMENT made = kessctl::make_service(id);
    made.update_mode[0] = mode;
    return made;
}

// Ids whose bucket is BUCKET.
texts same_bucket(std::size_t count) {
    texts ids;
    for (int i = 1000000; ids.size() < count; ++i) {
        const std::string id = "SVC" + std::to_string(i) + "      ";
        if (agt::get_hidx(id.data(), 16, 65535) == BUCKET)
            ids.push_back(id);
    }
    return ids;
}

class SvcHash : public testing::Test {
  protected:
    std::unique_ptr<SVC_HASH_TBL> memory = std::make_unique<SVC_HASH_TBL>();
    SVC_HASH_TBL& table = *memory;

    SvcHash() {
        svc_hash_tbl = &table;
        default_timeout_sec = 30;
        EXPECT_EQ(init_svc_hash_tbl(), 1);
    }
    ~SvcHash() override { svc_hash_tbl = nullptr; }

    int set(const SERVICE_ELEMENT& one) const {
        const SVC_HASH_ARR_LIST* slot = set_svc_hash_tbl(&one);
        return slot == nullptr ? -1 : static_cast<int>(slot - table.h_arr);
    }
    std::string chain() const {
        std::string slots;
        for (int s = table.h_idx[BUCKET]; s != -1 && slots.size() < 100;
             s = table.h_arr[s].next_idx)
            slots += std::to_string(s) + " ";
        return slots;
    }
};

TEST_F(SvcHash, HashesOneByteAtATime) {
    EXPECT_EQ(agt::get_hash_code("", 0), 0u);
    EXPECT_EQ(agt::get_hash_code("a", 1), 0xca2e9442u);
    EXPECT_EQ(agt::get_hash_code("The quick brown fox jumps over the lazy dog", 43), 0x519e91f5u);
    EXPECT_EQ(agt::get_hidx("a", 1, 0xffff), 0x9442u);
}

// Four come; the head, one in the middle and the tail go; the slot given back last is taken first.
TEST_F(SvcHash, LinksAndUnlinksChains) {
    const std::tuple<std::size_t, char, int, const char*> steps[] = {
        // the chain afterwards
        {0, 'A', 9999, "9999 "},           {1, 'A', 9998, "9999 9998 "},
        {2, 'A', 9997, "9999 9998 9997 "}, {3, 'A', 9996, "9999 9998 9997 9996 "},
        {0, 'D', 9999, "9998 9997 9996 "}, {2, 'D', 9997, "9998 9996 "},
        {3, 'D', 9996, "9998 "},           {0, 'A', 9996, "9998 9996 "},
        {0, 'D', 9996, "9998 "},           {1, 'D', 9998, ""}};
    const texts ids = same_bucket(4);
    for (const auto& [id, mode, slot, wanted] : steps) {
        EXPECT_EQ(set(element(ids[id], mode)), slot);
        EXPECT_EQ(chain(), wanted);
        EXPECT_EQ(table_fault(table), "");
        EXPECT_EQ(table.h_arr[slot].param.service_id, ids[id]); // one that went is left as it was
    }
}

TEST_F(SvcHash, ReadsFieldsOfAnyContent) {
    SERVICE_ELEMENT full;
    std::memset(&full, '7', sizeof full); // no terminator anywhere
    ASSERT_EQ(set(full), 9999);
    SVC_HASH_ARR& param = table.h_arr[9999].param;
    EXPECT_EQ(param.host_name + std::string(param.server_id), std::string(64 + 15, '7'));
    EXPECT_EQ(param.call_trc_depth, 77777);
    EXPECT_EQ(param.tflag, 7);
    param.is_sync = 5;         // not the daemon's
    full.service_id[16] = '8'; // behind the key
    full.update_mode[0] = 'Y';
    std::memcpy(full.uflag_set, "SQsq-   E", 9);
    const std::tuple<const char*, int, long> numbers[] = {
        {"0", 30, 0},        {"", 30, 0},      {"x1", 30, 0},
        {"-5", 30, -5},      {" 12x", 12, 12}, {"2147483647", INT_MAX, INT_MAX},
        {"4294967298", 2, 2}}; // one beyond an int loses its high bits
    for (const auto& [text, limit, sql_trc_limit] : numbers) {
        agt::put_text(full.limit, text);
        agt::put_text(full.sql_trc_limit, text);
        EXPECT_EQ(set(full), 9999);
        EXPECT_EQ(param.limit, limit) << text;
        EXPECT_EQ(param.sql_trc_limit, sql_trc_limit) << text;
    }
    EXPECT_EQ(static_cast<unsigned char>(param.uflag_set), 0x81);
    EXPECT_EQ(param.is_sync, 5);
}

// Whatever another process left in the segment, every operation ends and stays inside the table.
TEST_F(SvcHash, SurvivesACorruptTable) {
    std::mt19937 random(7);
    const texts ids = same_bucket(5);
    const auto index = [&] {
        static const int odd[] = {-1, -2, 10000, INT_MIN, INT_MAX};
        return random() % 2 == 0 ? odd[random() % 5] : static_cast<int>(random() % 10000);
    };
    for (int round = 0; round < 300; ++round) {
        init_svc_hash_tbl();
        for (const std::string& id : ids)
            set(element(id));
        for (int s = 9995; s <= 9999; ++s) {
            const int loop = 9995 + static_cast<int>(random() % 5);
            table.h_arr[s].next_idx = random() % 3 == 0 ? index() : loop;
            table.h_arr[s].pre_idx = index();
            table.h_arr[s].hash_idx = random() % 2 == 0 ? index() : 65536;
        }
        table.h_idx[BUCKET] = random() % 2 == 0 ? index() : 9999;
        table.available.top = static_cast<unsigned>(index());
        table.used.top = static_cast<unsigned>(index());
        for (unsigned i = 0; i < SVC_HASH_SLOTS; ++i)
            table.available.idx[i] = table.used.idx[i] = static_cast<unsigned>(index());
        for (unsigned i = 0; i < 20; ++i)
            set(element(i % 4 == 0 ? "NEW" + std::to_string(i) : ids[random() % 5],
                        "AYDZ"[random() % 4]));
        show_svc_hash_tbl(*copy_svc_hash_tbl(table));
    }
    EXPECT_EQ(init_svc_hash_tbl(), 1);
    EXPECT_EQ(table_fault(table), "");    // usable again
    table.h_idx[BUCKET] = SVC_HASH_SLOTS; // the first that is no slot
    EXPECT_EQ(set(element(ids[0])), 9999);
    EXPECT_EQ(table_fault(table), "");
}

TEST(Handlers, RefuseTheFlagsWithoutSettingsAndPassOverOtherTypes) {
    TCP_CMD_MSG request{};
    TCP_CMD_MSG answer{};
    request.hdr.msg_type[0] = MSG_SET_SYS_CONFIG_SET_REQ;
    ASSERT_EQ(que_info, nullptr);
    EXPECT_TRUE(handle_command(request, answer));
    EXPECT_EQ(answer.hdr.msg_type[0], MSG_SET_SYS_CONFIG_SET_RSP);
    EXPECT_EQ(answer.body.set_sys_config_set_rsp.result_code[0], '1');
    request.hdr.msg_type[0] = MSG_EXT_REQ;
    EXPECT_FALSE(handle_command(request, answer));
}

} // namespace

// Shared tables that another process has overwritten. The input starts with a struct case_head and
// a text that /proc has of every process, and goes on with patches (table_patches.h) over empty
// tables. Then everything runs that looks at them.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <iterator>

#include "check_ptrc_hash_tbl.h"
#include "check_worker.h"
#include "field.h"
#include "get_service_list.h"
#include "health_check.h"
#include "noti_send_que.h"
#include "parse_log_que.h"
#include "process_globals.h"
#include "ptrc_hash_stk.h"
#include "set_svc_hash_tbl.h"
#include "settings.h"
#include "show_logs.h"
#include "svc_hash_stk.h"
#include "table_patches.h"
#include "tran_agt.h"
#include "tran_logf_que_info.h"
#include "worker_cfg.h"

extern "C" int __real_open(const char* path, int flags, ...);
extern "C" int __wrap_open(const char* path, int flags, ...);

namespace {

using namespace kessard;
using fuzz::require;

constexpr char KNOWN_IDS[][17] = {"SVC1036797      ", "SVC1057286      ", "SVC1229397      ",
                                  "SVC0001         "};
constexpr char MODES[] = "AXYDZ";

struct [[gnu::packed]] case_head {
    std::uint8_t flags; // THREAD_MODE, FULL_TABLE
    std::int32_t sweep_period_sec;
    std::int32_t rest_sec;
    std::uint8_t operations[6]; // on services: the mode and the service
    std::uint8_t stat_length;
};
enum : std::uint8_t {
    THREAD_MODE = 2,
    FULL_TABLE = 0xf0
}; // all of these bits, for it takes its time

bool inputs_run = false;

const fuzz::memory_file& stat_file() {
    static const fuzz::memory_file made;
    return made;
}
bool has_stat = false;

void run_passes() {
    check_ptrc_hash_tbl();
    check_worker_pass();
    check_worker_pass(); // knows an entry of the pass before
    get_init_proc_num();
    get_ptrc_hashtbl_used_pcnt();
    ptrc_hash_push(&ptrc_hash_tbl->used, 7);
    ptrc_hash_pop(&ptrc_hash_tbl->used);
}

void use_services(const std::uint8_t (&operations)[6]) {
    for (const unsigned operation : operations) {
        SERVICE_ELEMENT element{};
        agt::put_text(element.service_id, KNOWN_IDS[operation % std::size(KNOWN_IDS)]);
        element.update_mode[0] = MODES[operation / std::size(KNOWN_IDS) % (std::size(MODES) - 1)];
        set_svc_hash_tbl(&element);
    }
    svc_hash_popv(&svc_hash_tbl->used, 9999);
    svc_hash_push(&svc_hash_tbl->available,
                  static_cast<unsigned>(svc_hash_pop(&svc_hash_tbl->used)));
    const svc_hash_tbl_copy copy = svc_hash_tbl->used.top - 1 < fuzz::MANY_ENTRIES
                                       ? copy_svc_hash_tbl(*svc_hash_tbl)
                                       : nullptr;
    if (copy != nullptr) {
        show_svc_hash_tbl(*copy);
        svc_hash_show(&svc_hash_tbl->used);
    }
}

// More puts than a queue that was nearly full has room for.
template <class Record>
void use_queue(int (*put)(const void*, std::size_t), Record* (*get)(), int (*count)()) {
    static const Record record{};
    for (int i = 0; i < 3; ++i)
        put(&record, sizeof record);
    require(count() >= 0 && count() < 32768, "a queue holds more than it can");
    for (int i = 0; i < 4; ++i) {
        const Record* taken = get();
        if (taken != nullptr) {
            Record copied;
            std::memcpy(static_cast<void*>(&copied), taken, sizeof copied);
        }
    }
}

// The server is there and says nothing.
void report() {
    const fuzz::far_end health("");
    fuzz::next_connection = health.near();
    bool reconnect = false;
    health_check_cycle(&reconnect);
    const fuzz::far_end device("");
    fuzz::next_connection = device.near();
    transfer_device_info();
    require(health.heard().size() == TCP_CMD_MSG_SIZE && device.heard().size() == TCP_CMD_MSG_SIZE,
            "a report was not sent");
}

void use_registry() {
    const fuzz::exact_text text(std::string(sizeof(BODY_HEALTH_CHECK_REQ::chk_msg) - 1, '.'));
    get_engine_sts(text.get());
    require(std::strlen(text.get()) < sizeof(BODY_HEALTH_CHECK_REQ::chk_msg),
            "the summary has no end");
    deactivate_process(0);
    for (int i = -1; i <= LOG_QUE_MAX; ++i)
        get_discard_qmsgs(i);
}

} // namespace

namespace kessard {

void th_start_get_service_list() {}

} // namespace kessard

// Every process has the text of the input, or none exists.
int __wrap_open(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    if (!inputs_run || std::string_view(path).substr(0, 6) != "/proc/")
        return __real_open(path, flags, mode);
    errno = ENOENT;
    lseek(stat_file().fd(), 0, SEEK_SET);
    return has_stat ? dup(stat_file().fd()) : -1;
}

void fuzz::set_up() {
    running = 1;
    make_tables();
    std::memcpy(worker_cfg.tr_section, "1", 2);
    char name[] = "trailsink";
    char* names[] = {name, nullptr};
    create_skip_hash(names);
    stat_file();
    inputs_run = true;
}

void fuzz::run(std::string_view input) {
    reader from(input);
    const auto head = from.number<case_head>();
    trc_sts_check_period = std::max(int{head.sweep_period_sec}, 0);
    worker_cfg.worker_rest_interval = std::max(int{head.rest_sec}, 60);
    worker_cfg.worker_mode =
        (head.flags & THREAD_MODE) != 0 ? WORKER_MODE_THREAD : WORKER_MODE_PROCESS;
    const std::string_view stat = from.text(head.stat_length);
    stat_file().set(stat);
    has_stat = !stat.empty();
    empty_tables();
    patch_tables(from);
    if ((head.flags & FULL_TABLE) != FULL_TABLE && ptrc_hash_tbl->used.top <= PTRC_HASH_SLOTS)
        ptrc_hash_tbl->used.top %= MANY_ENTRIES;
    run_passes();
    use_services(head.operations);
    use_queue(put_noti_send_que, get_noti_send_que, get_noti_send_queueing);
    use_queue(put_parse_log_que, get_parse_log_que, get_parse_log_queueing);
    use_registry();
    report();
    require(held_semaphores == 0, "a semaphore is still held");
}

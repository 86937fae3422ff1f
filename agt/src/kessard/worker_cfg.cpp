// Set-up of the worker watchdog.
#include "worker_cfg.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "hash_without_exit.h"

#include "field.h"
#include "log_printf.h"
#include "open_object.h"
#include "parse_log_que.h"
#include "settings.h"
#include "shortage.h"
#include "str_util.h"

namespace kessard {

worker_settings worker_cfg;
int parse_log_que_semid = -1;

namespace {

using agt::config_key_of;

struct ST_PROC_NAME {
    agt::skipped_name_text proc_nm;
    UT_hash_handle hh;
};
ST_PROC_NAME* skip_proc_list = nullptr;

bool read_tr_section() {
    std::string value;
    if (read_cfg(config_key_of("TRAN_LOGF", "TR_SECTION"), &value) != cfg_answer::found)
        return false;
    agt::copy_text(worker_cfg.tr_section, value.c_str());
    return true;
}

bool take_check_interval(const char* value) {
    worker_cfg.worker_check_interval = to_number(value);
    if (worker_cfg.worker_check_interval <= 0) {
        agt::log_printf("<!> WORKER_CHECK_INTERVAL is %d. finished job.",
                        worker_cfg.worker_check_interval);
        return false;
    }
    worker_cfg.worker_flag = 1;
    return true;
}

bool take_rest_interval(const char* value) {
    worker_cfg.worker_rest_interval = to_number(value);
    if (worker_cfg.worker_rest_interval < agt::LOWEST_REST_SEC) {
        agt::log_printf("<!> WORKER_REST_INTERVAL too low. default setting(60sec)");
        worker_cfg.worker_rest_interval = agt::LOWEST_REST_SEC;
    }
    return true;
}

bool take_mode(const char* value) {
    if (std::strcmp(value, "THREAD") == 0 || std::strcmp(value, "thread") == 0) {
        worker_cfg.worker_mode = WORKER_MODE_THREAD;
    } else if (std::strcmp(value, "PROCESS") == 0 || std::strcmp(value, "process") == 0) {
        worker_cfg.worker_mode = WORKER_MODE_PROCESS;
    } else {
        agt::log_printf("<!> WORKER_MODE init fail");
        return false;
    }
    return true;
}

// An empty name between two commas ends the list.
bool take_skip_list(const char* value) {
    char list[agt::CFG_WORD_SIZE];
    agt::copy_text(list, value);
    char* names[agt::SKIPPED_NAMES + 1] = {};
    agt::tran_str_n_token_single(list, ",", names, agt::SKIPPED_NAMES);
    create_skip_hash(names);
    return true;
}

constexpr cfg_step CFG_STEPS[] = {
    {config_key_of("KESSARD", "WORKER_CHECK_INTERVAL"), take_check_interval},
    {config_key_of("KESSARD", "WORKER_REST_INTERVAL"), take_rest_interval},
    {config_key_of("KESSARD", "WORKER_MODE"), take_mode},
    {config_key_of("KESSARD", "SKIP_PROC"), take_skip_list},
};

// The keys of the parse-log queues are read when these are created.
constexpr bool is_setting(const agt::config_key& key) {
    return key.reader == agt::key_reader::watchdog && key.kind != agt::key_kind::segment_key &&
           key.kind != agt::key_kind::semaphore_key;
}
static_assert(are_all_steps(CFG_STEPS, is_setting),
              "the table has a key without a step in its place");

bool take_key(const cfg_step& step) {
    std::string value;
    const cfg_answer answer = read_cfg(step.key, &value);
    return answer == cfg_answer::found ? step.take(value.c_str())
                                       : answer == cfg_answer::absent && step.key.may_be_absent();
}

} // namespace

int init_is_working() {
    if (read_tr_section() && std::all_of(std::begin(CFG_STEPS), std::end(CFG_STEPS), take_key))
        return create_parser_queue();
    log_shortage("settings of the watchdog", errno);
    return 0;
}

int create_skip_hash(char** names) {
    for (; *names != nullptr; ++names) {
        auto* record = static_cast<ST_PROC_NAME*>(std::calloc(1, sizeof(ST_PROC_NAME)));
        if (record == nullptr) {
            agt::log_printf("<!> create_skip_hash fail. (alloc fail)");
            return 0;
        }
        agt::copy_text(record->proc_nm, *names);
        HASH_ADD_STR(skip_proc_list, proc_nm, record);
    }
    return 1;
}

int find_skip_hash(const char* proc_nm) {
    ST_PROC_NAME* found = nullptr;
    const std::size_t length = agt::text_length(proc_nm, sizeof(ST_PROC_NAME::proc_nm));
    HASH_FIND(hh, skip_proc_list, proc_nm, length, found);
    return found != nullptr ? 1 : 0;
}

void delete_skip_hash() {
    ST_PROC_NAME* record = nullptr;
    ST_PROC_NAME* next = nullptr;
    HASH_ITER(hh, skip_proc_list, record, next) {
        HASH_DEL(skip_proc_list,
                 record); // NOLINT(clang-analyzer-unix.Malloc): HASH_ITER keeps the next one
        std::free(record);
    }
}

int create_parser_queue() {
    int semkey = 0;
    int shmkey = 0;
    if (!read_cfg_number(config_key_of("IPC_SEMAPHORE", "PARSE_LOG_QUE_SEMKEY"), &semkey) ||
        !read_cfg_number(config_key_of("IPC_SHARED_MEMORY", "PARSE_LOG_QUE_SHMKEY"), &shmkey))
        return 0;
    int existed = 0;
    if (create_parse_log_que(shmkey, 0, &existed) < 0) {
        log_object_error(agt::PARSE_QUEUES, shmkey);
        return 0;
    }
    log_object_complete(agt::PARSE_QUEUES, shmkey, existed != 0);
    opened_object semaphores;
    if (!open_logged_object(agt::PARSE_QUEUES_SEM, semkey, &semaphores))
        return 0;
    parse_log_que_semid = semaphores.id;
    return 1;
}

} // namespace kessard

// Set-up of the worker watchdog.
#include "worker_cfg.h"

#include <cstdlib>
#include <cstring>

#include "hash_without_exit.h"

#include "field.h"
#include "kessard/ptrc_hash_tbl.h"
#include "log_printf.h"
#include "open_object.h"
#include "parse_log_que.h"
#include "read_cfg.h"
#include "settings.h"
#include "str_util.h"

namespace kessard {

worker_settings worker_cfg;
int parse_log_que_semid = -1;

namespace {

constexpr int LOWEST_REST_SEC = 60;
constexpr int SKIP_NAME_MAX = 20;
constexpr char SECTION[] = "KESSARD";

struct ST_PROC_NAME {
    char proc_nm[sizeof(PTRC_HASH_ARR::proc_nm)];
    UT_hash_handle hh;
};
ST_PROC_NAME* skip_proc_list = nullptr;

bool read_tr_section() {
    return read_cfg_word("TRAN_LOGF", "TR_SECTION", worker_cfg.tr_section);
}

bool read_check_interval() {
    if (!read_cfg_number(SECTION, "WORKER_CHECK_INTERVAL", &worker_cfg.worker_check_interval))
        return false;
    if (worker_cfg.worker_check_interval <= 0) {
        agt::log_printf("<!> WORKER_CHECK_INTERVAL is %d. finished job.",
                        worker_cfg.worker_check_interval);
        return false;
    }
    worker_cfg.worker_flag = 1;
    return true;
}

bool read_rest_interval() {
    if (!read_cfg_number(SECTION, "WORKER_REST_INTERVAL", &worker_cfg.worker_rest_interval))
        return false;
    if (worker_cfg.worker_rest_interval < LOWEST_REST_SEC) {
        agt::log_printf("<!> WORKER_REST_INTERVAL too low. default setting(60sec)");
        worker_cfg.worker_rest_interval = LOWEST_REST_SEC;
    }
    return true;
}

bool read_mode() {
    char word[agt::CFG_WORD_SIZE];
    if (!read_cfg_word(SECTION, "WORKER_MODE", word))
        return false;
    if (std::strcmp(word, "THREAD") == 0 || std::strcmp(word, "thread") == 0) {
        worker_cfg.worker_mode = WORKER_MODE_THREAD;
    } else if (std::strcmp(word, "PROCESS") == 0 || std::strcmp(word, "process") == 0) {
        worker_cfg.worker_mode = WORKER_MODE_PROCESS;
    } else {
        agt::log_printf("<!> WORKER_MODE init fail");
        return false;
    }
    return true;
}

// An empty name between two commas ends the list.
bool read_skip_list() {
    char word[agt::CFG_WORD_SIZE];
    if (!read_cfg_word(SECTION, "SKIP_PROC", word))
        return false;
    char* names[SKIP_NAME_MAX + 1] = {};
    agt::tran_str_n_token_single(word, ",", names, SKIP_NAME_MAX);
    create_skip_hash(names);
    return true;
}

} // namespace

int init_is_working() {
    return read_tr_section() && read_check_interval() && read_rest_interval() && read_mode() &&
                   read_skip_list()
               ? create_parser_queue()
               : 0;
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
    if (!read_cfg_number("IPC_SEMAPHORE", "PARSE_LOG_QUE_SEMKEY", &semkey) ||
        !read_cfg_number("IPC_SHARED_MEMORY", "PARSE_LOG_QUE_SHMKEY", &shmkey))
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

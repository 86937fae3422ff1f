// Dumps to the log.
#include "show_logs.h"

#include "field.h"
#include "index_stack.h"
#include "log_printf.h"

namespace kessard {
namespace {

struct position {
    int i; // in the used stack
    int s; // slot
};

void show_number(agt::log_batch& log, position at, const char* name, long value) {
    log.printf("[%d] array_idx#%d, %s : %d", at.i, at.s, name, static_cast<int>(value));
}

template <std::size_t N> void show_text(agt::log_batch& log, position at, const char* name, const char (&text)[N]) {
    log.printf("[%d] array_idx#%d, %s : |%.*s|", at.i, at.s, name, static_cast<int>(N), text);
}

void show_slot(agt::log_batch& log, position at, const SVC_HASH_ARR_LIST& slot) {
    show_number(log, at, "my_idx", slot.my_idx);
    show_number(log, at, "hash_idx", slot.hash_idx);
    show_number(log, at, "pre_idx", slot.pre_idx);
    show_number(log, at, "next_idx", slot.next_idx);
    log.printf("- - - - - - - - - - - - - - - - - - - - - - - - - - - - - - - - - - ");
    show_text(log, at, "host_name", slot.param.host_name);
    show_text(log, at, "server_id", slot.param.server_id);
    show_text(log, at, "service_id", slot.param.service_id);
    show_number(log, at, "limit", slot.param.limit);
    show_number(log, at, "call_trc_limit", slot.param.call_trc_limit);
    show_number(log, at, "dbio_trc_limit", slot.param.dbio_trc_limit);
    show_number(log, at, "sql_trc_limit", slot.param.sql_trc_limit);
    show_number(log, at, "uflag_set", slot.param.uflag_set);
    show_number(log, at, "tflag", slot.param.tflag);
}

} // namespace

svc_hash_tbl_copy copy_svc_hash_tbl(const SVC_HASH_TBL& table) {
    svc_hash_tbl_copy copy(static_cast<SVC_HASH_TBL*>(std::malloc(sizeof table)));
    if (copy == nullptr)
        return copy;
    copy->alloc_cnt = shared_load(table.alloc_cnt);
    copy->used = table.used;
    const unsigned int used = stack_size(table.used);
    for (unsigned int i = 0; i < used; ++i) {
        const unsigned int s = table.used.idx[i];
        if (s < SVC_HASH_SLOTS)
            copy->h_arr[s] = table.h_arr[s];
    }
    return copy;
}

void show_svc_hash_tbl(const SVC_HASH_TBL& table) {
    agt::log_batch log;
    log.printf("------------------------ SERVICE HASH TABLE ----------------------------");
    log.printf("alloc_cnt : %d, used.top : %d\n", static_cast<int>(shared_load(table.alloc_cnt)),
               static_cast<int>(shared_load(table.used.top)));
    const unsigned int used = stack_size(table.used);
    for (unsigned int i = 0; i < used; ++i) {
        const unsigned int s = table.used.idx[i];
        if (s < SVC_HASH_SLOTS)
            show_slot(log, {static_cast<int>(i), static_cast<int>(s)}, table.h_arr[s]);
    }
}

} // namespace kessard

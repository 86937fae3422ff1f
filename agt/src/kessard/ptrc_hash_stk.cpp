// The trace table.
#include "ptrc_hash_stk.h"

#include "hash_chain.h"
#include "log_printf.h"
#include "open_object.h"
#include "settings.h"

namespace kessard {

PTRC_HASH_TBL* ptrc_hash_tbl = nullptr;

int create_ptrc_hash_tbl() {
    const table_objects objects = {agt::TRACE_TABLE, agt::TRACE_TABLE_SEM, ptrc_hash_tbl_shmkey,
                                   ptrc_hash_tbl_semkey};
    opened_table opened;
    if (!open_table(objects, &opened))
        return 0;
    ptrc_hash_tbl = static_cast<PTRC_HASH_TBL*>(opened.segment.address);
    if (opened.segment.existed || fill_new_table(objects, opened, init_ptrc_hash_tbl))
        log_object_complete(objects.segment, objects.shmkey, opened.segment.existed);
    log_unsound_table(objects, opened, *ptrc_hash_tbl);
    return 1;
}

int init_ptrc_hash_tbl() {
    agt::log_printf("(i) initializing.. ptrc_hash_tbl.");
    agt::clear_hash_tbl(*ptrc_hash_tbl);
    return 1;
}

int ptrc_hash_push(PTRC_HASH_STK* stack, unsigned int index) {
    return agt::stack_push(*stack, index);
}
int ptrc_hash_pop(PTRC_HASH_STK* stack) {
    return agt::stack_pop(*stack);
}
float get_ptrc_hashtbl_used_pcnt() {
    return agt::hash_tbl_used_pcnt(ptrc_hash_tbl);
}

} // namespace kessard

// The trace table.
#include "ptrc_hash_stk.h"

#include "hash_tbl.h"
#include "log_printf.h"
#include "settings.h"

namespace kessard {

PTRC_HASH_TBL* ptrc_hash_tbl = nullptr;

int create_ptrc_hash_tbl() {
    const hash_tbl_key key = {"ptrc_hash_tbl", ptrc_hash_tbl_shmkey, ptrc_hash_tbl_semkey,
                              sizeof(PTRC_HASH_TBL)};
    hash_tbl_object object;
    if (!open_hash_tbl(key, &object))
        return 0;
    ptrc_hash_tbl = static_cast<PTRC_HASH_TBL*>(object.address);
    if (object.existed || init_new_hash_tbl(key, object, init_ptrc_hash_tbl))
        log_hash_tbl_complete(key, object);
    return 1;
}

int init_ptrc_hash_tbl() {
    agt::log_printf("(i) initializing.. ptrc_hash_tbl.");
    clear_hash_tbl(*ptrc_hash_tbl);
    return 1;
}

int ptrc_hash_push(PTRC_HASH_STK* stack, unsigned int index) {
    return stack_push(*stack, index);
}
int ptrc_hash_pop(PTRC_HASH_STK* stack) {
    return stack_pop(*stack);
}
float get_ptrc_hashtbl_used_pcnt() {
    return hash_tbl_used_pcnt(ptrc_hash_tbl);
}

} // namespace kessard

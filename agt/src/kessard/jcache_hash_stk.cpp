// The cache table.
#include "jcache_hash_stk.h"

#include "hash_tbl.h"
#include "log_printf.h"
#include "settings.h"

namespace kessard {

JCACHE_HASH_TBL* jcache_hash_tbl = nullptr;

int create_jcache_hash_tbl() {
    const hash_tbl_key key = {"jcache_hash_tbl", jcache_hash_tbl_shmkey, jcache_hash_tbl_semkey,
                              sizeof(JCACHE_HASH_TBL)};
    hash_tbl_object object;
    if (!open_hash_tbl(key, &object))
        return 0;
    jcache_hash_tbl = static_cast<JCACHE_HASH_TBL*>(object.address);
    if (object.existed || init_new_hash_tbl(key, object, init_jcache_hash_tbl))
        log_hash_tbl_complete(key, object);
    return 1;
}

int init_jcache_hash_tbl() {
    agt::log_printf("(i) initializing.. jcache_hash_tbl.");
    clear_hash_tbl(*jcache_hash_tbl);
    return 1;
}

int jcache_hash_push(JCACHE_HASH_STK* stack, unsigned int index) {
    return stack_push(*stack, index);
}
int jcache_hash_pop(JCACHE_HASH_STK* stack) {
    return stack_pop(*stack);
}
float get_jcache_hashtbl_used_pcnt() {
    return hash_tbl_used_pcnt(jcache_hash_tbl);
}

} // namespace kessard

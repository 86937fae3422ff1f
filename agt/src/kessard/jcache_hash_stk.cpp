// The cache table.
#include "jcache_hash_stk.h"

#include "hash_chain.h"
#include "log_printf.h"
#include "open_object.h"
#include "settings.h"

namespace kessard {

JCACHE_HASH_TBL* jcache_hash_tbl = nullptr;

int create_jcache_hash_tbl() {
    const table_objects objects = {agt::CACHE_TABLE, agt::CACHE_TABLE_SEM, jcache_hash_tbl_shmkey,
                                   jcache_hash_tbl_semkey};
    opened_table opened;
    if (!open_table(objects, &opened))
        return 0;
    jcache_hash_tbl = static_cast<JCACHE_HASH_TBL*>(opened.segment.address);
    if (opened.segment.existed || fill_new_table(objects, opened, init_jcache_hash_tbl))
        log_object_complete(objects.segment, objects.shmkey, opened.segment.existed);
    log_unsound_table(objects, opened, *jcache_hash_tbl);
    return 1;
}

int init_jcache_hash_tbl() {
    agt::log_printf("(i) initializing.. jcache_hash_tbl.");
    agt::clear_hash_tbl(*jcache_hash_tbl);
    return 1;
}

int jcache_hash_push(JCACHE_HASH_STK* stack, unsigned int index) {
    return agt::stack_push(*stack, index);
}
int jcache_hash_pop(JCACHE_HASH_STK* stack) {
    return agt::stack_pop(*stack);
}
float get_jcache_hashtbl_used_pcnt() {
    return agt::hash_tbl_used_pcnt(jcache_hash_tbl);
}

} // namespace kessard

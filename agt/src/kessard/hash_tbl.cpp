// Creation of the shared hash tables.
#include "hash_tbl.h"

#include <cerrno>

namespace kessard {

bool open_hash_tbl(const hash_tbl_key& key, hash_tbl_object* object) {
    object->semid = agt::create_sem(key.semkey, 1);
    if (object->semid < 0) {
        agt::log_printf("<!> %s semaphore create error.[key:0x%x]", key.name,
                        static_cast<unsigned>(key.semkey));
        return false;
    }
    agt::log_printf("(i) %s semaphore create complete.[key:0x%x]", key.name,
                    static_cast<unsigned>(key.semkey));
    int existed = 0;
    object->shmid = agt::create_shm(key.shmkey, key.size, &existed);
    object->existed = existed != 0;
    object->address = object->shmid < 0 ? nullptr : agt::attach_shm(object->shmid);
    if (object->address == nullptr)
        agt::log_printf("<!> %s create error.[key:0x%x]", key.name,
                        static_cast<unsigned>(key.shmkey));
    return object->address != nullptr;
}

void log_hash_tbl_complete(const hash_tbl_key& key, const hash_tbl_object& object) {
    agt::log_printf("(i) %s %s complete.[key:0x%x]", key.name, object.existed ? "open" : "create",
                    static_cast<unsigned>(key.shmkey));
}

bool init_new_hash_tbl(const hash_tbl_key& key, const hash_tbl_object& object, int (*init)()) {
    if (object.existed || object.shmid <= 0)
        return false;
    const object_lock lock(key.name, object.semid);
    if (lock.given_up()) { // the next start must not take it for a table in order
        agt::remove_shm(object.shmid);
        return false;
    }
    init();
    return true;
}

object_lock::object_lock(const char* name, int semid)
    : hold_(semid, 0), given_up_(!hold_.held() && errno == ECANCELED) {
    if (!hold_.held() && !given_up_)
        agt::log_printf("<!> %s semaphore lock error.[semid:%d, errno:%d]", name, semid, errno);
}

} // namespace kessard

// Making or opening a shared object.
#include "open_object.h"

#include <cerrno>

#include "log_printf.h"
#include "shmem.h"
#include "shortage.h"
#include "state_file.h"

namespace kessard {
namespace {

bool open_set(const agt::shared_object& object, int key, opened_object* out) {
    out->id = agt::create_sem(key, static_cast<int>(object.size));
    return out->id >= 0;
}

bool open_segment(const agt::shared_object& object, int key, opened_object* out) {
    int existed = 0;
    out->id = agt::create_shm(key, object.size, &existed);
    out->existed = existed != 0;
    out->address = out->id < 0 ? nullptr : agt::attach_shm(out->id);
    return out->address != nullptr;
}

constexpr int AT_ONCE = 0; // no wait

// The place of the set that guards a segment.
int guard_row(const agt::shared_object& segment) {
    return agt::row_of(segment) + 1;
}

} // namespace

bool open_object(const agt::shared_object& object, int key, opened_object* out) {
    const bool is_set = object.kind == agt::object_kind::semaphores;
    return is_set ? open_set(object, key, out) : open_segment(object, key, out);
}

bool open_logged_object(const agt::shared_object& object, int key, opened_object* out) {
    if (!open_object(object, key, out)) {
        log_object_error(object, key);
        return false;
    }
    if (object.kind == agt::object_kind::semaphores)
        log_object_complete(object, key, false);
    return true;
}

void log_object_complete(const agt::shared_object& object, int key, bool existed) {
    agt::log_printf("(i) %s %s complete.[key:0x%x]", object.log_name, existed ? "open" : "create",
                    static_cast<unsigned>(key));
}

void log_object_error(const agt::shared_object& object, int key) {
    log_shortage(object.log_name, errno);
    agt::log_printf("<!> %s create error.[key:0x%x]", object.log_name, static_cast<unsigned>(key));
}

bool open_table(const table_objects& objects, opened_table* out) {
    return open_logged_object(objects.semaphores, objects.semkey, &out->semaphores) &&
           open_logged_object(objects.segment, objects.shmkey, &out->segment);
}

bool fill_new_table(const table_objects& objects, const opened_table& opened, int (*fill)()) {
    if (opened.segment.existed || opened.segment.id <= 0)
        return false;
    const object_lock lock(objects.segment, opened.semaphores.id);
    if (lock.given_up()) { // the next start must not take it for a table in order
        agt::remove_shm(opened.segment.id);
        agt::log_printf("(i) %s is not initialised and is removed again.[key:0x%x]",
                        objects.segment.log_name, static_cast<unsigned>(objects.shmkey));
        return false;
    }
    fill();
    return true;
}

void log_long_wait(const agt::shared_object& object, int semid) {
    agt::log_printf("<!> %s semaphore is taken, waiting for it. (pid %d)", object.log_name,
                    agt::sem_last_pid(semid, 0));
}

object_lock::object_lock(const agt::shared_object& object, int semid) : hold_(semid, 0, AT_ONCE) {
    if (is_taken()) {
        const semaphore_wait waits(guard_row(object), 0);
        hold_.try_again(LONG_WAIT_MS);
        if (is_taken()) {
            log_long_wait(object, semid);
            hold_.try_again(-1);
        }
    }
    judge(object, semid);
}

object_lock::object_lock(const agt::shared_object& object, int semid, int limit_ms)
    : hold_(semid, 0, AT_ONCE) {
    if (is_taken()) {
        const semaphore_wait waits(guard_row(object), 0);
        hold_.try_again(limit_ms);
    }
    judge(object, semid);
}

bool object_lock::is_taken() const {
    return !hold_.held() && errno == EAGAIN;
}

void object_lock::judge(const agt::shared_object& object, int semid) {
    if (hold_.held())
        return;
    given_up_ = errno == ECANCELED || errno == EAGAIN;
    if (!given_up_)
        agt::log_printf("<!> %s semaphore lock error.[semid:%d, errno:%d]", object.log_name, semid,
                        errno);
}

} // namespace kessard

// Making or opening a shared object: the one way to every System V object of the daemon, and to the
// semaphore that guards one.
#pragma once

#include "hash_chain.h"
#include "log_printf.h"
#include "sem.h"
#include "shared_objects.h"
#include "wait.h"

namespace kessard {

struct opened_object {
    int id = -1;             // of the segment or the semaphore set
    void* address = nullptr; // where a segment is attached
    bool existed = false;    // a segment that was opened with what it holds
};

// Makes the segment or the semaphore set of `key`, or opens it as it is when it exists, and
// attaches a segment. False on failure, with errno and without a log line.
[[nodiscard]] bool open_object(const agt::shared_object& object, int key, opened_object* out);

// The same with the line "<!> <log_name> create error.[key:0x%x]" on failure and, for a semaphore
// set, "(i) <log_name> create complete.[key:0x%x]", also when it existed.
[[nodiscard]] bool open_logged_object(const agt::shared_object& object, int key,
                                      opened_object* out);

// Logs "(i) <log_name> create complete.[key:0x%x]", or "open complete" for what existed.
void log_object_complete(const agt::shared_object& object, int key, bool existed);

// Logs "<!> <log_name> create error.[key:0x%x]".
void log_object_error(const agt::shared_object& object, int key);

// A hash table: its segment, the set that guards it, and their configured keys.
struct table_objects {
    const agt::shared_object& segment;
    const agt::shared_object& semaphores;
    int shmkey;
    int semkey;
};

struct opened_table {
    opened_object segment;
    opened_object semaphores;
};

// Opens the set, then the segment, with their log lines but the segment's "complete": a new one has
// to be filled first. False on failure.
[[nodiscard]] bool open_table(const table_objects& objects, opened_table* out);

// Runs `fill` under semaphore 0 of a new table. A segment whose identifier is 0 is left as the
// system gave it; one whose semaphore was given up is removed again. Whether it ran.
bool fill_new_table(const table_objects& objects, const opened_table& opened, int (*fill)());

inline constexpr int LONG_WAIT_MS = 1000; // for a semaphore; longer is logged once

// Logs that semaphore 0 of an object's set is waited for, and which process holds it.
void log_long_wait(const agt::shared_object& object, int semid);

// Holds semaphore 0 of a shared object's set. A set that is gone (removed under the daemon) is
// logged with the object's name and the work goes on without it. given_up() says that the semaphore
// was not got, because the daemon ends while another process holds it or because the limit is over:
// the object must not be touched then.
class object_lock {
  public:
    // Waits as long as it takes; more than a second is logged once.
    object_lock(const agt::shared_object& object, int semid);
    // Waits for at most `limit_ms` milliseconds.
    object_lock(const agt::shared_object& object, int semid, int limit_ms);

    bool given_up() const { return given_up_; }
    // Gives the semaphore back early; the result of sem_unlock, 0 when it was not held.
    int release() { return hold_.release(); }
    // Leaves the semaphore taken for the system to give back when the process ends.
    void keep() { hold_.keep(); }

  private:
    bool is_taken() const; // by somebody else, right behind an attempt
    void judge(const agt::shared_object& object, int semid);

    agt::sem_hold hold_;
    bool given_up_ = false;
};

// Logs a table whose stacks do not add up to its slots: one that was killed while it was made, or
// damaged later. It is used as it is.
template <class Table>
void log_unsound_table(const table_objects& objects, const opened_table& opened,
                       const Table& table) {
    constexpr int look_again_ms = 1000; // somebody may be changing it
    if (!opened.segment.existed || agt::stacks_add_up(table))
        return;
    const object_lock lock(objects.segment, opened.semaphores.id, look_again_ms);
    if (!agt::stacks_add_up(table) && !agt::cancelled())
        agt::log_printf("<!> %s is not in order : %u slots used, %u free of %d. (stop the agent, "
                        "run kessctl clean, start it)",
                        objects.segment.log_name, agt::shared_load(table.used.top),
                        agt::shared_load(table.available.top), agt::table_slots<Table>);
}

} // namespace kessard

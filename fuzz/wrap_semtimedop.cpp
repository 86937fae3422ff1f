// Semaphores that nobody else holds, counted.
#include <sys/sem.h>

#include <ctime>

#include "harness.h"

extern "C" int __wrap_semtimedop(int semid, sembuf* operations, std::size_t count,
                                 const timespec* limit);

int __wrap_semtimedop(int, sembuf* operations, std::size_t, const timespec*) {
    fuzz::held_semaphores -= operations->sem_op;
    fuzz::require((operations->sem_flg & SEM_UNDO) != 0,
                  "a semaphore is taken or given back without undo");
    return 0;
}

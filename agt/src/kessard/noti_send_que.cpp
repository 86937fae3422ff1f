// The notification queue.
#include "noti_send_que.h"

#include "ring_queue.h"
#include "shmem.h"

namespace kessard {
namespace {

NOTI_SEND_QUE_POOL* pool = nullptr;
NOTI_SEND_QUE* que = nullptr;

bool is_full() {
    return ring_full(*que);
}
bool is_empty() {
    return ring_empty(*que);
}

} // namespace

int create_noti_send_que(int key, int index, int* existed) {
    const int shmid = agt::create_shm(key, sizeof(NOTI_SEND_QUE_POOL), existed);
    if (shmid < 0)
        return shmid;
    pool = static_cast<NOTI_SEND_QUE_POOL*>(agt::attach_shm(shmid));
    if (pool == nullptr)
        return -1;
    que = &pool->que[index];
    if (*existed == 0) {
        shared_store(que->info.front, 0);
        shared_store(que->info.rear, 0);
    }
    return shmid;
}

int detach_noti_send_que() {
    const int ret = agt::detach_shm(pool);
    pool = nullptr;
    que = nullptr;
    return ret;
}

int put_noti_send_que(const void* record, std::size_t length) {
    return que == nullptr || is_full() ? -1 : ring_put(*que, record, length);
}

NOTI_SEND_QUE_DATA* get_noti_send_que() {
    return que == nullptr || is_empty() ? nullptr : ring_take(*que);
}

int get_noti_send_queueing() {
    return que == nullptr ? 0 : ring_count(*que);
}

} // namespace kessard

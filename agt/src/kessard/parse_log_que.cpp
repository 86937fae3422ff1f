// The parse-log queue.
#include "parse_log_que.h"

#include "ring_queue.h"
#include "shmem.h"

namespace kessard {
namespace {

PARSE_LOG_QUE_POOL* pool = nullptr;
PARSE_LOG_QUE* que = nullptr;

bool is_full() {
    return ring_full(*que);
}
bool is_empty() {
    return ring_empty(*que);
}

} // namespace

int create_parse_log_que(int key, int index, int* existed) {
    const int shmid = agt::create_shm(key, sizeof(PARSE_LOG_QUE_POOL), existed);
    if (shmid < 0)
        return shmid;
    pool = static_cast<PARSE_LOG_QUE_POOL*>(agt::attach_shm(shmid));
    if (pool == nullptr)
        return -1;
    que = &pool->que[index];
    if (*existed == 0) {
        shared_store(que->info.front, 0);
        shared_store(que->info.rear, 0);
    }
    return shmid;
}

int detach_parse_log_que() {
    const int ret = agt::detach_shm(pool);
    pool = nullptr;
    que = nullptr;
    return ret;
}

int put_parse_log_que(const void* record, std::size_t length) {
    return que == nullptr || is_full() ? -1 : ring_put(*que, record, length);
}

PARSE_LOG_QUE_DATA* get_parse_log_que() {
    return que == nullptr || is_empty() ? nullptr : ring_take(*que);
}

int get_parse_log_queueing() {
    return que == nullptr ? 0 : ring_count(*que);
}

} // namespace kessard

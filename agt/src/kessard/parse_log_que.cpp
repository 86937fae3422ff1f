// The parse-log queue.
#include "parse_log_que.h"

#include "ring_pool.h"

namespace kessard {
namespace {

ring_pool<PARSE_LOG_QUE_POOL> pool(agt::PARSE_QUEUES);

} // namespace

int create_parse_log_que(int key, int index, int* existed) {
    return pool.create(key, index, existed);
}
int detach_parse_log_que() {
    return pool.detach();
}
int put_parse_log_que(const void* record, std::size_t length) {
    return pool.put(record, length);
}
bool repair_parse_log_que() {
    return pool.repair_rear();
}
PARSE_LOG_QUE_DATA* get_parse_log_que() {
    return pool.take();
}
int get_parse_log_queueing() {
    return pool.count();
}

} // namespace kessard

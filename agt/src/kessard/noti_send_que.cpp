// The notification queue.
#include "noti_send_que.h"

#include "ring_pool.h"

namespace kessard {
namespace {

ring_pool<NOTI_SEND_QUE_POOL> pool(agt::NOTI_QUEUE);

} // namespace

int create_noti_send_que(int key, int index, int* existed) {
    return pool.create(key, index, existed);
}
int detach_noti_send_que() {
    return pool.detach();
}
int put_noti_send_que(const void* record, std::size_t length) {
    return pool.put(record, length);
}
bool noti_send_que_sound() {
    return pool.is_sound();
}
NOTI_SEND_QUE_DATA* get_noti_send_que() {
    return pool.take();
}
int get_noti_send_queueing() {
    return pool.count();
}

} // namespace kessard

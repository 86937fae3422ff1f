// The ring queues: one template, both kinds.
#include "ring_queue.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <memory>

#include "kessard/noti_send_que.h"
#include "kessard/parse_log_que.h"

namespace {

using namespace kessard;

template <class Queue> class RingQueue : public testing::Test {
  protected:
    std::unique_ptr<Queue, void (*)(void*)> memory{static_cast<Queue*>(std::calloc(1, sizeof(Queue))), std::free};
    Queue& queue = *memory;

    int put(int number) { return ring_put(queue, &number, sizeof number); }
    int take() {
        const auto* taken = ring_take(queue);
        int number = -1;
        if (taken != nullptr)
            std::memcpy(&number, taken, sizeof number);
        return number;
    }
};

using kinds = testing::Types<NOTI_SEND_QUE, PARSE_LOG_QUE>;
TYPED_TEST_SUITE(RingQueue, kinds);

TYPED_TEST(RingQueue, HoldsOneRecordLessThanItHasSlots) {
    EXPECT_EQ(this->take(), -1);
    EXPECT_EQ(this->queue.info.front, 0);
    for (int i = 1; i <= 32767; ++i)
        ASSERT_EQ(this->put(i), 1);
    EXPECT_EQ(ring_count(this->queue), 32767);
    EXPECT_EQ(this->put(99), -1);
    EXPECT_EQ(this->queue.info.rear, 32767); // the first record went into slot 1
    EXPECT_EQ(this->take(), 1);
    EXPECT_EQ(this->put(32768), 1);
    EXPECT_EQ(this->put(99), -1);
    for (int i = 2; i <= 32768; ++i)
        ASSERT_EQ(this->take(), i);
    EXPECT_EQ(this->take(), -1);
    this->queue.info = {32760, 5};
    EXPECT_EQ(ring_count(this->queue), 13);
    EXPECT_EQ(ring_put(this->queue, &this->queue, sizeof this->queue.data[0] + 1), -1);
}

TYPED_TEST(RingQueue, SurvivesIndexesOfAnyValue) {
    for (const int bad : {-1, 32768, INT_MIN, INT_MAX}) {
        this->queue.info = {0, bad};
        EXPECT_EQ(this->put(1), -1);
        EXPECT_EQ(this->take(), -1);
        EXPECT_EQ(ring_count(this->queue), 0);
        this->queue.info = {bad, 7};
        EXPECT_EQ(ring_count(this->queue), 0);
        EXPECT_EQ(this->take(), -1);
        EXPECT_EQ(this->put(8), 1); // usable again
        EXPECT_EQ(this->take(), 8);
    }
}

} // namespace

#include <gtest/gtest.h>

#include "RingQueue.h"
#include "container_fixture.h"
#include "pass_through.h"

namespace {

class RingQueue : public ContainerFixture {};

TEST_F(RingQueue, HoldsOnePointerLessThanItHasSlots) {
    CCRingQueue queue;
    int values[3] = {};
    ASSERT_TRUE(queue.Create(3));
    EXPECT_TRUE(queue.Add(&values[0]));
    EXPECT_TRUE(queue.Add(&values[1]));
    EXPECT_FALSE(queue.Add(&values[2]));
    void* out = nullptr;
    EXPECT_TRUE(queue.Get(&out, 0));
    EXPECT_EQ(out, &values[0]);
    EXPECT_TRUE(queue.Add(&values[2]));
    EXPECT_TRUE(queue.Get(&out, 0));
    EXPECT_TRUE(queue.Get(&out, 0));
    EXPECT_EQ(out, &values[2]);
    EXPECT_FALSE(queue.Get(&out, 0));
    queue.Destroy();
}

TEST_F(RingQueue, RefusesToHaveNoSlots) {
    CCRingQueue queue;
    EXPECT_FALSE(queue.Create(0));
}

TEST_F(RingQueue, UsedOutOfOrderItAsserts) {
    CCRingQueue queue;
    void* out = nullptr;
    EXPECT_FALSE(queue.Add(nullptr));
    EXPECT_FALSE(queue.Get(&out, 0));
    ASSERT_TRUE(queue.Create(2));
    EXPECT_FALSE(queue.Create(2));
    queue.Destroy();
    EXPECT_EQ(Assertions("m [core/src/RingQueue:55]"), 1);
    EXPECT_EQ(Assertions("m [core/src/RingQueue:72]"), 1);
    EXPECT_EQ(Assertions("!m [core/src/RingQueue:21]"), 1);
}

TEST_F(RingQueue, AnAdderAndAReaderMayWorkAtTheSameTime) {
    CCRingQueue queue;
    ASSERT_TRUE(queue.Create(8));
    PassThrough(queue);
    queue.Destroy();
}

}  // namespace

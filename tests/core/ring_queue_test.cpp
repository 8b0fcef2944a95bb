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

TEST_F(RingQueue, ThatIsTakenForFullWhileItIsEmptyGivesNothing) {
    CCRingQueue queue;
    ASSERT_TRUE(queue.Create(4));
    EXPECT_TRUE(queue.Give());
    void* value = this;
    EXPECT_FALSE(queue.Get(&value, 0));
    EXPECT_EQ(value, this);
    queue.Destroy();
}

TEST_F(RingQueue, UsedOutOfOrderItAssertsAndItRefusesToHaveNoSlots) {
    CCRingQueue queue;
    void* out = nullptr;
    EXPECT_FALSE(queue.Create(0));
    EXPECT_FALSE(queue.Add(nullptr));
    ASSERT_TRUE(queue.Create(2));
    EXPECT_FALSE(queue.Create(2));
    queue.Destroy();
    EXPECT_FALSE(queue.Get(&out, 0));
    queue.Destroy();
    ExpectAssertedOnceEach({"m [core/src/RingQueue:55]", "!m [core/src/RingQueue:21]",
                            "m [core/src/RingQueue:72]", "m [core/src/RingQueue:42]"});
}

TEST_F(RingQueue, ThatIsDestructedBeforeDestroyAsserts) {
    EXPECT_EXIT(ForgetQueue<CCRingQueue>("!m [core/inc/RingQueue:31]", 2U), testing::ExitedWithCode(1), "");
}

TEST_F(RingQueue, AnAdderAndAReaderMayWorkAtTheSameTime) {
    CCRingQueue queue;
    ASSERT_TRUE(queue.Create(8));
    PassThrough(queue);
    queue.Destroy();
}

}  // namespace

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "DynamicRingQueue.h"
#include "allocations.h"
#include "container_fixture.h"
#include "pass_through.h"

namespace {

class DynamicRingQueue : public ContainerFixture {};

TEST_F(DynamicRingQueue, TakesAnyNumberAndGivesThemBackInOrder) {
    std::vector<int> values(1000);
    CCDynamicRingQueue queue;
    ASSERT_TRUE(queue.Create());
    for (int& value : values) {
        ASSERT_TRUE(queue.Add(&value));
    }
    void* out = nullptr;
    for (int& value : values) {
        ASSERT_TRUE(queue.Get(&out, 0));
        ASSERT_EQ(out, &value);
    }
    EXPECT_FALSE(queue.Get(&out, 0));
    EXPECT_TRUE(queue.Add(&values[0]));
    queue.Destroy();  // the leak check sees what stays behind
    ASSERT_TRUE(queue.Create());
    EXPECT_FALSE(queue.Get(&out, 0));
    queue.Destroy();
}

TEST_F(DynamicRingQueue, TakesNoMoreMemoryHoweverLongItIsUsed) {
    int value = 0;
    CCDynamicRingQueue queue;
    ASSERT_TRUE(queue.Create());
    const auto pass = [&] {
        void* out = nullptr;
        EXPECT_TRUE(queue.Add(&value));
        EXPECT_TRUE(queue.Get(&out, 0));
    };
    pass();
    const long before = ThreadBlocksInUse();
    for (int i = 0; i < 1000; ++i) {
        pass();
    }
    EXPECT_LE(ThreadBlocksInUse(), before + 1);
    queue.Destroy();
    const std::unique_ptr<int> one = std::make_unique<int>(1);
    const long with = ThreadBlocksInUse();
    const std::unique_ptr<int> two = std::make_unique<int>(2);
    EXPECT_EQ(ThreadBlocksInUse(), with + 1) << "the counter counts";
}

TEST_F(DynamicRingQueue, AWakeUpWithoutANodeAsserts) {
    CCDynamicRingQueue queue;
    ASSERT_TRUE(queue.Create());
    queue.Give();
    void* out = nullptr;
    EXPECT_FALSE(queue.Get(&out, 0));
    EXPECT_EQ(fakes::dlog::Count("[core/src/RingQueue:398]"), 1);
    queue.Destroy();
}

TEST_F(DynamicRingQueue, UsedOutOfOrderItAsserts) {
    CCDynamicRingQueue queue;
    void* out = nullptr;
    EXPECT_FALSE(queue.Add(nullptr));
    EXPECT_FALSE(queue.Get(&out, 0));
    queue.Destroy();
    ASSERT_TRUE(queue.Create());
    EXPECT_FALSE(queue.Create());
    queue.Destroy();
    ExpectAssertedOnceEach({"m [core/src/RingQueue:342]", "m [core/src/RingQueue:378]",
                            "m [core/src/RingQueue:325]", "!m [core/src/RingQueue:303]"});
}

TEST_F(DynamicRingQueue, ThatIsDestructedBeforeDestroyAsserts) {
    EXPECT_EXIT(ForgetQueue<CCDynamicRingQueue>("!m [core/inc/RingQueue:96]"), testing::ExitedWithCode(1),
                "");
}

TEST_F(DynamicRingQueue, AnAdderAndAReaderMayWorkAtTheSameTime) {
    CCDynamicRingQueue queue;
    ASSERT_TRUE(queue.Create());
    PassThrough(queue);
    queue.Destroy();
}

}  // namespace

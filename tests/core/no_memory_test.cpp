/// What the runtime does when memory runs out: it fails and stays as it was.
#include <gtest/gtest.h>

#include "DynamicRingQueue.h"
#include "FixedRingQueue.h"
#include "IntegerHash.h"
#include "List.h"
#include "PointerArray.h"
#include "RingQueue.h"
#include "StringHash.h"
#include "container_fixture.h"
#include "failing_new.h"
#include "test_task.h"

namespace {

class NoMemory : public ContainerFixture {
protected:
    int m_values[16] = {};
};

TEST_F(NoMemory, AQueueIsNotCreatedAndCanBeLater) {
    CCRingQueue ring;
    CCFixedRingQueue fixed;
    CCDynamicRingQueue dynamic;

    EXPECT_GT(RunShortOfMemory([&] { return ring.Create(4); }), 2);
    EXPECT_GT(RunShortOfMemory([&] { return fixed.Create(sizeof(int), 4, true, false); }), 2);
    EXPECT_GT(RunShortOfMemory([&] { return dynamic.Create(); }), 0);

    EXPECT_TRUE(ring.Add(m_values));
    EXPECT_TRUE(fixed.Add(m_values));
    EXPECT_TRUE(dynamic.Add(m_values));
    ring.Destroy();
    fixed.Destroy();
    dynamic.Destroy();
}

TEST_F(NoMemory, ADynamicQueueTakesNothingAndKeepsWhatItHas) {
    CCDynamicRingQueue queue;
    ASSERT_TRUE(queue.Create());
    int added = 0;
    int refused = 0;
    while (refused == 0) {
        refused = RunShortOfMemory([&] { return queue.Add(m_values); });
        ++added;
    }
    void* out = nullptr;
    for (; added > 0; --added) {
        EXPECT_TRUE(queue.Get(&out, 0));
    }
    EXPECT_FALSE(queue.Get(&out, 0)) << "nothing of what was refused";
    queue.Destroy();
}

TEST_F(NoMemory, AListAndAnArrayTakeNothing) {
    CCList list;
    CCPointerArray array;

    EXPECT_EQ(RunShortOfMemory([&] { return list.Add(m_values, CCList::ADD_AFTER); }), 1);
    EXPECT_TRUE(list.Remove());
    EXPECT_FALSE(list.SetPosition(IPosition::POS_HEAD, 0)) << "there was one";

    FailAllocation(1);
    EXPECT_FALSE(array.Set(9, m_values));
    EXPECT_EQ(FailAllocation(0), 0U);
    EXPECT_EQ(array.Size(), 0);
    EXPECT_TRUE(array.Set(9, m_values));
    EXPECT_EQ(array.Size(), 10);
}

TEST_F(NoMemory, AHashIsNotCreatedAndTakesNothing) {
    CCIntegerHash numbers;
    CCStringHash texts;

    EXPECT_EQ(RunShortOfMemory([&] { return numbers.Create(8); }), 2);
    EXPECT_EQ(RunShortOfMemory([&] { return texts.Create(8, 0); }), 2);
    EXPECT_EQ(RunShortOfMemory([&] { return numbers.Add(7, m_values); }), 1);
    EXPECT_EQ(RunShortOfMemory([&] { return texts.Add("key", m_values); }), 2) << "the key is copied";

    EXPECT_EQ(numbers.Count(), 1U);
    EXPECT_EQ(texts.Count(), 1U);
    numbers.Destroy();
    EXPECT_TRUE(texts.SetPosition(IPosition::POS_HEAD, 0));
    EXPECT_TRUE(texts.Remove());
    texts.Destroy();
}

TEST_F(NoMemory, ATaskSetsNoTimerAnswersNoPingAndHandlesNoEvent) {
    TestTask task;
    ASSERT_TRUE(task.Create());

    EXPECT_EQ(RunShortOfMemory([&] { return task.SetTimer(1, 1000000); }), 2);
    EXPECT_TRUE(task.KillTimer(1));
    EXPECT_FALSE(task.KillTimer(1)) << "there is one";
    for (std::size_t allocation = 1; allocation <= 3; ++allocation) {
        FailAllocation(allocation);
        EXPECT_FALSE(task.Ping(60000));
        EXPECT_EQ(FailAllocation(0), 0U) << allocation;
    }
    EXPECT_TRUE(task.Ping(60000));
    EXPECT_GT(RunShortOfMemory([&] { return task.Post(EVENT_COUNT, true); }), 0);
    EXPECT_EQ(task.count.Value(), 1);
    task.Destroy();
}

TEST_F(NoMemory, AContainerThatWasNotCreatedAsserts) {
    CCRingQueue ring;
    CCFixedRingQueue fixed;
    CCIntegerHash hash;

    ring.Destroy();
    fixed.Destroy();
    hash.Destroy();
    EXPECT_FALSE(fixed.Add(m_values));
    EXPECT_FALSE(hash.Add(1, nullptr));

    ExpectAssertedOnceEach({"m [core/src/RingQueue:42]", "m [core/src/RingQueue:152]",
                            "m [core/src/RingQueue:171]", "m [core/src/IntegerHash:71]",
                            "m [core/src/IntegerHash:88]"});
}

}  // namespace

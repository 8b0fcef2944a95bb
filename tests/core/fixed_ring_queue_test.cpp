#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <fstream>
#include <future>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "FixedRingQueue.h"
#include "allocations.h"
#include "container_fixture.h"
#include "waiting.h"

namespace {

constexpr unsigned kSlots = 256;

class Queue : public CCFixedRingQueue {
public:
    using CCFixedRingQueue::t_RemoveIf;
};

class FixedRingQueue : public ContainerFixture {
protected:
    ~FixedRingQueue() override {
        if (m_created) {
            m_queue.Destroy();
        }
    }

    void Create(unsigned slots, bool lockGet = false) {
        m_created = m_queue.Create(sizeof(int), slots, true, lockGet);
        ASSERT_TRUE(m_created);
    }
    void AddAll(const std::vector<int>& values) {
        for (const int value : values) {
            ASSERT_TRUE(m_queue.Add(&value));
        }
    }
    std::optional<int> Get() {
        int value = 0;
        return m_queue.Get(&value, 0) ? std::optional<int>(value) : std::nullopt;
    }
    std::optional<int> Peek(int index) {
        int value = 0;
        return m_queue.Peek(index, &value) ? std::optional<int>(value) : std::nullopt;
    }

    Queue m_queue;
    bool m_created = false;
};

TEST_F(FixedRingQueue, With256SlotsItAccepts255ElementsAndGivesNoneOfAnEmptyQueue) {
    Create(kSlots);
    EXPECT_EQ(Get(), std::nullopt);
    for (int i = 0; i < 255; ++i) {
        ASSERT_TRUE(m_queue.Add(&i)) << i;
    }
    const int last = 255;
    EXPECT_FALSE(m_queue.Add(&last));
    EXPECT_EQ(m_queue.Size(), 255U);
}

TEST_F(FixedRingQueue, ARemovedElementKeepsItsShareOfTheSizeAndGetSkipsIt) {
    Create(kSlots);
    AddAll({1, 2, 3});
    EXPECT_TRUE(m_queue.Remove(0));
    EXPECT_EQ(m_queue.Size(), 3U);
    EXPECT_EQ(Get(), 2);
}

TEST_F(FixedRingQueue, WakeUpsLeftOverByRemovedElementsDoNotHoldUpLaterOnes) {
    Create(kSlots);
    AddAll({1, 2, 3});
    EXPECT_TRUE(m_queue.Remove(0));
    EXPECT_TRUE(m_queue.Remove(1));
    EXPECT_EQ(Get(), 3);
    EXPECT_EQ(Get(), std::nullopt);
    AddAll({4});
    EXPECT_EQ(Get(), 4);
    EXPECT_EQ(m_queue.Size(), 0U);
}

TEST_F(FixedRingQueue, ElementsComeOutInOrderAcrossTheEndOfTheRing) {
    Create(4);
    for (int round = 0; round < 10; ++round) {
        AddAll({round, round + 100, round + 200});
        EXPECT_EQ(Get(), round);
        EXPECT_EQ(Get(), round + 100);
        EXPECT_EQ(Get(), round + 200);
    }
    EXPECT_EQ(m_queue.Size(), 0U);
}

TEST_F(FixedRingQueue, ElementsThatComeOneByOneLieInOnePlace) {
    Create(kSlots);
    const void* place = nullptr;
    for (int value = 0; value < 10; ++value) {
        AddAll({value});
        const void* const before = place;
        const auto note = [](const void* element, const void* context) {
            **static_cast<const void** const*>(context) = element;
            return false;
        };
        const void** const out = &place;
        m_queue.t_RemoveIf(note, &out);
        EXPECT_TRUE(before == nullptr || before == place) << "and not in memory of its own";
        EXPECT_EQ(Get(), value);
    }
}

TEST_F(FixedRingQueue, PeekReadsWithoutTakingAndLikeRemoveRefusesPlacesThatHoldNothing) {
    Create(kSlots);
    AddAll({1, 2});
    EXPECT_EQ(Peek(1), 2);
    EXPECT_EQ(Peek(0), 1);
    for (const int place : {2, -1}) {
        EXPECT_EQ(Peek(place), std::nullopt);
        EXPECT_FALSE(m_queue.Remove(place));
    }
    EXPECT_TRUE(m_queue.Remove(1));
    EXPECT_EQ(Peek(1), std::nullopt);
    EXPECT_EQ(Get(), 1);
}

TEST_F(FixedRingQueue, ARefusedRemoveOfALockedQueueKeepsItForItsThread) {
    Create(kSlots, true);
    AddAll({1});
    EXPECT_FALSE(m_queue.Remove(5));
    EXPECT_EQ(Get(), 1) << "it may go on itself";
    m_queue.Destroy();
    Create(kSlots, true);
    std::async(std::launch::async, [this] { AddAll({2}); }).get();
    EXPECT_EQ(Get(), 2) << "the lock ends with the queue";
}

/// Whether a thread is blocked, as the system sees it.
bool Sleeps(pid_t thread) {
    std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string text;
    std::getline(stat, text);
    const std::size_t name = text.rfind(") ");
    return name != std::string::npos && text.compare(name, 3, ") S") == 0;
}

/// Ends the process: with 0 when another thread gets stuck in Add, with 1 when it comes back.
void AddElsewhere(CCFixedRingQueue* queue) {
    std::atomic<pid_t> adder{0};
    std::thread([queue, &adder] {
        const int value = 2;
        adder = static_cast<pid_t>(syscall(SYS_gettid));
        if (queue->Add(&value)) {
            _exit(1);
        }
    }).detach();
    _exit(Eventually([&] { return adder != 0 && Sleeps(adder); }) ? 0 : 2);
}

using FixedRingQueueDeathTest = FixedRingQueue;

TEST_F(FixedRingQueueDeathTest, ARefusedRemoveOfALockedQueueLocksOtherThreadsOut) {
    const auto refuse = [](bool lockGet) {
        CCFixedRingQueue queue;
        EXPECT_TRUE(queue.Create(sizeof(int), kSlots, true, lockGet));
        EXPECT_FALSE(queue.Remove(5));
        AddElsewhere(&queue);
    };
    EXPECT_EXIT(refuse(true), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(refuse(false), testing::ExitedWithCode(1), "");
}

TEST_F(FixedRingQueue, EveryMatchIsRemovedInOneStep) {
    Create(kSlots);
    AddAll({1, 2, 1, 3, 1});
    const int unwanted = 1;
    const auto equal = [](const void* element, const void* context) {
        return *static_cast<const int*>(element) == *static_cast<const int*>(context);
    };
    m_queue.t_RemoveIf(equal, &unwanted);
    EXPECT_EQ(m_queue.Size(), 5U) << "each keeps its place";
    EXPECT_EQ(Get(), 2);
    EXPECT_EQ(Get(), 3);
    EXPECT_EQ(Get(), std::nullopt);
}

TEST_F(FixedRingQueue, CreateRefusesAQueueWithoutSlotsOrBytes) {
    EXPECT_FALSE(m_queue.Create(sizeof(int), 0, true, false));
    EXPECT_FALSE(m_queue.Create(0, kSlots, true, false));
    EXPECT_FALSE(m_queue.Create(-1, kSlots, true, false));
    Create(kSlots);
}

TEST_F(FixedRingQueue, UsedBeforeCreateItAsserts) {
    int value = 0;
    EXPECT_FALSE(m_queue.Get(&value, 0));
    EXPECT_FALSE(m_queue.Peek(0, &value));
    EXPECT_FALSE(m_queue.Remove(0));
    EXPECT_EQ(m_queue.Size(), 0U);
    ExpectAssertedOnceEach({"m [core/src/RingQueue:201]", "m [core/src/RingQueue:238]",
                            "m [core/src/RingQueue:256]", "m [core/src/RingQueue:279]"});
}

TEST_F(FixedRingQueue, CreatedTwiceItAssertsAndKeepsItsElementsUntilItIsDestroyed) {
    Create(kSlots);
    AddAll({1, 2});
    EXPECT_FALSE(m_queue.Create(sizeof(int), kSlots, true, false));
    EXPECT_EQ(Assertions("!m [core/src/RingQueue:115]"), 1);
    EXPECT_EQ(Get(), 1);
    m_queue.Destroy();
    Create(4);
    EXPECT_EQ(m_queue.Size(), 0U);
    EXPECT_EQ(Get(), std::nullopt);
}

TEST_F(FixedRingQueueDeathTest, ThatIsDestructedBeforeDestroyAsserts) {
    EXPECT_EXIT(ForgetQueue<CCFixedRingQueue>("!m [core/inc/RingQueue:62]", 4, 2U, true, false),
                testing::ExitedWithCode(1), "");
}

TEST_F(FixedRingQueue, AddAndGetNeverAllocate) {
    using Event = std::array<unsigned char, 32>;
    constexpr int kRounds = 200;
    CCFixedRingQueue queue;
    CCSemaphore semaphore;
    ASSERT_TRUE(queue.Create(sizeof(Event), kSlots, true, false));
    ASSERT_TRUE(semaphore.Create(kRounds));
    Event event{};
    const auto allocationsOf = [](auto action) {
        const unsigned long before = ThreadAllocations();
        for (int i = 0; i < kRounds; ++i) {
            action();
        }
        return ThreadAllocations() - before;
    };
    EXPECT_EQ(allocationsOf([&] { EXPECT_TRUE(queue.Add(&event)); }), 0U);
    // The clock of the tests keeps a list of who waits; a bare wait shows its share.
    const unsigned long waiting = allocationsOf([&] { EXPECT_TRUE(semaphore.Try(0)); });
    EXPECT_EQ(allocationsOf([&] { EXPECT_TRUE(queue.Get(&event, 0)); }), waiting);
    EXPECT_EQ(queue.Size(), 0U);
    EXPECT_GT(allocationsOf([] { ::operator delete(::operator new(1)); }), 0U) << "the counter counts";
    queue.Destroy();
    semaphore.Destroy();
}

TEST_F(FixedRingQueue, ManyAddersAndOneReaderLoseAndRepeatNothing) {
    constexpr int kAdders = 4;
    constexpr int kEach = 2000;
    Create(16);
    std::vector<std::thread> adders;
    for (int adder = 0; adder < kAdders; ++adder) {
        adders.emplace_back([this, adder] {
            for (int i = 0; i < kEach; ++i) {
                const int value = adder * kEach + i;
                EXPECT_TRUE(Eventually([&] { return m_queue.Add(&value); }));
            }
        });
    }
    std::array<int, kAdders> next{};
    for (int received = 0; received < kAdders * kEach; ++received) {
        int value = 0;
        EXPECT_TRUE(Eventually([&] { return m_queue.Get(&value, 0); }));
        const auto adder = static_cast<std::size_t>(value / kEach);
        EXPECT_EQ(value % kEach, next.at(adder)++) << "each adder's elements keep their order";
    }
    for (std::thread& adder : adders) {
        adder.join();
    }
    EXPECT_EQ(Get(), std::nullopt);
}

TEST_F(FixedRingQueue, PeekAndRemoveFromAnotherThreadDisturbNeitherAddersNorReader) {
    constexpr int kValues = 5000;
    Create(16);
    std::thread adder([this] {
        for (int value = 1; value <= kValues; ++value) {
            EXPECT_TRUE(Eventually([&] { return m_queue.Add(&value); }));
        }
    });
    int removed = 0;
    std::thread remover([this, &removed] {
        const auto odd = [](const void* element, const void* count) {
            const bool match = *static_cast<const int*>(element) % 2 != 0;
            **static_cast<int* const*>(count) += match ? 1 : 0;
            return match;
        };
        int* const count = &removed;
        for (int i = 0; i < 500; ++i) {
            Peek(i % 16);
            m_queue.t_RemoveIf(odd, &count);
        }
    });
    int last = 0;
    int received = 0;
    for (int value = 0; last < kValues; ++received) {
        EXPECT_TRUE(Eventually([&] { return m_queue.Get(&value, 0); }));
        EXPECT_GT(value, last);
        last = value;
    }
    adder.join();
    remover.join();
    EXPECT_EQ(received + removed, kValues);
}

}  // namespace

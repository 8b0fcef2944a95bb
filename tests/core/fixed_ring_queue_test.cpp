#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "FixedRingQueue.h"
#include "allocation_counter.h"
#include "container_fixture.h"

namespace {

constexpr unsigned kSlots = 256;

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

    CCFixedRingQueue m_queue;
    bool m_created = false;
};

TEST_F(FixedRingQueue, With256SlotsItAccepts255Elements) {
    Create(kSlots);
    for (int i = 0; i < 255; ++i) {
        ASSERT_TRUE(m_queue.Add(&i)) << i;
    }
    const int last = 255;
    EXPECT_FALSE(m_queue.Add(&last));
    EXPECT_EQ(m_queue.Size(), 255U);
}

TEST_F(FixedRingQueue, GetWithoutAWaitOnAnEmptyQueueReturnsFalse) {
    Create(kSlots);
    EXPECT_EQ(Get(), std::nullopt);
}

TEST_F(FixedRingQueue, ARemovedElementKeepsItsShareOfTheSizeAndGetSkipsIt) {
    Create(kSlots);
    AddAll({1, 2, 3});
    EXPECT_TRUE(m_queue.Remove(0));
    EXPECT_EQ(m_queue.Size(), 3U);
    EXPECT_EQ(Get(), 2);
}

TEST_F(FixedRingQueue, AWakeUpForARemovedElementFindsNothing) {
    Create(kSlots);
    AddAll({1});
    EXPECT_TRUE(m_queue.Remove(0));
    EXPECT_EQ(Get(), std::nullopt);
    AddAll({2});
    EXPECT_EQ(Get(), 2);
}

TEST_F(FixedRingQueue, WakeUpsLeftOverByRemovedElementsDoNotHoldUpLaterOnes) {
    Create(kSlots);
    AddAll({1, 2, 3});
    m_queue.Remove(0);
    m_queue.Remove(1);
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

TEST_F(FixedRingQueue, PeekReadsWithoutTaking) {
    Create(kSlots);
    AddAll({1, 2});
    EXPECT_EQ(Peek(1), 2);
    EXPECT_EQ(Peek(0), 1);
    EXPECT_EQ(Get(), 1);
}

TEST_F(FixedRingQueue, PeekRefusesRemovedElementsAndPlacesOutOfRange) {
    Create(kSlots);
    AddAll({1});
    EXPECT_EQ(Peek(1), std::nullopt);
    EXPECT_EQ(Peek(-1), std::nullopt);
    m_queue.Remove(0);
    EXPECT_EQ(Peek(0), std::nullopt);
}

TEST_F(FixedRingQueue, RemoveRefusesPlacesOutOfRange) {
    Create(kSlots);
    AddAll({1});
    EXPECT_FALSE(m_queue.Remove(1));
    EXPECT_FALSE(m_queue.Remove(-1));
    EXPECT_EQ(Get(), 1);
}

TEST_F(FixedRingQueue, ARefusedRemoveOfALockedQueueKeepsTheMutexForItsThread) {
    Create(kSlots, true);
    AddAll({1});
    EXPECT_FALSE(m_queue.Remove(5));
    EXPECT_EQ(Get(), 1) << "the mutex is recursive";
}

TEST_F(FixedRingQueue, RemoveIfTakesOutEveryMatchInOneStep) {
    Create(kSlots);
    AddAll({1, 2, 1, 3, 1});
    const int unwanted = 1;
    const auto equal = [](const void* element, const void* context) {
        return *static_cast<const int*>(element) == *static_cast<const int*>(context);
    };
    EXPECT_EQ(m_queue.RemoveIf(equal, &unwanted), 3);
    EXPECT_EQ(m_queue.RemoveIf(equal, &unwanted), 0);
    EXPECT_EQ(Get(), 2);
    EXPECT_EQ(Get(), 3);
    EXPECT_EQ(Get(), std::nullopt);
}

TEST_F(FixedRingQueue, RemoveIfMakesRoomInAFullQueueAtOnce) {
    Create(4);
    AddAll({1, 2, 1});
    const auto isOne = [](const void* element, const void*) {
        return *static_cast<const int*>(element) == 1;
    };
    const auto all = [](const void*, const void*) { return true; };
    EXPECT_EQ(m_queue.RemoveIf(isOne, nullptr), 2);
    EXPECT_EQ(m_queue.Size(), 1U);
    AddAll({3, 4});
    EXPECT_EQ(Get(), 2);
    EXPECT_EQ(m_queue.RemoveIf(all, nullptr), 2);
    EXPECT_EQ(m_queue.Size(), 0U);
    AddAll({5, 6, 7});
    EXPECT_EQ(Get(), 5);
    EXPECT_EQ(Get(), 6);
    EXPECT_EQ(Get(), 7);
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
    for (const char* const line : {"201", "238", "256", "279"}) {
        EXPECT_EQ(Assertions(std::string("m [core/src/RingQueue:") + line + "]"), 1) << line;
    }
}

TEST_F(FixedRingQueue, CreatedTwiceItAssertsAndKeepsItsElements) {
    Create(kSlots);
    AddAll({1});
    EXPECT_FALSE(m_queue.Create(sizeof(int), kSlots, true, false));
    EXPECT_EQ(Assertions("!m [core/src/RingQueue:115]"), 1);
    EXPECT_EQ(Get(), 1);
}

TEST_F(FixedRingQueue, CanBeCreatedAgainAfterDestroy) {
    Create(kSlots);
    AddAll({1});
    m_queue.Destroy();
    Create(4);
    EXPECT_EQ(m_queue.Size(), 0U);
    EXPECT_EQ(Get(), std::nullopt);
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
    EXPECT_EQ(allocationsOf([&] { queue.Add(&event); }), 0U);
    // The clock of the tests keeps a list of who waits; a bare wait shows its share.
    const unsigned long waiting = allocationsOf([&] { semaphore.Try(0); });
    EXPECT_EQ(allocationsOf([&] { queue.Get(&event, 0); }), waiting);
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
                while (!m_queue.Add(&value)) {
                    std::this_thread::yield();
                }
            }
        });
    }
    std::array<int, kAdders> next{};
    for (int received = 0; received < kAdders * kEach;) {
        const std::optional<int> value = Get();
        if (!value) {
            std::this_thread::yield();
            continue;
        }
        const auto adder = static_cast<std::size_t>(*value / kEach);
        EXPECT_EQ(*value % kEach, next.at(adder)++) << "each adder's elements keep their order";
        ++received;
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
            while (!m_queue.Add(&value)) {
                std::this_thread::yield();
            }
        }
    });
    int removed = 0;
    std::thread remover([this, &removed] {
        const auto odd = [](const void* element, const void*) {
            return *static_cast<const int*>(element) % 2 != 0;
        };
        for (int i = 0; i < 500; ++i) {
            Peek(i % 16);
            removed += m_queue.RemoveIf(odd, nullptr);
        }
    });
    int last = 0;
    int received = 0;
    while (last < kValues) {
        const std::optional<int> value = Get();
        if (value) {
            EXPECT_GT(*value, last);
            last = *value;
            ++received;
        }
        std::this_thread::yield();
    }
    adder.join();
    remover.join();
    EXPECT_EQ(received + removed, kValues);
}

}  // namespace

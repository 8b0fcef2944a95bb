#include <pthread.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "AutoLock.h"
#include "Mutex.h"
#include "Semaphore.h"
#include "death.h"
#include "fake_clock.h"
#include "log_fixture.h"
#include "waiting.h"

namespace {

using std::chrono::milliseconds;

/// Runs `action` on another thread and returns its result.
template <class Action>
auto Elsewhere(Action action) {
    return std::async(std::launch::async, action).get();
}

class Semaphore : public RuntimeLog {
protected:
    ~Semaphore() override {
        if (m_semaphore.FlagCreate()) {
            m_semaphore.Destroy();
        }
    }
    CCSemaphore m_semaphore;
};

TEST_F(Semaphore, CanBeTakenAsOftenAsItsValueAndEveryGive) {
    ASSERT_TRUE(m_semaphore.Create(2));
    EXPECT_TRUE(m_semaphore.Take());
    EXPECT_TRUE(m_semaphore.Try(0));
    EXPECT_FALSE(m_semaphore.Try(0));
    EXPECT_TRUE(m_semaphore.Give());
    EXPECT_TRUE(m_semaphore.Try(0));
}

TEST_F(Semaphore, ASignalDoesNotEndAWait) {
    static std::atomic<int> handled;
    handled = 0;
    struct sigaction action {};
    struct sigaction old {};
    action.sa_handler = [](int /*signal*/) { ++handled; };  // without SA_RESTART
    sigaction(SIGUSR1, &action, &old);
    ASSERT_TRUE(m_semaphore.Create(0));
    std::atomic<bool> isTaken{false};
    std::thread taker([&] { isTaken = m_semaphore.Take(); });

    // The first may come before the wait, but each of the others finds the thread back in it or at its end.
    for (int signals = 1; signals <= 20 && !isTaken; ++signals) {
        pthread_kill(taker.native_handle(), SIGUSR1);
        EXPECT_TRUE(Eventually([&] { return handled == signals || isTaken; }));
    }
    EXPECT_FALSE(isTaken);

    m_semaphore.Give();
    taker.join();
    EXPECT_TRUE(isTaken);
    sigaction(SIGUSR1, &old, nullptr);
}

TEST_F(Semaphore, AWaitWhoseMillisecondsPassTheSecondFailsAtOnce) {
    ASSERT_TRUE(m_semaphore.Create(1));
    fakes::clock::SetWall(fakes::clock::kEpoch, 600000000);
    EXPECT_FALSE(m_semaphore.Try(1500)) << "even though it could be taken";
    EXPECT_TRUE(m_semaphore.Try(1399));
}

TEST_F(Semaphore, AWaitWhoseMillisecondsStayInTheSecondLastsItsTime) {
    ASSERT_TRUE(m_semaphore.Create(0));
    fakes::clock::SetWall(fakes::clock::kEpoch, 400000000);
    std::future<bool> taken = std::async(std::launch::async, [this] { return m_semaphore.Try(1500); });
    EXPECT_TRUE(fakes::clock::AwaitSleeper(milliseconds(1500)));
    fakes::clock::Advance(milliseconds(1500));
    EXPECT_FALSE(taken.get());
}

TEST_F(Semaphore, AGiveEndsATimedWait) {
    ASSERT_TRUE(m_semaphore.Create(0));
    std::future<bool> taken = std::async(std::launch::async, [this] { return m_semaphore.Try(500); });
    EXPECT_TRUE(fakes::clock::AwaitSleeper(milliseconds(500)));
    m_semaphore.Give();
    EXPECT_TRUE(taken.get());
}

TEST_F(Semaphore, AValueThePlatformRefusesIsAFailedCreateAndItCanBeCreatedAgain) {
    EXPECT_FALSE(m_semaphore.Create(0x80000000U));
    EXPECT_FALSE(m_semaphore.FlagCreate());
    ASSERT_TRUE(m_semaphore.Create(0));
    m_semaphore.Destroy();
    ASSERT_TRUE(m_semaphore.Create(1));
    EXPECT_TRUE(m_semaphore.Try(0));
}

TEST_F(Semaphore, UsedOutsideOfCreateAndDestroyItEndsTheProcess) {
    const auto ends = [](auto operation, const std::string& report) {
        SurviveAssertions();  // each ending process takes the test's machine with it
        EXPECT_EXIT(Reporting(operation), testing::ExitedWithCode(0), report);
    };
    ends([this] { m_semaphore.Destroy(); }, "\\[core/src/Semaphore:35\\] ASSERT: m$");
    ends([this] { m_semaphore.Take(); }, "\\[core/src/Semaphore:45\\] ASSERT: m$");
    ends([this] { m_semaphore.Give(); }, "\\[core/src/Semaphore:54\\] ASSERT: m$");
    ends([this] { static_cast<void>(m_semaphore.Try(0)); },  // does not return
         "\\[core/src/Semaphore:63\\] ASSERT: m$");
    ASSERT_TRUE(m_semaphore.Create(0));
    ends([this] { static_cast<void>(m_semaphore.Create(0)); }, "\\[core/src/Semaphore:15\\] ASSERT: !m$");
}

TEST_F(Semaphore, ThatIsDestructedBeforeDestroyCrashesTheProcess) {
    const auto forget = [] {
        CCSemaphore forgotten;
        EXPECT_TRUE(forgotten.Create(0));
    };
    EXPECT_EXIT(Reporting(forget), Crashed, "\\[core/inc/Semaphore:30\\] ASSERT: !m");
}

class Mutex : public RuntimeLog {
protected:
    Mutex() { EXPECT_TRUE(m_mutex.Create()); }
    ~Mutex() override { m_mutex.Destroy(); }
    /// Whether another thread could take it now.
    bool Free() {
        return Elsewhere([this] { return m_mutex.Try(0) && m_mutex.Unlock(); });
    }
    CCMutex m_mutex;
};

TEST_F(Mutex, LockedThreeTimesNeedsThreeUnlocks) {
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(m_mutex.Lock());
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(Free());
        EXPECT_TRUE(m_mutex.Unlock());
    }
    EXPECT_TRUE(Free());
    EXPECT_FALSE(m_mutex.Unlock()) << "a fourth";
}

TEST_F(Mutex, ATryOfTheHolderCountsToo) {
    EXPECT_TRUE(m_mutex.Try(0));
    EXPECT_TRUE(m_mutex.Try(0));
    EXPECT_TRUE(m_mutex.Unlock());
    EXPECT_FALSE(Free());
    EXPECT_TRUE(m_mutex.Unlock());
    EXPECT_TRUE(Free());
}

TEST_F(Mutex, NamesItsHolderAndCannotBeUnlockedByAnotherThread) {
    EXPECT_EQ(m_mutex.LockerId(), 0U);
    m_mutex.Lock();
    EXPECT_FALSE(Elsewhere([this] { return m_mutex.Unlock(); }));
    EXPECT_FALSE(Free());
    EXPECT_EQ(Elsewhere([this] { return m_mutex.LockerId(); }), ThreadId());
    EXPECT_TRUE(m_mutex.Unlock());
    EXPECT_EQ(m_mutex.LockerId(), 0U);
}

TEST_F(Mutex, ATimedTryOfAHeldMutexGivesUp) {
    m_mutex.Lock();
    std::future<bool> taken = std::async(std::launch::async, [this] { return m_mutex.Try(200); });
    EXPECT_TRUE(fakes::clock::AwaitSleeper(milliseconds(200)));
    fakes::clock::Advance(milliseconds(200));
    EXPECT_FALSE(taken.get());
    EXPECT_TRUE(m_mutex.Unlock());
}

TEST_F(Mutex, KeepsThreadsApart) {
    int value = 0;
    const auto count = [&] {
        for (int i = 0; i < 1000; ++i) {
            const CCAutoLock lock(&m_mutex);
            ++value;
        }
    };
    std::thread other(count);
    count();
    other.join();
    EXPECT_EQ(value, 2000);
}

TEST_F(Mutex, AScopedLockHoldsItAsLongAsItLivesAndLeavesOneAloneThatIsNotCreated) {
    {
        const CCAutoLock lock(&m_mutex);
        EXPECT_FALSE(Free());
    }
    EXPECT_TRUE(Free());
    CCMutex other;
    { const CCAutoLock lock(&other); }
    { const CCAutoLock lock(nullptr); }
    EXPECT_TRUE(fakes::dlog::Lines().empty());
}

TEST_F(Mutex, UsedOutsideOfCreateAndDestroyItAsserts) {
    SurviveAssertions();
    CCMutex other;
    EXPECT_FALSE(other.Lock());
    EXPECT_FALSE(other.Unlock());
    EXPECT_FALSE(other.Try(0));
    EXPECT_EQ(other.LockerId(), 0U);
    other.Destroy();
    EXPECT_FALSE(m_mutex.Create());

    ExpectAssertedOnceEach({"m [core/src/Mutex:48]", "m [core/src/Mutex:67]", "m [core/src/Mutex:87]",
                            "m [core/src/Mutex:109]", "m [core/src/Mutex:37]", "!m [core/src/Mutex:15]"});
}

TEST_F(Mutex, ThatIsDestructedBeforeDestroyCrashesTheProcess) {
    Configure("PRINT\nZ:E\n");
    const auto forget = [] {
        CCMutex forgotten;
        EXPECT_TRUE(forgotten.Create());
    };
    EXPECT_EXIT(Reporting(forget), Crashed, "ASSERT: !m \\[core/inc/Mutex:30\\]");
}

}  // namespace

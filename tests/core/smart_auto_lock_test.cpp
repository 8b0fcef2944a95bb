#include <fcntl.h>
#include <glib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <new>
#include <string>
#include <thread>

#include "SmartAutoLock.h"
#include "gate.h"
#include "log_fixture.h"

namespace {

constexpr gint64 kInterval = 5000000;  // microseconds

/// A scoped lock whose address is known before its constructor returns.
class Place {
public:
    void* Address() { return m_memory; }
    void Lock(CCMutex* mutex, void* tag) { m_lock = new (m_memory) CSmartAutoLock(mutex, tag); }
    void Unlock() { m_lock->~CSmartAutoLock(); }

private:
    alignas(CSmartAutoLock) unsigned char m_memory[sizeof(CSmartAutoLock)] = {};
    CSmartAutoLock* m_lock = nullptr;
};

class LockWatchdog : public RuntimeLog {
protected:
    LockWatchdog() { EXPECT_TRUE(m_mutex.Create() && m_other.Create()); }
    ~LockWatchdog() override {
        m_mutex.Destroy();
        m_other.Destroy();
    }

    static GSource* Source(void* lock) { return g_main_context_find_source_by_user_data(nullptr, lock); }

    /// Lets the five seconds of the watchdog pass. Returns whether it really waits for five.
    static bool PassInterval(void* lock) {
        GSource* source = Source(lock);
        const gint64 left = source != nullptr ? g_source_get_ready_time(source) - g_get_monotonic_time() : -1;
        if (left > kInterval) {
            return false;
        }
        g_source_set_ready_time(source, 0);
        const gint64 before = g_get_monotonic_time();
        g_main_context_iteration(nullptr, FALSE);
        const gint64 next = g_source_get_ready_time(source);
        return next >= before + kInterval && next <= g_get_monotonic_time() + kInterval;
    }

    static std::string Hex(unsigned long id) {
        char text[32];
        std::snprintf(text, sizeof(text), "%lx", id);
        return text;
    }
    static std::string Pointer(const void* tag) {
        char text[32];
        std::snprintf(text, sizeof(text), "%p", tag);
        return text;
    }

    CCMutex m_mutex;
    CCMutex m_other;
};

TEST_F(LockWatchdog, ALockHeldForTwelveSecondsTakesTooLongTwice) {
    for (void* const tag : {static_cast<void*>(&m_mutex), static_cast<void*>(nullptr)}) {
        fakes::dlog::Clear();
        Place lock;
        lock.Lock(&m_mutex, tag);
        EXPECT_TRUE(PassInterval(lock.Address())) << "at 5 seconds";
        EXPECT_TRUE(PassInterval(lock.Address())) << "at 10 seconds";
        g_main_context_iteration(nullptr, FALSE);  // at 12: not due
        lock.Unlock();

        EXPECT_EQ(Source(lock.Address()), nullptr);
        EXPECT_EQ(m_mutex.LockerId(), 0U);
        EXPECT_EQ(Logged("[CSmartAutoLock]" + (tag != nullptr ? "[" + Pointer(tag) + "]" : "") + " Th[" +
                         Hex(ThreadId()) + "] takes too long"),
                  2);
        EXPECT_EQ(fakes::dlog::Lines().size(), 2U);
    }
}

TEST_F(LockWatchdog, AThreadThatWaitsIsBlockedByTheHolderAndATagIsNamed) {
    for (const bool isTagged : {true, false}) {
        fakes::dlog::Clear();
        m_mutex.Lock();
        Place place;
        std::atomic<unsigned long> waiter{0};
        std::thread other([&] {
            waiter = ThreadId();
            place.Lock(&m_mutex, isTagged ? &waiter : nullptr);
            place.Unlock();
        });
        ASSERT_TRUE(Eventually([&] { return Source(place.Address()) != nullptr; }));
        EXPECT_TRUE(PassInterval(place.Address()));
        EXPECT_TRUE(PassInterval(place.Address()));
        EXPECT_EQ(Logged("[CSmartAutoLock]" + (isTagged ? "[" + Pointer(&waiter) + "]" : "") + " Th[" +
                         Hex(waiter) + "] is blocked by Th[" + Hex(ThreadId()) + "]"),
                  2);
        EXPECT_TRUE(m_mutex.Unlock());
        other.join();
    }
}

TEST_F(LockWatchdog, AMutexThatIsNotCreatedGetsNeitherLockNorWatchdogNorIsALockReportedThatHasEnded) {
    CCMutex other;
    CSmartAutoLock lock(&other, nullptr);
    CSmartAutoLock none(nullptr, nullptr);
    EXPECT_EQ(Source(&lock), nullptr);
    Place ended;
    ended.Lock(&m_mutex, nullptr);
    ended.Unlock();
    for (void* const data : {static_cast<void*>(&lock), static_cast<void*>(&none), ended.Address(),
                             static_cast<void*>(nullptr)}) {
        EXPECT_EQ(CSmartAutoLock::sm_CbTimeout(data), FALSE);
    }
    EXPECT_TRUE(fakes::dlog::Lines().empty());
}

/// Standard output that takes nothing until it is drained.
class StuckOutput {
public:
    StuckOutput() : m_kept(dup(STDOUT_FILENO)) {
        std::fflush(stdout);
        EXPECT_EQ(pipe2(m_pipe, O_CLOEXEC | O_NONBLOCK), 0);
        const char full[4096] = {};
        while (write(m_pipe[1], full, sizeof(full)) > 0) {
        }
        fcntl(m_pipe[1], F_SETFL, 0);
        dup2(m_pipe[1], STDOUT_FILENO);
    }
    ~StuckOutput() {
        dup2(m_kept, STDOUT_FILENO);
        for (const int fd : {m_kept, m_pipe[0], m_pipe[1]}) {
            close(fd);
        }
    }
    StuckOutput(const StuckOutput&) = delete;
    StuckOutput& operator=(const StuckOutput&) = delete;

    void Drain() {
        char full[4096];
        while (read(m_pipe[0], full, sizeof(full)) > 0) {
        }
    }

private:
    int m_kept;
    int m_pipe[2] = {-1, -1};
};

TEST_F(LockWatchdog, ALockEndsWhileItsReportIsStuckInTheLog) {
    Configure("PRINT\nZ:E\n");
    Place lock;
    lock.Lock(&m_mutex, nullptr);
    Counter ended;
    bool hasEnded = false;
    {
        g_seqNum = 0;
        StuckOutput output;
        std::thread mainLoop([&] { CSmartAutoLock::sm_CbTimeout(lock.Address()); });
        // Taken when the line is made, just before it gets stuck.
        EXPECT_TRUE(Eventually([] { return g_seqNum != 0; }));
        std::thread other([&] {
            { CSmartAutoLock second(&m_other, nullptr); }
            ended.Add();
        });
        hasEnded = ended.Await(1);
        output.Drain();
        mainLoop.join();
        other.join();
    }
    lock.Unlock();
    EXPECT_TRUE(hasEnded);
}

TEST_F(LockWatchdog, ALockMayEndOnItsThreadWhileTheMainLoopReportsIt) {
    std::atomic<bool> done{false};
    Place lock;
    std::thread other([&] {
        for (int i = 0; i < 300; ++i) {
            lock.Lock(&m_mutex, nullptr);
            lock.Unlock();
        }
        done = true;
    });
    while (!done) {
        CSmartAutoLock::sm_CbTimeout(lock.Address());
        g_main_context_iteration(nullptr, FALSE);
    }
    other.join();
    EXPECT_EQ(CSmartAutoLock::sm_CbTimeout(lock.Address()), FALSE);
}

}  // namespace

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <limits>
#include <string>
#include <thread>

#include "Thread.h"
#include "gate.h"
#include "log_fixture.h"

namespace {

constexpr unsigned long kStack = 8192;

/// Runs a function.
class Runner : public CCThread {
public:
    explicit Runner(std::function<void()> body) : m_body(std::move(body)) {}
    void ThreadBody() override { m_body(); }

private:
    std::function<void()> m_body;
};

class Thread : public RuntimeLog {
protected:
    static std::string KernelName() {
        char name[16] = {};
        prctl(PR_GET_NAME, name);
        return name;
    }
    static int Nice() {
        errno = 0;
        const int nice = getpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)));
        EXPECT_EQ(errno, 0);
        return nice;
    }
};

TEST_F(Thread, RunsItsBodyAndDestroyWaitsForIt) {
    Gate gate;
    bool ran = false;
    unsigned long self = 0;
    Runner thread([&] {
        gate.Pass();
        self = CCThread::SelfId();
        ran = true;
    });
    ASSERT_TRUE(thread.Create("runner", kStack));
    const unsigned long id = thread.Id();
    gate.Open();
    thread.Destroy();
    EXPECT_TRUE(ran);
    EXPECT_EQ(self, id);
    EXPECT_NE(self, ThreadId());
}

TEST_F(Thread, HasNoIdOnceItsBodyHasReturned) {
    Counter done;
    Runner thread([&] { done.Add(); });
    ASSERT_TRUE(thread.Create("runner", kStack));
    ASSERT_TRUE(done.Await(1));
    while (thread.Id() != static_cast<unsigned long>(-1)) {
        std::this_thread::yield();
    }
    thread.Destroy();
}

TEST_F(Thread, ANameLongerThanSixteenCharactersIsCutToFifteenInTheKernel) {
    std::string name;
    Runner thread([&] { name = KernelName(); });
    ASSERT_TRUE(thread.Create("0123456789abcdefghij", kStack));
    thread.Destroy();
    EXPECT_EQ(name, "0123456789abcde");
}

TEST_F(Thread, WithAnEmptyNameKeepsThatOfItsMaker) {
    std::string name;
    Runner thread([&] { name = KernelName(); });
    ASSERT_TRUE(thread.Create("", kStack));
    thread.Destroy();
    EXPECT_EQ(name, KernelName());
}

TEST_F(Thread, GetsTheFloorWhenItAsksForLessStackAndStillTellsWhatItAskedFor) {
    std::size_t stack = 0;
    Runner thread([&] {
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &stack);
        pthread_attr_destroy(&attributes);
    });
    ASSERT_TRUE(thread.Create("runner", kStack));
    EXPECT_EQ(thread.StackSize(), kStack);
    thread.Destroy();
    EXPECT_GE(stack, CCThread::kStackFloor - 4096U) << "the C library may keep a page for itself";
}

TEST_F(Thread, TakesTheStackItAsksForAboveTheFloor) {
    constexpr unsigned long kMegabyte = 1024UL * 1024;
    constexpr unsigned long kAsked = 8 * kMegabyte;  // a sanitizer takes its share
    unsigned char last = 0;
    Runner thread([&] {
        volatile unsigned char deep[kMegabyte];
        for (std::size_t i = 0; i < sizeof(deep); i += 1024) {
            deep[i] = 7;
        }
        last = deep[1024];
    });
    ASSERT_TRUE(thread.Create("runner", kAsked));
    EXPECT_EQ(thread.StackSize(), kAsked);
    thread.Destroy();
    EXPECT_EQ(last, 7);
}

TEST_F(Thread, ThatCannotBeStartedLeavesNothingBehind) {
    bool ran = false;
    Runner thread([&] { ran = true; });
    EXPECT_FALSE(thread.Create("runner", std::numeric_limits<unsigned long>::max() - 0xfffff));
    EXPECT_FALSE(thread.FlagCreate());
    EXPECT_TRUE(fakes::dlog::Lines().empty());

    ASSERT_TRUE(thread.Create("runner", kStack));
    thread.Destroy();
    EXPECT_TRUE(ran);
}

TEST_F(Thread, DestroyedByItselfReportsAndDoesNotWait) {
    SurviveAssertions();
    Counter returned;
    Runner thread([&] {
        thread.Destroy();
        returned.Add();
    });
    ASSERT_TRUE(thread.Create("runner", kStack));
    ASSERT_TRUE(returned.Await(1));
    EXPECT_FALSE(thread.FlagCreate());
    EXPECT_TRUE(fakes::dlog::Has("ASSERT: CCThread::SelfId() != Id() [core/src/Thread:165]"));
    EXPECT_TRUE(fakes::dlog::Has("Assert Error : Current Thread can't destroy itself\n"));
}

TEST_F(Thread, LowPriorityIsNiceTen) {
    Gate gate;
    int nice = 0;
    Runner thread([&] {
        gate.Pass();
        nice = Nice();
    });
    ASSERT_TRUE(thread.Create("runner", kStack));
    EXPECT_EQ(thread.Priority(), CCThread::PRIORITY_NORMAL);
    EXPECT_TRUE(thread.SetPriority(CCThread::PRIORITY_LOW));
    EXPECT_EQ(thread.Priority(), CCThread::PRIORITY_LOW);
    gate.Open();
    thread.Destroy();
    EXPECT_EQ(nice, 10);
}

TEST_F(Thread, APriorityWithoutANameIsNiceZero) {
    Gate gate;
    int nice = -1;
    Runner thread([&] {
        gate.Pass();
        nice = Nice();
    });
    ASSERT_TRUE(thread.Create("runner", kStack));
    EXPECT_TRUE(thread.SetPriority(static_cast<CCThread::EPriorityType>(5)));
    EXPECT_EQ(thread.Priority(), 5);
    gate.Open();
    thread.Destroy();
    EXPECT_EQ(nice, 0);
}

TEST_F(Thread, CanSetItsOwnPriority) {
    int nice = 0;
    Runner thread([&] {
        EXPECT_TRUE(CCThread::SetSelfPriority(CCThread::PRIORITY_LOW));
        nice = Nice();
    });
    ASSERT_TRUE(thread.Create("runner", kStack));
    thread.Destroy();
    EXPECT_EQ(nice, 10);
}

TEST_F(Thread, ThePriorityOfAThreadThatHasEndedCannotBeSet) {
    pid_t kernelId = 0;
    Counter done;
    Runner thread([&] {
        kernelId = static_cast<pid_t>(syscall(SYS_gettid));
        done.Add();
    });
    ASSERT_TRUE(thread.Create("runner", kStack));
    ASSERT_TRUE(done.Await(1));
    while (syscall(SYS_tgkill, getpid(), kernelId, 0) == 0) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(thread.SetPriority(CCThread::PRIORITY_LOW));
    EXPECT_EQ(thread.Priority(), CCThread::PRIORITY_NORMAL);
    thread.Destroy();
}

TEST_F(Thread, SeveralThreadsMaySetThePriorityOfOneThatHasJustStarted) {
    Gate gate;
    Runner thread([&] { gate.Pass(); });
    ASSERT_TRUE(thread.Create("runner", kStack));
    std::thread other([&] { EXPECT_TRUE(thread.SetPriority(CCThread::PRIORITY_LOW)); });
    EXPECT_TRUE(thread.SetPriority(CCThread::PRIORITY_LOW));
    other.join();
    gate.Open();
    thread.Destroy();
}

TEST_F(Thread, UsedOutsideOfCreateAndDestroyItAsserts) {
    SurviveAssertions();
    Runner thread([] {});
    EXPECT_FALSE(thread.Create(nullptr, kStack));
    EXPECT_EQ(thread.Id(), 0U);
    EXPECT_EQ(thread.StackSize(), 0U);
    EXPECT_EQ(thread.Priority(), CCThread::PRIORITY_NORMAL);
    EXPECT_FALSE(thread.SetPriority(CCThread::PRIORITY_LOW));
    thread.Destroy();

    for (const char* place :
         {"threadName != NULL [core/src/Thread:79]", "m [core/src/Thread:195]", "m [core/src/Thread:187]",
          "m [core/src/Thread:278]", "m [core/src/Thread:208]", "m [core/src/Thread:164]"}) {
        EXPECT_EQ(fakes::dlog::Count(std::string("ASSERT: ") + place), 1) << place;
    }
}

TEST_F(Thread, CreatedTwiceAsserts) {
    SurviveAssertions();
    Gate gate;
    Runner thread([&] { gate.Pass(); });
    ASSERT_TRUE(thread.Create("runner", kStack));
    EXPECT_FALSE(thread.Create("again", kStack));
    EXPECT_TRUE(fakes::dlog::Has("ASSERT: !m [core/src/Thread:78]"));
    gate.Open();
    thread.Destroy();
}

}  // namespace

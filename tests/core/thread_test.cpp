#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <functional>
#include <limits>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "Thread.h"
#include "gate.h"
#include "log_fixture.h"

namespace {

constexpr unsigned long kStack = 8192;

/// What the runtime asked the system for last, and what it gets for an answer.
struct {
    std::mutex lock;
    std::string name;
    int niceOf = -1;  // kernel id of a thread
    int nice = -1;
    std::optional<int> answer;  // of setpriority; none: the system's own
} g_asked;

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
    Thread() { g_asked.answer.reset(); }

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
    EXPECT_TRUE(Eventually([&] { return thread.Id() == static_cast<unsigned long>(-1); }));
    thread.Destroy();
}

TEST_F(Thread, OneThatEndsBeforeItsMakerGoesOnHasNoIdLeft) {
    Runner thread([] {});
    for (int i = 0; i < 1000; ++i) {  // one that does not wait for its maker is seen in some of them
        ASSERT_TRUE(thread.Create("runner", kStack));
        ASSERT_TRUE(Eventually([&] { return thread.Id() == static_cast<unsigned long>(-1); }));
        thread.Destroy();
    }
}

TEST_F(Thread, ANameReachesTheSystemWithItsFirstSixteenCharactersOfWhichItKeepsFifteen) {
    std::string name;
    Runner thread([&] { name = KernelName(); });
    ASSERT_TRUE(thread.Create("0123456789abcdefghij", kStack));
    thread.Destroy();
    EXPECT_EQ(g_asked.name, "0123456789abcdef");
    EXPECT_EQ(name, "0123456789abcde");

    ASSERT_TRUE(thread.Create("", kStack));
    thread.Destroy();
    EXPECT_EQ(name, KernelName()) << "an empty one leaves that of its maker";
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

TEST_F(Thread, EachPriorityHasItsNiceValue) {
    constexpr std::pair<int, int> kNice[] = {{CCThread::PRIORITY_HIGH, -10},
                                             {CCThread::PRIORITY_NORMAL, 0},
                                             {CCThread::PRIORITY_LOW, 10},
                                             {3, 0},
                                             {5, 0},
                                             {-1, 0}};
    g_asked.answer = 0;
    Gate gate;
    std::atomic<int> kernelId{0};
    Runner thread([&] {
        kernelId = static_cast<int>(syscall(SYS_gettid));
        gate.Pass();
    });
    ASSERT_TRUE(thread.Create("runner", kStack));
    ASSERT_TRUE(gate.AwaitArrival());
    for (const auto& [value, nice] : kNice) {
        const auto priority = static_cast<CCThread::EPriorityType>(value);
        g_asked.nice = -1;
        EXPECT_TRUE(thread.SetPriority(priority));
        EXPECT_EQ(thread.Priority(), priority);
        EXPECT_EQ(g_asked.nice, nice) << value;
        EXPECT_EQ(g_asked.niceOf, kernelId);
        g_asked.nice = -1;
        EXPECT_TRUE(CCThread::SetSelfPriority(priority));
        EXPECT_EQ(g_asked.nice, nice) << value;
        EXPECT_EQ(g_asked.niceOf, static_cast<int>(syscall(SYS_gettid)));
    }
    gate.Open();
    thread.Destroy();
}

TEST_F(Thread, APriorityIsThatOfTheThreadInTheSystemUnlessThatRefusesIt) {
    Gate gate;
    int nice = 0;
    Runner thread([&] {
        gate.Pass();
        nice = Nice();
    });
    ASSERT_TRUE(thread.Create("runner", kStack));
    EXPECT_EQ(thread.Priority(), CCThread::PRIORITY_NORMAL);
    EXPECT_TRUE(thread.SetPriority(CCThread::PRIORITY_LOW));
    g_asked.answer = -1;
    EXPECT_FALSE(thread.SetPriority(CCThread::PRIORITY_HIGH));
    EXPECT_FALSE(CCThread::SetSelfPriority(CCThread::PRIORITY_HIGH));
    EXPECT_EQ(thread.Priority(), CCThread::PRIORITY_LOW);
    gate.Open();
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
    ASSERT_TRUE(Eventually([&] { return syscall(SYS_tgkill, getpid(), kernelId, 0) != 0; }));
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

    ASSERT_TRUE(thread.Create("runner", kStack));
    EXPECT_FALSE(thread.Create("again", kStack));
    thread.Destroy();
    ExpectAssertedOnceEach({"threadName != NULL [core/src/Thread:79]", "m [core/src/Thread:195]",
                            "m [core/src/Thread:187]", "m [core/src/Thread:278]", "m [core/src/Thread:208]",
                            "m [core/src/Thread:164]", "!m [core/src/Thread:78]"});
}

}  // namespace

/// In place of the system's: raising a priority would need rights.
extern "C" int setpriority(__priority_which_t which, id_t who, int nice) noexcept {
    const std::lock_guard<std::mutex> lock(g_asked.lock);
    EXPECT_EQ(which, PRIO_PROCESS);
    g_asked.niceOf = static_cast<int>(who);
    g_asked.nice = nice;
    return g_asked.answer ? *g_asked.answer : static_cast<int>(syscall(SYS_setpriority, which, who, nice));
}

/// In place of the system's, which keeps 15 characters only.
extern "C" int prctl(int option, ...) noexcept {
    va_list arguments;
    va_start(arguments, option);
    char* const text = va_arg(arguments, char*);
    va_end(arguments);
    if (option == PR_SET_NAME) {
        const std::lock_guard<std::mutex> lock(g_asked.lock);
        g_asked.name = text;
    }
    return static_cast<int>(syscall(SYS_prctl, option, text, 0UL, 0UL, 0UL));
}

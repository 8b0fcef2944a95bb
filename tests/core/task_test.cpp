#include "Task.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <atomic>
#include <future>
#include <limits>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "Handler.h"
#include "Semaphore.h"
#include "Time.h"
#include "allocations.h"
#include "dlog.h"
#include "failing_new.h"
#include "test_task.h"

namespace {

class Task : public TaskFixture {
protected:
    Task() { EXPECT_TRUE(m_task.Create()); }
    ~Task() override {
        if (m_task.CCTask::FlagCreate()) {
            m_task.Destroy();
        }
    }
    void Block() {
        EXPECT_TRUE(m_task.Post(EVENT_STOP_AT_GATE));
        EXPECT_TRUE(m_task.gate.AwaitArrival(++m_blocks));
    }
    bool AwaitQueued(unsigned events) {
        return Eventually([this, events] { return m_task.Size() >= events; });
    }
    TestTask m_task;
    int m_blocks = 0;
};

TEST_F(Task, HandlesEventsInOrderOnItsOwnThread) {
    std::vector<int> order;
    unsigned long self = 0;
    m_task.Run([&] {
        order.push_back(1);
        self = CCThread::SelfId();
    });
    m_task.Run([&] { order.push_back(2); });
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    EXPECT_EQ(self, m_task.CCTask::Id());
    EXPECT_NE(self, ThreadId());
}

TEST_F(Task, ItsNameIsKeptUpToSixteenCharacters) {
    std::string kernelName(16, '\0');
    m_task.Run([&] { prctl(PR_GET_NAME, &kernelName[0]); });
    EXPECT_STREQ(kernelName.c_str(), "TestTask");
    for (const std::string name : {"ZOLVconfChecker", "ZOLTestRecording", "ZolMonitorManager"}) {
        TestTask task;
        ASSERT_TRUE(task.CCTask::Create(name.c_str(), 8192));
        EXPECT_EQ(task.Name(), name.substr(0, 16));
        task.ExitLoop();
        task.CCTask::Destroy();
    }
}

TEST_F(Task, AnEventIsCopiedAndCarriesAPointerOrTwoNumbers) {
    class Receiver : public CCHandler {
    public:
        CSEvent last;

    protected:
        bool t_OnEvent(const CSEvent* event) override {
            last = *event;
            return true;
        }
    } receiver;
    ASSERT_TRUE(receiver.Create(&m_task));
    CSEvent event;
    EXPECT_EQ(event.param.l[0], 0);
    EXPECT_EQ(event.param.l[1], 0);
    event.receiver = &receiver;
    event.type = 7;
    event.param.l[0] = -1;
    event.param.l[1] = 2147483647;
    EXPECT_TRUE(CCTask::Send(&event, true));
    EXPECT_EQ(event.sem, nullptr) << "nobody waits any more";
    EXPECT_EQ(receiver.last.type, 7U);
    EXPECT_EQ(receiver.last.param.l[0], -1);
    EXPECT_EQ(receiver.last.param.l[1], 2147483647);
    EXPECT_FALSE(receiver.last.isTimer);

    event.param.p = &event;
    EXPECT_TRUE(CCTask::Send(&event, true));
    EXPECT_EQ(receiver.last.param.p, &event);
    EXPECT_EQ(receiver.Task(), &m_task);
    receiver.Destroy();
}

TEST_F(Task, AnEventIsHandledWhileTheClockStandsStill) {
    ASSERT_TRUE(AwaitPause());
    EXPECT_TRUE(m_task.Post(EVENT_COUNT));
    EXPECT_TRUE(m_task.count.Await(1));
}

TEST_F(Task, ASynchronousSendReturnsWhenTheEventHasBeenHandledInsideOnItsOwnThread) {
    EXPECT_TRUE(m_task.Post(EVENT_COUNT, true));
    EXPECT_EQ(m_task.count.Value(), 1);
    m_task.Run([&] {
        EXPECT_TRUE(m_task.Post(EVENT_COUNT, true));
        EXPECT_EQ(m_task.count.Value(), 2);
    });
}

TEST_F(Task, HoldsAtMost255Events) {
    Block();
    for (int i = 0; i < 255; ++i) {
        ASSERT_TRUE(m_task.Post(EVENT_COUNT)) << i;
    }
    EXPECT_FALSE(m_task.Post(EVENT_COUNT));
    EXPECT_FALSE(m_task.Post(EVENT_COUNT, true)) << "a synchronous one does not wait either";
    m_task.gate.Open();
    EXPECT_TRUE(m_task.count.Await(255));
    EXPECT_TRUE(m_task.Post(EVENT_COUNT, true));
    EXPECT_EQ(m_task.count.Value(), 256);
}

TEST_F(Task, SendingAllocatesNothing) {
    Block();
    CSEvent event;
    event.receiver = &m_task;
    event.type = EVENT_COUNT;
    const unsigned long before = ThreadAllocations();
    EXPECT_TRUE(CCTask::Send(&event, false));
    EXPECT_EQ(ThreadAllocations(), before);
    m_task.gate.Open();
}

TEST_F(Task, SendingToAHandlerThatIsNotBoundOrOfATaskThatIsDestroyedReturnsFalse) {
    TestTask other;
    m_task.ExitLoop();
    m_task.CCTask::Destroy();
    for (const bool sync : {false, true}) {
        EXPECT_FALSE(other.Post(EVENT_COUNT, sync));
        EXPECT_FALSE(m_task.Post(EVENT_COUNT, sync));
    }
    m_task.CCHandler::Destroy();
}

TEST_F(Task, SendingNothingOrToNobodyAsserts) {
    SurviveAssertions();
    CSEvent event;
    EXPECT_FALSE(CCTask::Send(nullptr, false));
    EXPECT_FALSE(CCTask::Send(&event, false));
    ExpectAssertedOnceEach(
        {"event != NULL [core/src/Task:364]", "event->receiver != NULL [core/src/Task:365]"});
}

TEST_F(Task, EventsStillQueuedForAHandlerGoWithItAlsoWhereItIsBoundAgain) {
    TestTask other;
    ASSERT_TRUE(other.CCHandler::Create(&m_task));
    Block();
    EXPECT_TRUE(other.Post(EVENT_COUNT));
    EXPECT_TRUE(m_task.Post(EVENT_COUNT));
    EXPECT_TRUE(other.Post(EVENT_COUNT));
    other.CCHandler::Destroy();
    EXPECT_FALSE(other.Post(EVENT_COUNT));
    ASSERT_TRUE(other.CCHandler::Create(&m_task));
    EXPECT_TRUE(other.Post(EVENT_COUNT));
    m_task.gate.Open();
    EXPECT_TRUE(m_task.Post(EVENT_COUNT, true));
    EXPECT_EQ(m_task.count.Value(), 2);
    EXPECT_EQ(other.count.Value(), 1) << "the one sent since";
    other.CCHandler::Destroy();
}

TEST_F(Task, ExitLoopFromItsOwnThreadRunsInsideAndTheLoopEndsBehindTheCurrentEvent) {
    std::vector<std::string> order;
    m_task.onExit = [&] {
        order.emplace_back("exit");
        return true;
    };
    Counter ended;
    m_task.onStop = [&] { ended.Add(); };
    m_task.onCall = [&] {
        m_task.ExitLoop();
        order.emplace_back("rest of the event");
    };
    Block();
    EXPECT_TRUE(m_task.Post(EVENT_CALL));
    EXPECT_TRUE(m_task.Post(EVENT_COUNT));
    m_task.gate.Open();
    ASSERT_TRUE(ended.Await(1));
    EXPECT_EQ(order, (std::vector<std::string>{"exit", "rest of the event"}));
    m_task.Destroy();
    EXPECT_EQ(m_task.count.Value(), 0);
}

TEST_F(Task, ExitLoopRunsTheCallbacksAroundOnExit) {
    static std::vector<std::string> order;
    order.clear();
    m_task.onExit = [&] {
        order.emplace_back("exit");
        return true;
    };
    const auto callback = [](const CSEvent* event, const void* data) {
        order.emplace_back(event->type == 0 ? *static_cast<const std::string*>(data) : "?");
        return true;
    };
    const std::string data = "callback";
    EXPECT_TRUE(m_task.SetEventCallback(CCTask::CALLBACK_EXIT, callback, callback, &data));
    EXPECT_TRUE(m_task.ExitLoop());
    EXPECT_EQ(order, (std::vector<std::string>{"callback", "exit", "callback"}));
    EXPECT_TRUE(fakes::dlog::Lines().empty());
}

TEST_F(Task, ExitCallbacksThatFailAreLoggedAndDoNotStopTheExit) {
    const auto fail = [](const CSEvent*, const void*) { return false; };
    EXPECT_TRUE(m_task.SetEventCallback(CCTask::CALLBACK_EXIT, fail, fail, nullptr));
    m_task.onExit = [] { return false; };
    m_task.Destroy();
    ExpectInOrder({"Before callback for CALLBACK_EXIT failed", "CCTask::OnExit failed",
                   "After callback for CALLBACK_EXIT failed"});
}

TEST_F(Task, AHandlerThatThrowsIsLoggedAndTheLoopGoesOn) {
    m_task.Run([] { throw std::bad_alloc(); });  // which also releases its sender
    m_task.Run([] { throw 17; });
    EXPECT_TRUE(m_task.Post(EVENT_COUNT));
    EXPECT_TRUE(m_task.count.Await(1));
    EXPECT_EQ(fakes::dlog::Find("TestTask: handler failed: std::bad_alloc").priority, DLOG_PRIORITY_ERROR);
    EXPECT_EQ(fakes::dlog::Count("TestTask: handler failed: unknown exception"), 1);
}

TEST_F(Task, AnExitThatThrowsStillEndsTheLoop) {
    m_task.onExit = []() -> bool { throw std::bad_alloc(); };
    m_task.Destroy();
    EXPECT_EQ(fakes::dlog::Count("TestTask: handler failed: std::bad_alloc"), 1);
}

TEST_F(Task, AnotherTypeThanExitHasNoCallbacks) {
    const auto callback = [](const CSEvent*, const void*) { return true; };
    const int data = 0;
    EXPECT_TRUE(m_task.SetEventCallback(CCTask::CALLBACK_EXIT, callback, nullptr, &data));
    const auto other = static_cast<CCTask::ECallbackType>(1);
    EXPECT_FALSE(m_task.SetEventCallback(other, nullptr, callback, nullptr));

    CCTask::TFCallback before = nullptr;
    CCTask::TFCallback after = callback;
    const void* stored = nullptr;
    EXPECT_FALSE(m_task.GetEventCallback(other, &before, &after, &stored));
    EXPECT_EQ(before, nullptr);
    EXPECT_TRUE(m_task.GetEventCallback(CCTask::CALLBACK_EXIT, &before, &after, &stored));
    EXPECT_EQ(before, static_cast<CCTask::TFCallback>(callback));
    EXPECT_EQ(after, nullptr);
    EXPECT_EQ(stored, &data);
    EXPECT_TRUE(m_task.GetEventCallback(CCTask::CALLBACK_EXIT, nullptr, nullptr, nullptr));
}

TEST_F(Task, APingOfABusyTaskGivesUpAndLeavesNothingBehind) {
    Block();
    std::future<bool> answered = std::async(std::launch::async, [this] { return m_task.Ping(100); });
    EXPECT_TRUE(fakes::clock::AwaitSleeper(ms(100)));
    fakes::clock::Advance(ms(100));
    EXPECT_FALSE(answered.get());
    m_task.gate.Open();
    EXPECT_TRUE(m_task.Ping(100)) << "behind the first one";
    EXPECT_TRUE(CCTask::Ping(&m_task, 100));
}

TEST_F(Task, APingThatTheLoopNeverReachesIsReleasedByDestroy) {
    Block();
    m_task.CCHandler::Destroy();
    std::thread exit([this] { m_task.ExitLoop(); });
    EXPECT_TRUE(AwaitQueued(1));
    std::future<bool> answered = std::async(std::launch::async, [this] { return m_task.Ping(100); });
    EXPECT_TRUE(fakes::clock::AwaitSleeper(ms(100)));
    m_task.gate.Open();
    exit.join();
    m_task.CCTask::Destroy();
    EXPECT_TRUE(answered.get());
}

TEST_F(Task, WithAFullQueueAPingFailsAtOnceAndItStillEnds) {
    Block();
    while (m_task.Post(EVENT_COUNT)) {
    }
    EXPECT_FALSE(m_task.Ping(100));
    std::thread exit([this] { m_task.ExitLoop(); });
    EXPECT_TRUE(Eventually([] { return fakes::clock::SleptUs() != 0; }));
    m_task.gate.Open();
    exit.join();
    m_task.Destroy();
}

TEST_F(Task, WhoseStartFailsEndsWithoutALoop) {
    TestTask task;
    std::atomic<bool> stopped{false};
    task.onStart = [] { return false; };
    task.onStop = [&] { stopped = true; };
    ASSERT_TRUE(task.Create());
    task.CCHandler::Destroy();
    task.CCTask::Destroy();
    EXPECT_FALSE(stopped);
}

TEST_F(Task, ASenderThatWaitsIsReleasedWhenTheLoopEnds) {
    Block();
    std::thread exit([this] { m_task.ExitLoop(); });
    EXPECT_TRUE(AwaitQueued(1));
    std::thread sender([this] { m_task.Post(EVENT_COUNT, true); });
    EXPECT_TRUE(AwaitQueued(2));
    m_task.gate.Open();
    exit.join();
    sender.join();
    EXPECT_EQ(m_task.count.Value(), 0);
    EXPECT_TRUE(m_task.ExitLoop()) << "a second time";
}

TEST_F(Task, WhoseThreadCannotBeStartedIsUndone) {
    TestTask task;
    EXPECT_FALSE(task.CCTask::Create("task", std::numeric_limits<unsigned long>::max() - 0xfffff));
    EXPECT_EQ(fakes::dlog::Count("_CHECK FAIL: core/src/Task:293, CCThread::Create(name, stackSize)"), 1);
    EXPECT_FALSE(task.CCTask::FlagCreate());
    ASSERT_TRUE(task.Create());
    EXPECT_TRUE(task.Post(EVENT_COUNT, true));
    task.Destroy();
}

TEST_F(Task, ForWhichThereIsNoMemoryIsUndoneAndSaysWhatFailed) {
    std::size_t left = 0;
    for (std::size_t allocation = 1; left == 0; ++allocation) {
        TestTask task;
        FailAllocation(allocation);
        const bool isCreated = task.CCTask::Create("task", 8192);
        left = FailAllocation(0);
        EXPECT_EQ(isCreated, left > 0) << allocation;
        EXPECT_EQ(task.CCTask::FlagCreate(), isCreated) << allocation;
        if (isCreated) {
            task.ExitLoop();
            task.CCTask::Destroy();
        }
    }
    EXPECT_TRUE(
        fakes::dlog::Has("_CHECK FAIL: core/src/Task:268, "
                         "CCFixedRingQueue::Create(sizeof(CSEvent), 256, true, false)"));
}

TEST_F(Task, OnAClockThatWasNeverSetItWaitsForEventsAndIsIdleWhenNoneCome) {
    m_task.Destroy();
    fakes::clock::SetWall(0);
    const ms longest(4294967295);
    TestTask task;
    ASSERT_TRUE(task.Create());
    ASSERT_TRUE(fakes::clock::AwaitSleeper(longest));
    EXPECT_TRUE(task.Post(EVENT_COUNT, true)) << "wakes it";
    ASSERT_TRUE(fakes::clock::AwaitSleeper(longest));
    fakes::clock::Advance(longest);
    EXPECT_TRUE(task.idle.Await(1));
    task.Destroy();
}

TEST_F(Task, AQueueThatIsEmptyForAMomentIsNotIdle) {
    EXPECT_TRUE(m_task.t_ExecuteEvent(0));
    EXPECT_EQ(m_task.idle.Value(), 0);
}

TEST_F(Task, UsedOutsideOfCreateAndDestroyItAsserts) {
    SurviveAssertions();
    TestTask task;
    EXPECT_FALSE(task.CCTask::Create(nullptr, 8192));
    EXPECT_EQ(task.CCTask::Id(), 0U);
    EXPECT_EQ(task.Name(), nullptr);
    EXPECT_TRUE(task.ExitLoop());
    EXPECT_FALSE(task.Ping(0));
    EXPECT_FALSE(CCTask::Ping(nullptr, 0));
    EXPECT_FALSE(task.SetEventCallback(CCTask::CALLBACK_EXIT, nullptr, nullptr, nullptr));
    EXPECT_FALSE(task.GetEventCallback(CCTask::CALLBACK_EXIT, nullptr, nullptr, nullptr));
    task.CCTask::Destroy();
    EXPECT_FALSE(m_task.CCTask::Create("again", 8192));

    ExpectAssertedOnceEach({"name != NULL [core/src/Task:262]", "m [core/src/Task:405]",
                            "m [core/src/Task:397]", "m [core/src/Task:576]", "m [core/src/Task:539]",
                            "task [core/src/Task:531]", "m [core/src/Task:439]", "m [core/src/Task:484]",
                            "m [core/src/Task:323]", "!m [core/src/Task:261]"});
}

TEST_F(Task, AHandlerAssertsItsBinding) {
    SurviveAssertions();
    TestTask other;
    EXPECT_FALSE(other.CCHandler::Create(nullptr));
    other.CCHandler::Destroy();
    EXPECT_EQ(other.Task(), nullptr);
    EXPECT_FALSE(other.SetTimer(1, 1));
    EXPECT_FALSE(other.KillTimer(1));
    EXPECT_FALSE(m_task.CCHandler::Create(&m_task));

    {
        TestTask forgotten;
        ASSERT_TRUE(forgotten.CCHandler::Create(&m_task));
    }
    ExpectAssertedOnceEach(
        {"task != NULL [core/src/Handler:27]", "FlagCreate() == true [core/src/Handler:52]",
         "FlagCreate() == true [core/src/Handler:70]", "FlagCreate() == true [core/src/Handler:78]",
         "FlagCreate() == true [core/src/Handler:86]", "FlagCreate() == false [core/src/Handler:26]",
         "FlagCreate() == false [core/inc/Handler:37]"});
}

TEST_F(Task, ManyThreadsMaySendAtOnce) {
    constexpr int kThreads = 4;
    constexpr int kEvents = 500;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([this] {
            for (int sent = 0; sent < kEvents; ++sent) {
                EXPECT_TRUE(Eventually([&] { return m_task.Post(EVENT_COUNT, sent % 50 == 0); }));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(m_task.count.Await(kThreads * kEvents));
}

}  // namespace

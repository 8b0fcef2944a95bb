#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "Task.h"
#include "test_task.h"

namespace {

/// Others go on using a task while it ends.
class TaskEnd : public TaskFixture {
public:
    static pid_t ThisThread() { return static_cast<pid_t>(syscall(SYS_gettid)); }
    /// Waits until the thread is no more.
    static void AwaitEnd(pid_t thread) {
        EXPECT_TRUE(Eventually([thread] { return syscall(SYS_tgkill, getpid(), thread, 0) != 0; }));
    }

protected:
    static constexpr int kRounds = 50;

    TaskEnd() { SurviveAssertions(); }
};

TEST_F(TaskEnd, TimersMayBeKilledMeanwhile) {
    for (int round = 0; round < kRounds; ++round) {
        TestTask task;
        ASSERT_TRUE(task.Create());
        Counter rounds;
        std::thread other([&] {
            while (task.SetTimer(1, 1000)) {
                static_cast<void>(task.KillTimer(1));  // false once the task is gone
                rounds.Add();
            }
        });
        ASSERT_TRUE(rounds.Await(1));
        task.ExitLoop();
        task.CCTask::Destroy();
        other.join();
        task.CCHandler::Destroy();
    }
}

TEST_F(TaskEnd, APingMeanwhileLeavesNothingBehind) {
    for (int round = 0; round < kRounds; ++round) {
        TestTask task;
        ASSERT_TRUE(task.Create());
        Counter rounds;
        std::thread other([&] {
            while (task.CCTask::FlagCreate()) {
                static_cast<void>(task.Ping(0));  // what it leaves behind counts
                rounds.Add();
            }
        });
        ASSERT_TRUE(rounds.Await(1));
        task.Destroy();
        other.join();
    }
}

TEST_F(TaskEnd, AHandlerMayBeUnboundWhileItsTimersAreKilled) {
    TestTask task;
    ASSERT_TRUE(task.Create());
    for (int round = 0; round < kRounds; ++round) {
        TestTask handler;
        ASSERT_TRUE(handler.CCHandler::Create(&task));
        std::thread other([&] {
            // There is none.
            static_cast<void>(handler.KillTimer(1));
        });
        handler.CCHandler::Destroy();
        other.join();
    }
    task.Destroy();
}

TEST_F(TaskEnd, ASynchronousSenderIsReleasedByATaskThatDestroysItself) {
    TestTask task;
    Counter stopped;
    Gate gate;
    pid_t thread = 0;
    task.onStop = [&] { stopped.Add(); };
    task.onCall = [&] {
        thread = ThisThread();
        gate.Pass();
        task.CCTask::Destroy();
    };
    ASSERT_TRUE(task.Create());
    ASSERT_TRUE(task.Post(EVENT_CALL));
    ASSERT_TRUE(gate.AwaitArrival());
    std::thread sender([&] { task.Post(EVENT_COUNT, true); });
    EXPECT_TRUE(Eventually([&] { return task.Size() != 0; }));

    gate.Open();
    sender.join();

    ASSERT_TRUE(stopped.Await(1));
    AwaitEnd(thread);
    EXPECT_FALSE(task.CCTask::FlagCreate());
    EXPECT_FALSE(task.Post(EVENT_COUNT, true));
    EXPECT_EQ(task.count.Value(), 0);
    task.CCHandler::Destroy();
}

TEST_F(TaskEnd, WhoseLoopHasEndedIsOnlySentWhatNobodyWaitsFor) {
    TestTask task;
    pid_t thread = 0;
    ASSERT_TRUE(task.Create());
    task.Run([&thread] { thread = ThisThread(); });
    EXPECT_TRUE(task.ExitLoop());
    AwaitEnd(thread);

    EXPECT_FALSE(task.Post(EVENT_COUNT, true));
    EXPECT_TRUE(task.Post(EVENT_COUNT));

    task.CCTask::Destroy();
    task.CCHandler::Destroy();
    EXPECT_EQ(task.count.Value(), 0);
}

/// A task that begins anew in its own handler and has an event then; the first life's thread has ended.
TestTask& BegunAnew() {
    // Never freed: nothing that the thread checker sees orders the end of the first life's thread before the
    // reuse of the memory.
    static auto* const kept = new std::vector<TestTask*>;
    kept->push_back(new TestTask);
    TestTask& task = *kept->back();
    pid_t thread = 0;
    task.onCall = [&] {
        thread = TaskEnd::ThisThread();
        task.CCTask::Destroy();
        task.onStart = [&task] {
            task.gate.Pass();
            return true;
        };
        EXPECT_TRUE(task.CCTask::Create("Again", 8192));
        EXPECT_TRUE(task.Post(EVENT_COUNT));
        EXPECT_TRUE(task.gate.AwaitArrival()) << "the new life begins before the old one ends";
    };
    EXPECT_TRUE(task.Create());
    EXPECT_TRUE(task.Post(EVENT_CALL));
    EXPECT_TRUE(task.gate.AwaitArrival());
    TaskEnd::AwaitEnd(thread);
    task.gate.Open();
    return task;
}

TEST_F(TaskEnd, ATaskThatBeginsAnewInItsOwnHandlerKeepsTheEventsOfItsNewLife) {
    TestTask& task = BegunAnew();

    EXPECT_TRUE(task.count.Await(1));
    task.Destroy();
}

TEST_F(TaskEnd, ATaskThatBeginsAnewInItsOwnHandlerMaySendToItself) {
    TestTask& task = BegunAnew();
    task.onCall = [&task] { EXPECT_TRUE(task.Post(EVENT_COUNT, true)); };

    ASSERT_TRUE(task.Post(EVENT_CALL));

    ASSERT_TRUE(task.count.Await(2)) << "it waits for itself";
    task.Destroy();
}

}  // namespace

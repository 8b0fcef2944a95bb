#include <gtest/gtest.h>

#include <algorithm>
#include <new>
#include <thread>
#include <vector>

#include "Task.h"
#include "fake_clock.h"
#include "test_task.h"

namespace {

class Timer : public TaskFixture {
protected:
    Timer() {
        EXPECT_TRUE(m_task.Create());
        m_task.onTimer = [this](unsigned long id) { m_ids.push_back(id); };
        EXPECT_TRUE(AwaitPause());
    }
    ~Timer() override { m_task.Destroy(); }

    /// Lets time pass and waits until the loop pauses again; the next timer is due `left` from then.
    static void Pass(ms time, ms left) {
        fakes::clock::Advance(time);
        EXPECT_TRUE(AwaitPause(left));
    }
    /// Queues events that stop at the gate; the task stands at the first one.
    void BlockAt(int gates) {
        for (int i = 0; i < gates; ++i) {
            EXPECT_TRUE(m_task.Post(EVENT_STOP_AT_GATE));
        }
        EXPECT_TRUE(m_task.gate.AwaitArrival(++m_arrivals));
    }
    void GoToNextGate() {
        m_task.gate.Open();
        EXPECT_TRUE(m_task.gate.AwaitArrival(++m_arrivals));
    }

    TestTask m_task;
    std::vector<unsigned long> m_ids;  // the task's thread, until it pauses
    int m_arrivals = 0;
};

/// Lets a test hand over an event of its own for the timer that fired last.
class Forger : public TestTask {
public:
    void Hand(std::uint32_t serial) {
        Run([this, serial] {
            CSEvent event;
            event.receiver = this;
            event.param.l[1] = static_cast<long>(serial);
            event.param.p = m_timer;
            t_HandleTimerEvent(&event);
        });
    }

protected:
    void t_SendTimerEvent(CCHandler* handler, void* timer) override {
        m_timer = timer;
        TestTask::t_SendTimerEvent(handler, timer);
    }

private:
    void* m_timer = nullptr;
};

TEST_F(Timer, IsNotTakenForAnEarlierOneAtItsAddress) {
    Forger task;
    ASSERT_TRUE(task.Create());
    ASSERT_TRUE(task.SetTimer(1, 1000));
    ASSERT_TRUE(AwaitPause(ms(1000)));
    fakes::clock::Advance(ms(1000));
    ASSERT_TRUE(task.fired.Await(1));

    task.Hand(4000000000U);

    EXPECT_EQ(task.fired.Value(), 1);
    task.Destroy();
}

TEST_F(Timer, OfOneSecondFiresOncePerSecond) {
    EXPECT_TRUE(m_task.SetTimer(7, 1000));
    ASSERT_TRUE(AwaitPause(ms(1000)));
    for (int second = 1; second <= 3; ++second) {
        Pass(ms(999), ms(1));
        EXPECT_EQ(m_task.fired.Value(), second - 1);
        Pass(ms(1), ms(1000));
        EXPECT_EQ(m_task.fired.Value(), second);
    }
    EXPECT_EQ(m_ids, (std::vector<unsigned long>{7, 7, 7}));
}

TEST_F(Timer, WhoseEventIsStillQueuedPostsNoSecondOneButItsTimeGoesOn) {
    EXPECT_TRUE(m_task.SetTimer(1, 1000));
    BlockAt(3);
    fakes::clock::Advance(ms(1000));
    GoToNextGate();  // on the way the timer's event was queued, behind the third
    fakes::clock::Advance(ms(1000));
    GoToNextGate();  // due again
    fakes::clock::Advance(ms(500));
    m_task.gate.Open();
    ASSERT_TRUE(AwaitPause(ms(500)));
    EXPECT_EQ(m_task.fired.Value(), 1);
    Pass(ms(499), ms(1));
    EXPECT_EQ(m_task.fired.Value(), 1);
    Pass(ms(1), ms(1000));
    EXPECT_EQ(m_task.fired.Value(), 2);
}

TEST_F(Timer, SetAgainStartsItsIntervalAnewInsteadOfAddingASecond) {
    EXPECT_TRUE(m_task.SetTimer(1, 1000));
    ASSERT_TRUE(AwaitPause(ms(1000)));
    Pass(ms(600), ms(400));
    EXPECT_TRUE(m_task.SetTimer(1, 1000));
    ASSERT_TRUE(AwaitPause(ms(1000)));
    Pass(ms(999), ms(1));
    EXPECT_EQ(m_task.fired.Value(), 0);
    Pass(ms(1), ms(1000));
    EXPECT_EQ(m_task.fired.Value(), 1);
    EXPECT_TRUE(m_task.KillTimer(1));
    EXPECT_FALSE(m_task.KillTimer(1)) << "there was one only";
}

TEST_F(Timer, SetAgainTakesTheNewIntervalAndEndsThePauseAtOnce) {
    EXPECT_TRUE(m_task.SetTimer(1, 60000));
    EXPECT_TRUE(m_task.SetTimer(1, 5));
    ASSERT_TRUE(AwaitPause(ms(5))) << "while the clock stands still";
    Pass(ms(5), ms(5));
    EXPECT_EQ(m_task.fired.Value(), 1);
}

TEST_F(Timer, FiresOnceWhenTheWallClockJumpsAnHourForwardAndGoesOnFromThere) {
    EXPECT_TRUE(m_task.SetTimer(1, 1000));
    ASSERT_TRUE(AwaitPause(ms(1000)));
    fakes::clock::SetWall(fakes::clock::kEpoch + 3600);
    EXPECT_TRUE(m_task.fired.Await(1));
    ASSERT_TRUE(AwaitPause(ms(1000)));
    EXPECT_EQ(m_task.fired.Value(), 1);
    Pass(ms(999), ms(1));
    EXPECT_EQ(m_task.fired.Value(), 1);
    Pass(ms(1), ms(1000));
    EXPECT_EQ(m_task.fired.Value(), 2);
}

TEST_F(Timer, WaitsUntilTheWallClockIsThereAgainWhenThatJumpsAnHourBack) {
    EXPECT_TRUE(m_task.SetTimer(1, 1000));
    ASSERT_TRUE(AwaitPause(ms(1000)));
    fakes::clock::SetWall(fakes::clock::kEpoch - 3600);
    fakes::clock::AdvanceSteady(ms(5000));
    ASSERT_TRUE(AwaitPause(ms(3601000)));
    Pass(ms(3600999), ms(1));
    EXPECT_EQ(m_task.fired.Value(), 0);
    Pass(ms(1), ms(1000));
    EXPECT_EQ(m_task.fired.Value(), 1);
    Pass(ms(999), ms(1));
    EXPECT_EQ(m_task.fired.Value(), 1);
    Pass(ms(1), ms(1000));
    EXPECT_EQ(m_task.fired.Value(), 2);
}

TEST_F(Timer, SeveralFireIndependently) {
    EXPECT_TRUE(m_task.SetTimer(1, 20));
    EXPECT_TRUE(m_task.SetTimer(2, 30));
    for (const int left : {10, 10, 10, 20, 10, 20}) {
        Pass(ms(10), ms(left));
    }
    EXPECT_EQ(std::count(m_ids.begin(), m_ids.end(), 1U), 3);
    EXPECT_EQ(std::count(m_ids.begin(), m_ids.end(), 2U), 2);
}

TEST_F(Timer, OfAnUnknownIdCannotBeKilled) {
    TestTask other;
    ASSERT_TRUE(other.CCHandler::Create(&m_task));
    EXPECT_FALSE(m_task.KillTimer(1));
    EXPECT_TRUE(m_task.SetTimer(1, 1000));
    EXPECT_FALSE(m_task.KillTimer(2));
    EXPECT_FALSE(other.KillTimer(1)) << "it belongs to another handler";
    other.CCHandler::Destroy();
}

TEST_F(Timer, ThatIsKilledTakesItsQueuedEventsAlong) {
    EXPECT_TRUE(m_task.SetTimer(1, 1000));
    EXPECT_TRUE(m_task.SetTimer(2, 1000));
    BlockAt(2);
    fakes::clock::Advance(ms(1000));
    GoToNextGate();
    EXPECT_EQ(m_task.Size(), 2U) << "both timers' events";
    EXPECT_TRUE(m_task.KillTimer(1));
    m_task.gate.Open();
    ASSERT_TRUE(AwaitPause(ms(1000)));
    EXPECT_EQ(m_ids, (std::vector<unsigned long>{2}));
    Pass(ms(1000), ms(1000));
    EXPECT_EQ(m_ids, (std::vector<unsigned long>{2, 2}));
}

TEST_F(Timer, MayBeSetAndKilledByItsOwnHandler) {
    m_task.onTimer = [this](unsigned long id) {
        m_ids.push_back(id);
        EXPECT_TRUE(m_task.KillTimer(id));
        if (id < 3) {
            EXPECT_TRUE(m_task.SetTimer(id + 1, 10));
        }
    };
    EXPECT_TRUE(m_task.SetTimer(1, 10));
    ASSERT_TRUE(AwaitPause(ms(10)));
    Pass(ms(10), ms(10));
    Pass(ms(10), ms(10));
    fakes::clock::Advance(ms(10));
    ASSERT_TRUE(AwaitPause());
    EXPECT_EQ(m_ids, (std::vector<unsigned long>{1, 2, 3}));
}

TEST_F(Timer, WhoseHandlerThrowsFiresAgain) {
    m_task.onTimer = [this](unsigned long id) {
        m_ids.push_back(id);
        throw std::bad_alloc();
    };
    EXPECT_TRUE(m_task.SetTimer(1, 10));
    ASSERT_TRUE(AwaitPause(ms(10)));
    Pass(ms(10), ms(10));
    Pass(ms(10), ms(10));
    EXPECT_EQ(m_ids, (std::vector<unsigned long>{1, 1}));
    EXPECT_EQ(fakes::dlog::Count("TestTask: handler failed: std::bad_alloc"), 2);
}

TEST_F(Timer, OfZeroMillisecondsWithoutAHandlerOrATaskAsserts) {
    SurviveAssertions();
    EXPECT_FALSE(m_task.SetTimer(1, 0));
    EXPECT_FALSE(m_task.KillTimer(1));
    EXPECT_FALSE(m_task.t_SetTimer(nullptr, 1, 1));
    EXPECT_FALSE(m_task.t_KillTimer(nullptr, 1));
    TestTask other;
    ASSERT_TRUE(other.CCHandler::Create(&other));
    EXPECT_FALSE(other.SetTimer(1, 1));
    EXPECT_FALSE(other.KillTimer(1));
    other.CCHandler::Destroy();
    ExpectAssertedOnceEach({"ms > 0 [core/src/Task:591]", "handler [core/src/Task:590]",
                            "handler [core/src/Task:632]", "m [core/src/Task:589]", "m [core/src/Task:631]"});
}

TEST_F(Timer, OfAHandlerThatIsUnboundFiresNoMore) {
    TestTask other;
    ASSERT_TRUE(other.CCHandler::Create(&m_task));
    EXPECT_TRUE(other.SetTimer(1, 100));
    other.CCHandler::Destroy();
    ASSERT_TRUE(AwaitPause(ms(100)));
    Pass(ms(100), ms(100));
    Pass(ms(100), ms(100));
    EXPECT_EQ(other.fired.Value(), 0);
}

TEST_F(Timer, MayBeSetAndKilledByOtherThreadsWhileItFires) {
    std::vector<std::thread> threads;
    for (unsigned long id = 1; id <= 3; ++id) {
        threads.emplace_back([this, id] {
            for (int i = 0; i < 200; ++i) {
                EXPECT_TRUE(m_task.SetTimer(id, 1));
                fakes::clock::Advance(ms(1));
                EXPECT_TRUE(m_task.KillTimer(id));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    m_task.Run([this] { m_ids.clear(); });
    fakes::clock::Advance(ms(10));
    EXPECT_TRUE(AwaitPause());
    EXPECT_TRUE(m_ids.empty()) << "all were killed";
}

TEST_F(Timer, AMillionEventsOfFourThreadsAgainstTimersAndClockJumpsAreAllHandled) {
    constexpr int kSenders = 4;
    constexpr int kEach = 250000;
    std::atomic<bool> isOver{false};
    std::thread jumper([this, &isOver] {
        for (std::int64_t turn = 0; !isOver; ++turn) {
            EXPECT_TRUE(m_task.SetTimer(1, 1 + static_cast<unsigned long>(turn % 3)));
            fakes::clock::SetWall(fakes::clock::kEpoch + turn * 7919 % 7200);
            fakes::clock::Advance(ms(1));
            if (turn % 5 == 0) {
                EXPECT_TRUE(m_task.KillTimer(1));
            }
        }
    });
    std::vector<std::thread> senders;
    for (int sender = 0; sender < kSenders; ++sender) {
        senders.emplace_back([this] {
            for (int sent = 0; sent < kEach; ++sent) {
                // Every hundredth waits for its turn, so that the queue runs empty and the task falls asleep.
                while (!m_task.Post(EVENT_COUNT, sent % 100 == 0)) {
                    std::this_thread::yield();
                }
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    isOver = true;
    jumper.join();
    EXPECT_TRUE(m_task.count.Await(kSenders * kEach));
}

}  // namespace

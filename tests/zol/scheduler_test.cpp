#include "ZOLScheduler.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>

#include "ZOLShiftedClock.h"
#include "dlog.h"
#include "fake_clock.h"
#include "fake_dlog.h"
#include "fake_vconf.h"
#include "fakes.h"

namespace {

using namespace std::chrono_literals;
using zol::EScheduleEventType;
using zol::SCHEDULE_EVENT_DISABLE;
using zol::TCScheduler;
using zol::TIME_BASE_FIRST_BOOT;
using zol::TIME_BASE_START;
using zol::TSEventTime;

constexpr const char* kStartKey = "db/private/zol/policy_time";
constexpr const char* kFirstBootKey = "db/private/zol/policy_first_boot_time";
constexpr const char* kShiftKey = "db/private/zol/clock_diff";
constexpr int kStepsOfAPass = 6;

class Scheduler : public testing::Test {
protected:
    Scheduler() {
        fakes::Reset();
        fakes::clock::SetWall(1000);
    }

    /// The first pass has begun when this returns.
    void Start() {
        Start([this] { ++m_disabled; });
    }
    void Start(boost::function<void()> callback) {
        m_scheduler = std::make_unique<TCScheduler>(callback, m_clock);
        AwaitSleep();
    }
    void Stop() { m_scheduler.reset(); }

    void SetEvent(zol::ETimeBase base, std::int64_t offset, bool isNewPolicy = true) {
        m_scheduler->SetSchedule({{SCHEDULE_EVENT_DISABLE, TSEventTime{base, offset}}}, isNewPolicy);
    }

    void AwaitSleep() { ASSERT_TRUE(fakes::clock::AwaitSleeper(5s)); }

    void LetStepsPass(int steps) {
        for (int step = 0; step < steps; ++step) {
            AwaitSleep();
            fakes::clock::Advance(5s);
        }
    }
    void LetStepsPassOnAStandingClock(int steps) {
        for (int step = 0; step < steps; ++step) {
            AwaitSleep();
            fakes::clock::AdvanceSteady(5s);
        }
    }
    /// Ends the running pass; the next one has begun, its due events fired, when this returns.
    void FinishPass() {
        LetStepsPass(kStepsOfAPass);
        AwaitSleep();
    }
    void FinishPassOnAStandingClock() {
        LetStepsPassOnAStandingClock(kStepsOfAPass);
        AwaitSleep();
    }

    std::int64_t PolicyTime() { return m_clock.GetCurrentTime(); }

    zol::TCShiftedClock m_clock;
    std::atomic<int> m_disabled{0};
    std::unique_ptr<TCScheduler> m_scheduler;
};

using Schedule = Scheduler;
using ClockPass = Scheduler;
using StoredMoments = Scheduler;

TEST_F(Schedule, APolicySetAt1000With3600IsDueAtTheFirstCheckAfter4600) {
    Start();
    SetEvent(TIME_BASE_START, 3600);

    while (PolicyTime() < 4600) {
        FinishPass();
    }
    EXPECT_EQ(PolicyTime(), 4600);
    EXPECT_EQ(m_disabled, 0);

    FinishPass();
    EXPECT_EQ(PolicyTime(), 4630);
    EXPECT_EQ(m_disabled, 1);
}

TEST_F(Schedule, ADueEventFiresOnceAndIsTakenOut) {
    Start();
    SetEvent(TIME_BASE_START, 0);

    FinishPass();
    FinishPass();
    FinishPass();

    EXPECT_EQ(m_disabled, 1);
    EXPECT_EQ(fakes::dlog::Count("Found scheduled event! 0"), 1);
    EXPECT_EQ(fakes::dlog::Find("Found scheduled event! 0").priority, DLOG_PRIORITY_DEBUG);
    EXPECT_EQ(fakes::dlog::Find("Executing disable ZOL callback!").priority, DLOG_PRIORITY_ERROR);
    EXPECT_EQ(fakes::dlog::Find("Disabled ZOL due to scheduled event!").priority, DLOG_PRIORITY_DEBUG);
}

TEST_F(Schedule, WithoutACallbackTheEventIsTakenOutAllTheSame) {
    Start(boost::function<void()>());
    SetEvent(TIME_BASE_START, 0);

    FinishPass();
    FinishPass();

    EXPECT_EQ(fakes::dlog::Count("Disabled ZOL due to scheduled event!"), 1);
    EXPECT_FALSE(fakes::dlog::Has("Executing disable ZOL callback!"));
}

TEST_F(Schedule, AnOffsetOfTheLargestExpiryDoesNotOverflow) {
    Start();
    SetEvent(TIME_BASE_START, 4294967295);

    FinishPass();

    EXPECT_EQ(m_disabled, 0);
}

TEST_F(Schedule, ADueTimeBelowZeroIsComparedUnsignedAndNeverComes) {
    Start();
    SetEvent(TIME_BASE_START, -1001);

    FinishPass();

    EXPECT_EQ(m_disabled, 0);
}

TEST_F(Schedule, AnUnknownBaseIsNeverDue) {
    Start();
    SetEvent(static_cast<zol::ETimeBase>(2), 0);

    FinishPass();

    EXPECT_EQ(m_disabled, 0);
}

TEST_F(Schedule, TheFirstBootCountsFrom1970WhileThereWasNone) {
    Start();
    SetEvent(TIME_BASE_FIRST_BOOT, 1029);

    FinishPass();

    EXPECT_EQ(m_disabled, 1);
}

TEST_F(Schedule, TheFirstBootIsTheBaseOnceThereWasOne) {
    fakes::vconf::SetString(kFirstBootKey, "900");
    Start();
    SetEvent(TIME_BASE_FIRST_BOOT, 130, false);

    FinishPass();
    EXPECT_EQ(m_disabled, 0);

    FinishPass();
    EXPECT_EQ(m_disabled, 1);
}

TEST_F(Schedule, ANewTableReplacesTheOldOne) {
    Start();
    SetEvent(TIME_BASE_START, 0);
    m_scheduler->SetSchedule({}, false);

    FinishPass();

    EXPECT_EQ(m_disabled, 0);
}

TEST_F(Schedule, ANewPolicyStartsOnTheOldShiftAndThenForgetsIt) {
    fakes::vconf::SetString(kShiftKey, "500");
    m_clock.LoadTimeShift();
    Start();

    SetEvent(TIME_BASE_START, 10);

    EXPECT_EQ(fakes::vconf::GetString(kStartKey), "1500");
    EXPECT_EQ(fakes::vconf::GetString(kShiftKey), "0");
    EXPECT_EQ(fakes::vconf::GetString(kFirstBootKey), "0");
    EXPECT_EQ(PolicyTime(), 1000);
    EXPECT_EQ(m_scheduler->GetTimeElapsed(), -500);
}

TEST_F(Schedule, APolicyThatIsOnlyLoadedAgainKeepsItsStart) {
    fakes::vconf::SetString(kStartKey, "400");
    fakes::vconf::SetString(kFirstBootKey, "450");
    fakes::vconf::SetString(kShiftKey, "7");
    Start();

    SetEvent(TIME_BASE_START, 10, false);

    EXPECT_EQ(fakes::vconf::GetString(kStartKey), "400");
    EXPECT_EQ(fakes::vconf::GetString(kFirstBootKey), "450");
    EXPECT_EQ(fakes::vconf::GetString(kShiftKey), "7");
    EXPECT_EQ(m_scheduler->GetTimeElapsed(), 600);
}

TEST_F(Schedule, ACallbackThatThrowsIsLoggedAndTheThreadGoesOn) {
    Start([this] {
        ++m_disabled;
        throw std::runtime_error("no disk");
    });
    SetEvent(TIME_BASE_START, 0);
    FinishPass();
    LetStepsPass(1);
    AwaitSleep();

    SetEvent(TIME_BASE_START, -1);
    FinishPass();

    EXPECT_TRUE(fakes::dlog::Has("Scheduler pass failed: no disk"));
    EXPECT_EQ(m_disabled, 2);
}

TEST_F(Schedule, AnInterruptedCallbackEndsTheThreadAndTheDestructorStillJoins) {
    Start([this] {
        ++m_disabled;
        throw boost::thread_interrupted();
    });
    SetEvent(TIME_BASE_START, 0);
    LetStepsPass(kStepsOfAPass);

    while (m_disabled == 0) {
        boost::this_thread::yield();
    }
    Stop();

    EXPECT_EQ(m_disabled, 1);
}

TEST_F(ClockPass, ANormalPassChangesNothing) {
    Start();

    FinishPass();

    EXPECT_EQ(PolicyTime(), 1030);
    EXPECT_FALSE(fakes::dlog::Has("Time is not set"));
}

TEST_F(ClockPass, AClockSetForwardBy4000SecondsLeavesPolicyTimeWhereThePassBegan) {
    Start();
    fakes::clock::SetWall(5000);

    FinishPass();

    EXPECT_EQ(PolicyTime(), 1000);
    EXPECT_EQ(PolicyTime() - fakes::clock::WallSeconds(), -4030);
}

TEST_F(ClockPass, AClockSetBackLeavesPolicyTimeWhereThePassBegan) {
    fakes::clock::SetWall(100000);
    Start();
    fakes::clock::SetWall(1000);

    FinishPass();

    EXPECT_EQ(PolicyTime(), 100000);
}

TEST_F(ClockPass, FortySecondsAreNoJumpAndFortyOneAre) {
    Start();
    fakes::clock::SetWall(1010);
    FinishPass();
    EXPECT_EQ(PolicyTime(), 1040);

    fakes::clock::SetWall(1051);
    FinishPass();
    EXPECT_EQ(PolicyTime(), 1040);
}

TEST_F(ClockPass, TheCorrectionIsNotStored) {
    Start();
    fakes::clock::SetWall(5000);

    FinishPass();

    EXPECT_FALSE(fakes::vconf::Exists(kShiftKey));
}

TEST_F(ClockPass, AWakeUpInsideThePassMakesTheJumpTimeThatPassed) {
    Start();
    fakes::clock::SetWall(5000);
    m_scheduler->SetLastWakeUpTime();

    FinishPass();

    EXPECT_EQ(PolicyTime(), 5030);
}

TEST_F(ClockPass, AWakeUpAtTheFirstSecondOfThePassIsInside) {
    Start();
    m_scheduler->SetLastWakeUpTime();
    fakes::clock::SetWall(5000);

    FinishPass();

    EXPECT_EQ(PolicyTime(), 5030);
}

TEST_F(ClockPass, AWakeUpAtTheLastSecondOfThePassIsInside) {
    Start();
    fakes::clock::SetWall(5000);
    m_scheduler->SetLastWakeUpTime();

    FinishPassOnAStandingClock();

    EXPECT_EQ(PolicyTime(), 5000);
}

TEST_F(ClockPass, AWakeUpBeforeThePassesTimesDoesNotExcuseAJump) {
    Start();
    fakes::clock::SetWall(999);
    m_scheduler->SetLastWakeUpTime();
    fakes::clock::SetWall(5000);

    FinishPass();

    EXPECT_EQ(PolicyTime(), 1000);
}

TEST_F(ClockPass, AWakeUpAfterThePassesTimesDoesNotExcuseAJump) {
    Start();
    fakes::clock::SetWall(9000);
    m_scheduler->SetLastWakeUpTime();
    fakes::clock::SetWall(5000);

    FinishPass();

    EXPECT_EQ(PolicyTime(), 1000);
}

TEST_F(ClockPass, AWakeUpIsForgottenAfterItsPass) {
    Start();
    fakes::clock::SetWall(1100);
    m_scheduler->SetLastWakeUpTime();
    fakes::clock::SetWall(1000);
    FinishPass();

    // 1100 lies inside this pass, but it was told before the pass began.
    fakes::clock::SetWall(5000);
    FinishPass();

    EXPECT_EQ(PolicyTime(), 1030);
}

TEST_F(ClockPass, AStandingClockIsHelpedOnByTheTimeSlept) {
    Start();

    FinishPassOnAStandingClock();

    EXPECT_EQ(fakes::dlog::Count("Time is not set"), 1);
    EXPECT_EQ(fakes::dlog::Find("Time is not set").priority, DLOG_PRIORITY_DEBUG);
    EXPECT_EQ(PolicyTime(), 1030);
}

TEST_F(ClockPass, APassEndedAfterTenSecondsToleratesTwenty) {
    Start();
    LetStepsPass(2);
    AwaitSleep();
    fakes::clock::SetWall(1020);

    Stop();

    EXPECT_EQ(PolicyTime(), 1020);
}

TEST_F(ClockPass, APassEndedAfterTenSecondsTakesOutTwentyOne) {
    Start();
    LetStepsPass(2);
    AwaitSleep();
    fakes::clock::SetWall(1021);

    Stop();

    EXPECT_EQ(PolicyTime(), 1000);
}

TEST_F(ClockPass, AStepThatIsCutShortDoesNotCountAsSlept) {
    Start();
    LetStepsPassOnAStandingClock(2);
    AwaitSleep();

    Stop();

    EXPECT_EQ(PolicyTime(), 1010);
}

TEST_F(ClockPass, TheDestructorDoesNotWaitForTheSleep) {
    for (int round = 0; round < 20; ++round) {
        m_scheduler = std::make_unique<TCScheduler>(boost::function<void()>(), m_clock);
        Stop();
    }
    EXPECT_EQ(fakes::clock::WallSeconds(), 1000);
}

/// Outside the calendar for as long as the test says.
class BrokenClock : public zol::TCShiftedClock {
public:
    std::int64_t GetCurrentTime() const override {
        if (m_broken) {
            throw std::out_of_range("Year is out of valid range");
        }
        return TCShiftedClock::GetCurrentTime();
    }
    std::atomic<bool> m_broken{false};
};

TEST_F(ClockPass, AClockOutsideTheCalendarIsLoggedAndTriedAgainEveryFiveSeconds) {
    BrokenClock clock;
    m_scheduler = std::make_unique<TCScheduler>([this] { ++m_disabled; }, clock);
    AwaitSleep();
    SetEvent(TIME_BASE_START, 0);

    clock.m_broken = true;
    FinishPass();
    LetStepsPass(1);
    ASSERT_TRUE(fakes::dlog::WaitFor("Scheduler pass failed: Year is out of valid range", 2));
    AwaitSleep();
    clock.m_broken = false;
    LetStepsPass(1);
    AwaitSleep();

    EXPECT_EQ(m_disabled, 1);
    Stop();
}

TEST_F(ClockPass, AClockThatFailsAtStartUpFailsTheConstructorAndLeavesNoThread) {
    BrokenClock clock;
    clock.m_broken = true;

    EXPECT_THROW(TCScheduler(boost::function<void()>(), clock), std::out_of_range);
}

TEST_F(StoredMoments, TheFirstStartAfterANewPolicyBecomesTheFirstBoot) {
    fakes::vconf::SetString(kFirstBootKey, "0");

    Start();

    EXPECT_EQ(fakes::vconf::GetString(kFirstBootKey), "1000");
    EXPECT_EQ(fakes::dlog::Find("Setting first boot time after new policy.").priority, DLOG_PRIORITY_DEBUG);
    EXPECT_EQ(fakes::dlog::Find("Storing first boot time in vconf").priority, DLOG_PRIORITY_DEBUG);
}

TEST_F(StoredMoments, ALaterStartKeepsTheFirstBoot) {
    fakes::vconf::SetString(kFirstBootKey, "123");

    Start();
    m_scheduler->SetFirstBootTime();

    EXPECT_EQ(fakes::vconf::GetString(kFirstBootKey), "123");
    EXPECT_FALSE(fakes::dlog::Has("Setting first boot time after new policy."));
}

TEST_F(StoredMoments, TheStartTimeIsLoaded) {
    fakes::vconf::SetString(kStartKey, "200");

    Start();

    EXPECT_EQ(m_scheduler->GetTimeElapsed(), 800);
    EXPECT_EQ(&m_scheduler->GetClock(), &m_clock);
    EXPECT_TRUE(fakes::dlog::Has("Loading start time from vconf"));
    EXPECT_TRUE(fakes::dlog::Has("Loading first boot time from vconf"));
}

TEST_F(StoredMoments, TextsThatAreNoNumbersAreLoggedAndCountAsNone) {
    fakes::vconf::SetString(kStartKey, "abc");
    fakes::vconf::SetString(kFirstBootKey, "abc");

    Start();

    EXPECT_EQ(fakes::dlog::Find("Could not convert start time").priority, DLOG_PRIORITY_ERROR);
    EXPECT_EQ(fakes::dlog::Find("Could not convert first boot time").priority, DLOG_PRIORITY_ERROR);
    EXPECT_EQ(m_scheduler->GetTimeElapsed(), 1000);
    EXPECT_EQ(fakes::vconf::GetString(kFirstBootKey), "1000");
}

}  // namespace

/// The scheduler's check of the wall clock, one pass of thirty seconds at a time.
#include <boost/function.hpp>
#include <stdexcept>

#include "dlog.h"
#include "fake_dlog.h"
#include "fake_vconf.h"
#include "scheduler_fixture.h"

namespace {

using zol::TCScheduler;
using zol::TIME_BASE_START;

using ClockPass = Scheduler;

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

}  // namespace

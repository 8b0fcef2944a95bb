/// The scheduler's check of the wall clock, one pass of thirty seconds at a time.
#include <boost/function.hpp>
#include <stdexcept>

#include "dlog.h"
#include "fake_vconf.h"
#include "scheduler_fixture.h"

namespace {

using zol::TCScheduler;
using zol::TIME_BASE_START;

using ClockPass = Scheduler;

TEST_F(ClockPass, ANormalPassChangesNothingNorDoFortySecondsAndFortyOneAreAJump) {
    Start();
    FinishPass();
    EXPECT_EQ(PolicyTime(), 1030);
    EXPECT_EQ(Logged("Time is not set"), 0);

    fakes::clock::SetWall(1040);
    FinishPass();
    EXPECT_EQ(PolicyTime(), 1070);

    fakes::clock::SetWall(1081);
    FinishPass();
    EXPECT_EQ(PolicyTime(), 1070);
}

TEST_F(ClockPass, AClockThatIsSetLeavesPolicyTimeWhereThePassBeganAndStoresNothing) {
    Start();
    fakes::clock::SetWall(5000);
    FinishPass();
    EXPECT_EQ(PolicyTime(), 1000);
    EXPECT_EQ(PolicyTime() - fakes::clock::WallSeconds(), -4030);

    fakes::clock::SetWall(100);
    FinishPass();
    EXPECT_EQ(PolicyTime(), 1000);
    EXPECT_FALSE(fakes::vconf::Exists(kShiftKey));
}

TEST_F(ClockPass, AWakeUpInsideThePassMakesTheJumpTimeThatPassed) {
    Start();
    SetClockAndWakeUp({5000}, 5000);
    FinishPass();
    EXPECT_EQ(PolicyTime(), 5030);

    SetClockAndWakeUp({5030, 9000}, 5030);
    FinishPass();
    EXPECT_EQ(PolicyTime(), 9030) << "its first second is inside";
}

TEST_F(ClockPass, AWakeUpOutsideThePassesTimesDoesNotExcuseAJump) {
    Start();
    SetClockAndWakeUp({999, 5000}, 999);
    FinishPass();
    EXPECT_EQ(PolicyTime(), 1000);

    SetClockAndWakeUp({19000, 15000}, 19000);
    FinishPass();
    EXPECT_EQ(PolicyTime(), 1000);
}

TEST_F(ClockPass, AWakeUpAtTheLastSecondOfThePassIsInside) {
    Start();
    fakes::clock::SetWall(5000);
    m_scheduler->SetLastWakeUpTime();

    FinishPassOnAStandingClock();

    EXPECT_EQ(PolicyTime(), 5000);
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

    EXPECT_EQ(PolicyTime(), 1030);
    EXPECT_EQ(Logged("Time is not set"), 1);
    ExpectLogged(DLOG_PRIORITY_DEBUG, {"Time is not set"});
}

TEST_F(ClockPass, APassEndedAfterTenSecondsToleratesTwentyAndTakesOutTwentyOne) {
    for (const int jump : {20, 21}) {
        fakes::clock::SetWall(1000);
        Start();
        LetStepsPass(2);
        AwaitSleep();
        fakes::clock::SetWall(1000 + jump);

        Stop();

        EXPECT_EQ(PolicyTime(), jump == 20 ? 1020 : 1000);
    }
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

#include <chrono>
#include <future>
#include <stdexcept>

#include "dlog.h"
#include "fake_vconf.h"
#include "scheduler_fixture.h"

namespace {

using namespace std::chrono_literals;
using zol::TIME_BASE_FIRST_BOOT;
using zol::TIME_BASE_START;

using Schedule = Scheduler;
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
    EXPECT_EQ(Logged("Found scheduled event! 0"), 1);
    ExpectErrors({"Executing disable ZOL callback!"});
    ExpectLogged(DLOG_PRIORITY_DEBUG, {"Found scheduled event! 0", "Disabled ZOL due to scheduled event!"});
}

/// Five seconds ahead for as many reads as the test says.
class HastyClock : public zol::TCShiftedClock {
public:
    std::int64_t GetCurrentTime() const override {
        return TCShiftedClock::GetCurrentTime() + (m_readsAhead-- > 0 ? 5 : 0);
    }
    mutable std::atomic<int> m_readsAhead{0};
};

TEST_F(Schedule, TheWholeTableIsEmptyAfterTheCallback) {
    HastyClock clock;
    m_scheduler = std::make_unique<zol::TCScheduler>([this] { ++m_disabled; }, clock);
    AwaitSleep();
    const auto other = static_cast<zol::EScheduleEventType>(1);
    m_scheduler->SetSchedule(
        {{zol::SCHEDULE_EVENT_DISABLE, {TIME_BASE_START, 0}}, {other, {TIME_BASE_START, 62}}}, true);
    FinishPass();
    ASSERT_EQ(m_disabled, 1);

    // At 1060: a moment after 1062 ends the pass and would find the other entry due, the next one would not.
    clock.m_readsAhead = 2;
    FinishPass();

    EXPECT_FALSE(fakes::dlog::Has("Found scheduled event! 1"));
    Stop();
}

TEST_F(Schedule, WithoutACallbackTheEventIsTakenOutAllTheSame) {
    Start(boost::function<void()>());
    SetEvent(TIME_BASE_START, 0);

    FinishPass();
    FinishPass();

    EXPECT_EQ(fakes::dlog::Count("Disabled ZOL due to scheduled event!"), 1);
    EXPECT_FALSE(fakes::dlog::Has("Executing disable ZOL callback!"));
}

TEST_F(Schedule, WhatIsComparedUnsignedHasNoBaseOrWasReplacedNeverComes) {
    Start();
    SetEvent(TIME_BASE_START, 4294967295);
    FinishPass();
    SetEvent(TIME_BASE_START, -1101);
    FinishPass();
    SetEvent(static_cast<zol::ETimeBase>(2), 0);
    FinishPass();
    SetEvent(TIME_BASE_START, 0);
    m_scheduler->SetSchedule({}, false);
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

TEST_F(Schedule, ATableThatComesDuringTheCallbackWaitsAndIsNotEmptiedWithTheOldOne) {
    std::future<void> newTable;
    Start([this, &newTable] {
        if (++m_disabled == 1) {
            newTable = std::async(std::launch::async,
                                  [this] { SetEvent(TIME_BASE_START, -1, /*isNewPolicy=*/false); });
            // Long enough for a call that nothing holds up.
            EXPECT_EQ(newTable.wait_for(20ms), std::future_status::timeout);
        }
    });
    SetEvent(TIME_BASE_START, 0);
    FinishPass();
    ASSERT_EQ(m_disabled, 1);
    newTable.get();

    FinishPass();

    EXPECT_EQ(m_disabled, 2);
}

TEST_F(Schedule, AWakeUpNeedNotWaitForTheCallback) {
    std::future<void> told;
    Start([this, &told] {
        told = std::async(std::launch::async, [this] { m_scheduler->SetLastWakeUpTime(); });
        EXPECT_EQ(told.wait_for(fakes::kPatience), std::future_status::ready);
        ++m_disabled;
    });
    SetEvent(TIME_BASE_START, 0);

    FinishPass();

    EXPECT_EQ(m_disabled, 1);
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

    ASSERT_TRUE(Eventually([this] { return m_disabled != 0; }));
    Stop();

    EXPECT_EQ(m_disabled, 1);
}

TEST_F(StoredMoments, TheFirstStartAfterANewPolicyBecomesTheFirstBootAndALaterOneKeepsIt) {
    fakes::vconf::SetString(kFirstBootKey, "0");
    Start();
    EXPECT_EQ(fakes::vconf::GetString(kFirstBootKey), "1000");

    fakes::clock::SetWall(2000);
    Start();
    m_scheduler->SetFirstBootTime();
    EXPECT_EQ(fakes::vconf::GetString(kFirstBootKey), "1000");
    EXPECT_EQ(Logged("Setting first boot time after new policy."), 1);
    ExpectLogged(DLOG_PRIORITY_DEBUG,
                 {"Setting first boot time after new policy.", "Storing first boot time in vconf"});
}

TEST_F(StoredMoments, AClockBeyondTheCalendarIsOneThatStandsStillAtItsEnd) {
    constexpr std::int64_t kLastSecond = 253402300799;  // of the year 9999
    fakes::clock::SetWall(kLastSecond + 1000);
    Start();
    SetEvent(TIME_BASE_START, 40);
    EXPECT_EQ(fakes::vconf::GetString(kStartKey), std::to_string(kLastSecond));

    FinishPass();
    EXPECT_EQ(PolicyTime(), kLastSecond + 30);
    EXPECT_EQ(m_disabled, 0);

    FinishPass();
    EXPECT_EQ(m_disabled, 1);
}

TEST_F(StoredMoments, TheStartTimeIsLoaded) {
    fakes::vconf::SetString(kStartKey, "200");

    Start();

    EXPECT_EQ(m_scheduler->GetTimeElapsed(), 800);
    EXPECT_EQ(&m_scheduler->GetClock(), &m_clock);
    ExpectInOrder({"Loading start time from vconf", "Loading first boot time from vconf"});
}

TEST_F(StoredMoments, TextsThatAreNoNumbersAreLoggedAndCountAsNone) {
    fakes::vconf::SetString(kStartKey, "abc");
    fakes::vconf::SetString(kFirstBootKey, "abc");

    Start();

    EXPECT_EQ(m_scheduler->GetTimeElapsed(), 1000);
    EXPECT_EQ(fakes::vconf::GetString(kFirstBootKey), "1000");
    ExpectErrors({"Could not convert start time", "Could not convert first boot time"});
}

}  // namespace

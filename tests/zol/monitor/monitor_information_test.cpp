#include "ZOLMonitorInformation.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <thread>
#include <vector>

#include "dlog.h"
#include "monitor_fixture.h"

namespace {

constexpr int kIndex = 4;
constexpr int kMethod = 31;
constexpr std::int64_t kFarAway = 5000000000;  // seconds: later than any 32-bit period ends
constexpr std::int64_t kMax = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t kMin = std::numeric_limits<std::int32_t>::min();

using Seconds = std::vector<std::int64_t>;

TCMonitorInformation Rule(int minutes, int repetition) {
    return TCMonitorInformation(nullptr, minutes, repetition, kMethod, kIndex);
}

/// Feeds one event at each of these seconds; those that were hits.
Seconds HitsAmong(TCMonitorInformation& rule, const Seconds& events) {
    Seconds hits;
    for (const std::int64_t second : events) {
        if (rule.CountEvent(second).isHit) {
            hits.push_back(second);
        }
    }
    return hits;
}
/// The same for a rule that has counted nothing yet.
Seconds HitsOf(TCMonitorInformation rule, const Seconds& events) {
    return HitsAmong(rule, events);
}

TEST(RepetitionPeriod, ThreeEventsWithinTenMinutesAreAHitAtTheThird) {
    EXPECT_EQ(HitsOf(Rule(10, 3), {0, 100, 200}), Seconds({200}));
}

TEST(RepetitionPeriod, AnEventExactlyAtTheEndStillCountsAndOneSecondLaterDoesNot) {
    EXPECT_EQ(HitsOf(Rule(10, 3), {0, 100, 600}), Seconds({600}));
    EXPECT_EQ(HitsOf(Rule(10, 3), {0, 100, 601}), Seconds());
}

TEST(RepetitionPeriod, AnEventAfterTheEndBeginsANewPeriodWithTheCountOne) {
    auto rule = Rule(10, 3);
    EXPECT_EQ(HitsAmong(rule, {0, 100}), Seconds());

    const TSCounted counted = rule.CountEvent(700);

    EXPECT_TRUE(counted.isNewPeriod);
    EXPECT_EQ(counted.repetition, 1);
    EXPECT_FALSE(counted.isHit);
    EXPECT_EQ(rule.GetCurrentRepetition(), 1);
    EXPECT_EQ(rule.GetFirstCallTime(), 700);
    EXPECT_EQ(rule.GetExpiredTime(), 1300);
}

TEST(RepetitionPeriod, OnlyAnEventAfterTheEndSaysThatThePeriodIsNew) {
    auto rule = Rule(10, 2);
    for (const std::int64_t second : {0, 600, 5000}) {
        EXPECT_FALSE(rule.CountEvent(second).isNewPeriod) << second;
    }
    EXPECT_EQ(rule.GetCurrentRepetition(), 1) << "600 was a hit, after which 5000 opens a period";
}

TEST(RepetitionPeriod, ThePeriodDoesNotSlide) {
    // 599, 601 and 602 lie within ten minutes, but not in one period.
    EXPECT_EQ(HitsOf(Rule(10, 3), {0, 599, 601, 602, 603}), Seconds({603}));
}

TEST(RepetitionPeriod, AHitTellsTheCountClearsItAndClosesThePeriod) {
    auto rule = Rule(10, 2);
    EXPECT_EQ(rule.CountEvent(0).repetition, 1);
    EXPECT_EQ(rule.CountEvent(1).repetition, 2);
    EXPECT_EQ(rule.GetCurrentRepetition(), 0);
    EXPECT_FALSE(rule.GetFirstCalled());

    EXPECT_EQ(HitsAmong(rule, {2, 602}), Seconds({602})) << "2 opens the next period";
    EXPECT_EQ(rule.GetFirstCallTime(), 2);
}

TEST(RepetitionPeriod, ThresholdsOfOneAndBelowMakeEveryEventAHit) {
    for (const int repetition : {1, 0, -1, std::numeric_limits<int>::min()}) {
        EXPECT_EQ(HitsOf(Rule(10, repetition), {0, 1, 2000}), Seconds({0, 1, 2000})) << repetition;
    }
}

TEST(RepetitionPeriod, AClockThatIsSetBackStaysInThePeriod) {
    // The end is still measured from the first event.
    EXPECT_EQ(HitsOf(Rule(10, 3), {1000, 400, 1600}), Seconds({1600}));
}

TEST(RepetitionPeriod, ADurationOfZeroLastsOneSecond) {
    EXPECT_EQ(HitsOf(Rule(0, 2), {5, 6, 6}), Seconds({6}));
}

TEST(RepetitionPeriod, WithANegativeDurationNoTwoEventsFallIntoOnePeriod) {
    EXPECT_EQ(HitsOf(Rule(-1, 2), {100, 100, 101, 200}), Seconds());
}

TEST(RepetitionPeriod, AHugeDurationIsHeldAtSixtyEightYears) {
    auto rule = Rule(std::numeric_limits<int>::max(), 2);
    EXPECT_EQ(rule.GetExpiredTime(), kMax);
    EXPECT_EQ(HitsAmong(rule, {100, kFarAway}), Seconds());
    EXPECT_EQ(rule.GetFirstCallTime(), kFarAway);

    EXPECT_EQ(Rule(std::numeric_limits<int>::min(), 2).GetExpiredTime(), kMin);
}

class MonitorInformation : public MonitorFixture {
protected:
    TCMonitorInformation m_rule{&m_notify, 10, 3, 32, kIndex};
};

TEST_F(MonitorInformation, StartsClosedWithNothingCounted) {
    EXPECT_FALSE(m_rule.GetFirstCalled());
    EXPECT_EQ(m_rule.GetFirstCallTime(), 0);
    EXPECT_EQ(m_rule.GetCurrentRepetition(), 0);
    EXPECT_EQ(m_rule.GetPolicyRepetition(), 3);
    EXPECT_EQ(m_rule.GetMethod(), 32);
    EXPECT_EQ(m_rule.GetExpiredTime(), 600) << "minutes are kept in seconds";
}

TEST_F(MonitorInformation, ReadsTheWallClockInSeconds) {
    At(77);
    EXPECT_EQ(TCMonitorInformation::GetCurrentTime(), fakes::clock::kEpoch + 77);
    fakes::clock::FailRealtime(true);
    EXPECT_EQ(TCMonitorInformation::GetCurrentTime(), -1);
    fakes::clock::FailRealtime(false);
}

TEST_F(MonitorInformation, AHitCarriesTheIndex) {
    EXPECT_TRUE(m_rule.NotifyZOL());
    EXPECT_EQ(m_notify.Hits(), Hits({kIndex}));
    EXPECT_EQ(PriorityOf("NotifyZOL() CALL"), DLOG_PRIORITY_ERROR);
}

TEST_F(MonitorInformation, WithoutANotifyManagerAHitIsLost) {
    EXPECT_FALSE(Rule(10, 1).NotifyZOL());
    EXPECT_EQ(PriorityOf("m_pNotify is NULL"), DLOG_PRIORITY_ERROR);
}

TEST_F(MonitorInformation, ANotifyManagerWhoseTaskHasEndedTakesNoHit) {
    m_notify.Destroy();
    EXPECT_FALSE(m_rule.NotifyZOL());
}

TEST_F(MonitorInformation, AFullNotifyQueueTakesNoHitUntilThereIsRoom) {
    m_notify.Hold();
    for (std::size_t i = 0; i < kQueueLength; ++i) {
        EXPECT_TRUE(m_rule.NotifyZOL());
    }
    EXPECT_FALSE(m_rule.NotifyZOL());
    m_notify.ReleaseAndDrain();
    EXPECT_TRUE(m_rule.NotifyZOL());
    EXPECT_EQ(m_notify.Hits(), Hits(kQueueLength + 1, kIndex));
}

TEST_F(MonitorInformation, AFullNotifyQueueDoesNotHoldUpTheEndOfItsTask) {
    m_notify.Hold();
    while (m_rule.NotifyZOL()) {
    }
    std::thread releaser([this] {
        // The events that Destroy drops keep their places until the task gets to them.
        while (m_notify.CCHandler::FlagCreate()) {
            std::this_thread::yield();
        }
        m_notify.Release();
    });
    m_notify.Destroy();
    releaser.join();
    EXPECT_FALSE(m_rule.NotifyZOL());
}

}  // namespace

#include "ZOLMonitorInformation.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <thread>
#include <vector>

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

TEST(RepetitionPeriod, ThePolicysNumberOfEventsWithinAPeriodIsAHit) {
    struct {
        const char* what;
        int minutes;
        int repetition;
        Seconds events;
        Seconds hits;
    } const cases[] = {
        {"the third within ten minutes", 10, 3, {0, 100, 200}, {200}},
        {"exactly at the end counts", 10, 3, {0, 100, 600}, {600}},
        {"a second later does not", 10, 3, {0, 100, 601}, {}},
        {"a period does not slide: 599 to 602 are not in one", 10, 3, {0, 599, 601, 602, 603}, {603}},
        {"a clock set back stays in the period", 10, 3, {1000, 400, 1600}, {1600}},
        {"no minutes last a second", 0, 2, {5, 6, 6}, {6}},
        {"in less than none no two events fall", -1, 2, {100, 100, 101, 200}, {}},
        {"a threshold of one", 10, 1, {0, 1, 2000}, {0, 1, 2000}},
        {"of none", 10, 0, {0, 1, 2000}, {0, 1, 2000}},
        {"of less than none", 10, std::numeric_limits<int>::min(), {0, 1, 2000}, {0, 1, 2000}},
    };
    for (const auto& [what, minutes, repetition, events, hits] : cases) {
        TCMonitorInformation rule = Rule(minutes, repetition);
        EXPECT_EQ(HitsAmong(rule, events), hits) << what;
    }
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

TEST(RepetitionPeriod, AHitTellsTheCountClearsItAndClosesThePeriod) {
    auto rule = Rule(10, 2);
    EXPECT_EQ(rule.CountEvent(0).repetition, 1);
    EXPECT_EQ(rule.CountEvent(1).repetition, 2);
    EXPECT_EQ(rule.GetCurrentRepetition(), 0);
    EXPECT_FALSE(rule.GetFirstCalled());

    EXPECT_EQ(HitsAmong(rule, {2, 602}), Seconds({602})) << "2 opens the next period";
    EXPECT_EQ(rule.GetFirstCallTime(), 2);
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

TEST_F(MonitorInformation, AHitCarriesTheIndexAndNeedsANotifyManagerThatRuns) {
    EXPECT_TRUE(m_rule.NotifyZOL());
    EXPECT_EQ(m_notify.Hits(), Hits({kIndex}));
    m_notify.Destroy();
    EXPECT_FALSE(m_rule.NotifyZOL());
    EXPECT_EQ(Logged("m_pNotify is NULL"), 0);
    EXPECT_FALSE(Rule(10, 1).NotifyZOL());
    ExpectErrors({"NotifyZOL() CALL", "m_pNotify is NULL"});
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
        EXPECT_TRUE(fakes::dlog::WaitFor("[TCNotifyManager] Destroy"));
        m_notify.Release();
    });
    m_notify.Destroy();
    releaser.join();
    EXPECT_FALSE(m_rule.NotifyZOL());
}

}  // namespace

#include "ZOLMonitorInformation.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <thread>

#include "dlog.h"
#include "monitor_fixture.h"

namespace {

constexpr TSRepetitionTexts kTexts = {
    "zol::Test", "tests/zol/SomeMonitor.cpp", "SomeCb", 12, "expired", "count : ", "hit", "sent", "not sent"};
constexpr int kIndex = 4;
constexpr int kMethod = 31;
constexpr std::int64_t kFarAway = 5000000000;  // seconds: later than any 32-bit period ends

class RepetitionPeriod : public MonitorFixture {
protected:
    TCMonitorInformation Rule(int minutes, int repetition) {
        return TCMonitorInformation(&m_notify, minutes, repetition, kMethod, kIndex);
    }
    /// Feeds one event at each of these seconds.
    static void Count(TCMonitorInformation& rule, std::initializer_list<std::int64_t> seconds) {
        for (const std::int64_t second : seconds) {
            rule.CountEvent(second, kTexts);
        }
    }
};

TEST_F(RepetitionPeriod, ThreeEventsWithinTenMinutesAreAHitAtTheThird) {
    auto rule = Rule(10, 3);
    Count(rule, {0, 100});
    EXPECT_EQ(m_notify.Hits(), Hits());
    Count(rule, {200});
    EXPECT_EQ(m_notify.Hits(), Hits({kIndex}));
}

TEST_F(RepetitionPeriod, AnEventAfterTheEndBeginsANewPeriodWithTheCountOne) {
    auto rule = Rule(10, 3);
    Count(rule, {0, 100, 700});
    EXPECT_EQ(m_notify.Hits(), Hits());
    EXPECT_EQ(rule.GetCurrentRepetition(), 1);
    EXPECT_EQ(rule.GetFirstCallTime(), 700);
    EXPECT_EQ(rule.GetExpiredTime(), 1300);
    EXPECT_EQ(Logged("expired"), 1);
}

TEST_F(RepetitionPeriod, AnEventExactlyAtTheEndStillCounts) {
    auto rule = Rule(10, 3);
    Count(rule, {0, 100, 600});
    EXPECT_EQ(m_notify.Hits(), Hits({kIndex}));
    EXPECT_EQ(Logged("expired"), 0);
}

TEST_F(RepetitionPeriod, AnEventOneSecondAfterTheEndDoesNotCount) {
    auto rule = Rule(10, 3);
    Count(rule, {0, 100, 601});
    EXPECT_EQ(m_notify.Hits(), Hits());
    EXPECT_EQ(rule.GetCurrentRepetition(), 1);
}

TEST_F(RepetitionPeriod, ThePeriodDoesNotSlide) {
    auto rule = Rule(10, 3);
    Count(rule, {0, 599, 601, 602});
    EXPECT_EQ(m_notify.Hits(), Hits()) << "599, 601 and 602 lie within ten minutes, but not in one period";
    Count(rule, {603});
    EXPECT_EQ(m_notify.Hits(), Hits({kIndex}));
}

TEST_F(RepetitionPeriod, AHitClosesThePeriodAndClearsTheCount) {
    auto rule = Rule(10, 2);
    Count(rule, {0, 1});
    EXPECT_EQ(rule.GetCurrentRepetition(), 0);
    EXPECT_FALSE(rule.GetFirstCalled());
    Count(rule, {2});
    EXPECT_EQ(m_notify.Hits(), Hits({kIndex}));
    EXPECT_EQ(rule.GetFirstCallTime(), 2) << "the next event opens a new period";
    Count(rule, {602});
    EXPECT_EQ(m_notify.Hits(), Hits({kIndex, kIndex}));
}

TEST_F(RepetitionPeriod, AfterAHitAnEventLaterThanTheOldEndIsNoExpiry) {
    auto rule = Rule(10, 2);
    Count(rule, {0, 1, 5000});
    EXPECT_EQ(Logged("expired"), 0);
    EXPECT_EQ(rule.GetCurrentRepetition(), 1);
}

TEST_F(RepetitionPeriod, ThresholdsOfOneAndBelowMakeEveryEventAHit) {
    for (const int repetition : {1, 0, -1, std::numeric_limits<int>::min()}) {
        auto rule = Rule(10, repetition);
        const std::size_t before = m_notify.Hits().size();
        Count(rule, {0, 1, 2000});
        EXPECT_EQ(m_notify.Hits().size(), before + 3) << repetition;
    }
}

TEST_F(RepetitionPeriod, AClockThatIsSetBackStaysInThePeriod) {
    auto rule = Rule(10, 3);
    Count(rule, {1000, 400});
    EXPECT_EQ(rule.GetFirstCallTime(), 1000);
    EXPECT_EQ(rule.GetCurrentRepetition(), 2);
    Count(rule, {1600});
    EXPECT_EQ(m_notify.Hits(), Hits({kIndex})) << "the end is still measured from the first event";
}

TEST_F(RepetitionPeriod, ADurationOfZeroLastsOneSecond) {
    auto rule = Rule(0, 2);
    Count(rule, {5, 6});
    EXPECT_EQ(m_notify.Hits(), Hits());
    Count(rule, {6});
    EXPECT_EQ(m_notify.Hits(), Hits({kIndex}));
}

TEST_F(RepetitionPeriod, WithANegativeDurationNoTwoEventsFallIntoOnePeriod) {
    auto rule = Rule(-1, 2);
    Count(rule, {100, 100, 101, 200});
    EXPECT_EQ(m_notify.Hits(), Hits());
    EXPECT_EQ(rule.GetCurrentRepetition(), 1);
}

TEST_F(RepetitionPeriod, AHugeDurationIsHeldAtSixtyEightYears) {
    auto rule = Rule(std::numeric_limits<int>::max(), 2);
    Count(rule, {100});
    EXPECT_EQ(rule.GetExpiredTime(), 100 + std::int64_t{std::numeric_limits<std::int32_t>::max()});
    Count(rule, {kFarAway});
    EXPECT_EQ(rule.GetCurrentRepetition(), 1);
    EXPECT_EQ(rule.GetFirstCallTime(), kFarAway);
}

TEST_F(RepetitionPeriod, AHugeNegativeDurationIsHeldToo) {
    auto rule = Rule(std::numeric_limits<int>::min(), 2);
    Count(rule, {100});
    EXPECT_EQ(rule.GetExpiredTime(), 100 + std::int64_t{std::numeric_limits<std::int32_t>::min()});
}

TEST_F(RepetitionPeriod, EachStepIsLoggedUnderTheMonitorsOwnName) {
    auto rule = Rule(10, 2);
    Count(rule, {0, 1000, 1001});
    EXPECT_EQ(fakes::dlog::Find("expired").text, "SomeMonitor: SomeCb(12) > expired");
    EXPECT_EQ(Logged("> count : 1"), 2);
    EXPECT_EQ(Logged("> count : 2"), 1);
    EXPECT_EQ(Logged("> hit"), 1);
    EXPECT_EQ(Logged("> sent"), 1);
    EXPECT_EQ(Logged("not sent"), 0);
    for (const char* const text : {"> expired", "> count : 1", "> hit", "> sent"}) {
        EXPECT_EQ(PriorityOf(text), DLOG_PRIORITY_INFO) << text;
    }
}

TEST_F(RepetitionPeriod, WithoutANotifyManagerAHitIsLoggedAndLost) {
    TCMonitorInformation rule(nullptr, 10, 1, kMethod, kIndex);
    Count(rule, {0});
    EXPECT_EQ(Logged("m_pNotify is NULL"), 1);
    EXPECT_EQ(PriorityOf("> not sent"), DLOG_PRIORITY_ERROR);
    EXPECT_EQ(rule.GetCurrentRepetition(), 0) << "whatever becomes of the post";
    EXPECT_FALSE(rule.GetFirstCalled());
}

TEST_F(RepetitionPeriod, AFullNotifyQueueLosesTheHitAndTheNextOnesCountAnew) {
    auto rule = Rule(10, 1);
    m_notify.Hold();
    for (std::size_t i = 0; i < kQueueLength; ++i) {
        Count(rule, {0});
    }
    EXPECT_EQ(Logged("> sent"), static_cast<int>(kQueueLength));
    Count(rule, {0});
    EXPECT_EQ(Logged("> not sent"), 1);
    EXPECT_EQ(rule.GetCurrentRepetition(), 0);
    m_notify.ReleaseAndDrain();
    Count(rule, {0});
    EXPECT_EQ(m_notify.Hits().size(), kQueueLength + 1);
}

TEST_F(RepetitionPeriod, AFullNotifyQueueDoesNotHoldUpTheEndOfItsTask) {
    auto rule = Rule(10, 1);
    m_notify.Hold();
    for (std::size_t i = 0; i < kQueueLength; ++i) {
        Count(rule, {0});
    }
    std::thread releaser([this] {
        while (m_notify.Size() == kQueueLength) {
            std::this_thread::yield();
        }
        m_notify.Release();
    });
    m_notify.Destroy();
    releaser.join();
    EXPECT_FALSE(rule.NotifyZOL());
}

class MonitorInformation : public MonitorFixture {};

TEST_F(MonitorInformation, StartsClosedWithNothingCounted) {
    const TCMonitorInformation rule(&m_notify, 10, 3, 32, 0);
    EXPECT_FALSE(rule.GetFirstCalled());
    EXPECT_EQ(rule.GetFirstCallTime(), 0);
    EXPECT_EQ(rule.GetCurrentRepetition(), 0);
    EXPECT_EQ(rule.GetPolicyRepetition(), 3);
    EXPECT_EQ(rule.GetMethod(), 32);
    EXPECT_EQ(rule.GetExpiredTime(), 600) << "minutes are kept in seconds";
}

TEST_F(MonitorInformation, ReadsTheWallClockInSeconds) {
    At(77);
    EXPECT_EQ(TCMonitorInformation::GetCurrentTime(), fakes::clock::kEpoch + 77);
    fakes::clock::FailRealtime(true);
    EXPECT_EQ(TCMonitorInformation::GetCurrentTime(), -1);
    fakes::clock::FailRealtime(false);
}

TEST_F(MonitorInformation, AHitCarriesTheIndex) {
    TCMonitorInformation rule(&m_notify, 10, 3, kMethod, 7);
    EXPECT_TRUE(rule.NotifyZOL());
    EXPECT_EQ(m_notify.Hits(), Hits({7}));
    EXPECT_EQ(PriorityOf("NotifyZOL() CALL"), DLOG_PRIORITY_ERROR);
}

TEST_F(MonitorInformation, ANotifyManagerWhoseTaskHasEndedTakesNoHit) {
    TCMonitorInformation rule(&m_notify, 10, 3, kMethod, 7);
    m_notify.Destroy();
    EXPECT_FALSE(rule.NotifyZOL());
}

}  // namespace

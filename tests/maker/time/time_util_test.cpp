#include "CTimeUtil.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>

#include "fake_clock.h"
#include "fakes.h"
#include "variable.h"

namespace {

constexpr time_t kHour = 3600;
constexpr time_t kDay = 24 * kHour;
constexpr time_t kYear = 365 * kDay;

class TimeUtil : public testing::Test {
protected:
    TimeUtil() { fakes::Reset(); }

    void SetZone(const char* zone) {
        m_zone.Set(zone);
        tzset();
    }

    static tm Local(time_t moment) {
        tm local{};
        localtime_r(&moment, &local);
        return local;
    }

    /// The moment that the conversion makes of a moment's local time.
    static time_t ThereAndBack(time_t moment) {
        tm utc = CTimeUtil::ConvertToUTCTime(Local(moment));
        return timegm(&utc);
    }

private:
    Variable m_zone{"TZ", "UTC0"};
};

TEST_F(TimeUtil, TheCurrentTimeIsThePlatformClocksInWholeSeconds) {
    fakes::clock::SetWall(1700000123, 999999999);

    EXPECT_EQ(CTimeUtil::GetCurrentTime(), 1700000123);
}

TEST_F(TimeUtil, AClockThatCannotBeReadIsAClockThatIsNotSet) {
    fakes::clock::FailRealtime(true);

    EXPECT_EQ(CTimeUtil::GetCurrentTime(), 0);
}

TEST_F(TimeUtil, AClockOutsideTheCalendarStandsAtItsEdge) {
    const std::int64_t first = -17987443200;
    const std::int64_t last = 253402300799;
    for (const std::int64_t inside : {first, last}) {
        fakes::clock::SetWall(inside);
        EXPECT_EQ(CTimeUtil::GetCurrentTime(), inside);
    }
    fakes::clock::SetWall(first - 1);
    EXPECT_EQ(CTimeUtil::GetCurrentTime(), first);
    for (const std::int64_t after : {last + 1, INT64_MAX}) {
        fakes::clock::SetWall(after);
        EXPECT_EQ(CTimeUtil::GetCurrentTime(), last);
    }
}

/// POSIX rules, so that no zone files are needed.
class TimeUtilInZone : public TimeUtil, public testing::WithParamInterface<const char*> {};

TEST_P(TimeUtilInZone, EveryQuarterHourOfFourYearsComesBackUnchanged) {
    SetZone(GetParam());
    constexpr time_t kFrom = 1672531200;  // 2023-01-01, so that a leap year is among them

    std::int64_t wrong = 0;
    for (time_t moment = kFrom; moment < kFrom + 4 * kYear; moment += kHour / 4) {
        wrong += ThereAndBack(moment) != moment ? 1 : 0;
    }

    EXPECT_EQ(wrong, 0);
}

INSTANTIATE_TEST_SUITE_P(Zones, TimeUtilInZone,
                         testing::Values("UTC0", "CET-1CEST,M3.5.0,M10.5.0/3", "EST5EDT,M3.2.0,M11.1.0",
                                         "AEST-10AEDT,M10.1.0,M4.1.0/3",      // the southern summer
                                         "LHST-10:30LHDT-11,M10.1.0,M4.1.0",  // half an hour of summer time
                                         "IST-5:30", "NPT-5:45", "<+14>-14", "<-12>12",
                                         "IST-1GMT0,M10.5.0,M3.5.0/1"));  // winter time as the exception

TEST_F(TimeUtil, EverySecondAroundBothChangesAndInTheDoubledHourComesBackUnchanged) {
    SetZone("CET-1CEST,M3.5.0,M10.5.0/3");
    for (const time_t change : {time_t{1679792400}, time_t{1698541200}}) {
        ASSERT_NE(Local(change - 1).tm_isdst, Local(change).tm_isdst);
        for (time_t moment = change - 2 * kHour; moment <= change + 2 * kHour; ++moment) {
            ASSERT_EQ(ThereAndBack(moment), moment);
        }
    }
}

TEST_F(TimeUtil, TheResultDoesNotDependOnTheZoneOfTheProcess) {
    SetZone("EST5EDT,M3.2.0,M11.1.0");
    const tm local = Local(1700000000);
    SetZone("AEST-10AEDT,M10.1.0,M4.1.0/3");

    tm utc = CTimeUtil::ConvertToUTCTime(local);

    EXPECT_EQ(timegm(&utc), 1700000000);
}

TEST_F(TimeUtil, TheResultIsNormalisedUtc) {
    tm local{};
    local.tm_year = 123;
    local.tm_mon = 13;   // February of the next year
    local.tm_mday = 30;  // 1 March in a leap year
    local.tm_hour = -1;  // 29 February
    local.tm_min = 90;   // 1 March again
    local.tm_sec = 61;
    local.tm_isdst = 1;
    local.tm_gmtoff = 2 * kHour;

    const tm utc = CTimeUtil::ConvertToUTCTime(local);

    char text[32];
    std::strftime(text, sizeof(text), "%F %T", &utc);
    EXPECT_STREQ(text, "2024-02-29 22:31:01");
    EXPECT_EQ(utc.tm_isdst, 0);
    EXPECT_EQ(utc.tm_gmtoff, 0);
}

TEST_F(TimeUtil, TheSecondBefore1970IsAMomentLikeAnyOther) {
    SetZone("UTC0");

    EXPECT_EQ(ThereAndBack(-1), -1);
}

TEST_F(TimeUtil, AMomentThatCannotBeHeldIsNoDate) {
    tm local{};
    local.tm_year = 2147483647;
    local.tm_mon = 2147483647;

    const tm utc = CTimeUtil::ConvertToUTCTime(local);

    EXPECT_EQ(utc.tm_mday, 0);
    EXPECT_EQ(utc.tm_year, 0);
}

}  // namespace

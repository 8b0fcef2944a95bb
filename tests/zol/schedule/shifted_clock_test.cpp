#include "ZOLShiftedClock.h"

#include <dlfcn.h>

#include <ctime>
#include <stdexcept>

#include "device_test.h"
#include "dlog.h"
#include "fake_clock.h"
#include "fake_vconf.h"
#include "time_zone.h"

namespace {

/// No moment has a calendar date, on this thread. No clock of this machine goes that far.
thread_local bool t_isBeyondCalendar = false;

/// Its name in the C library, which has two where long is too short for the time.
constexpr const char* kLocaltime = sizeof(time_t) > sizeof(long) ? "__localtime64_r" : "localtime_r";

}  // namespace

/// Stands before the C library's, for the whole test program.
extern "C" tm* localtime_r(const time_t* moment, tm* local) noexcept {
    using Convert = tm* (*)(const time_t*, tm*);
    static const auto convert = reinterpret_cast<Convert>(dlsym(RTLD_NEXT, kLocaltime));
    return t_isBeyondCalendar ? nullptr : convert(moment, local);
}

namespace {

using zol::TCShiftedClock;

constexpr const char* kKey = "db/private/zol/clock_diff";
// Middle Europe: summer time from the last Sunday of March, 01:00 UTC, to the last Sunday of October.
constexpr const char* kMiddleEurope = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr std::int64_t kOctoberChange = 1698541200;  // 2023-10-29 01:00:00 UTC, 03:00 becomes 02:00
constexpr std::int64_t kMarchChange = 1711846800;    // 2024-03-31 01:00:00 UTC, 02:00 becomes 03:00

class ShiftedClock : public DeviceTest {
protected:
    void ExpectNoJumpAround(std::int64_t change) {
        for (std::int64_t wall = change - 7200; wall <= change + 7200; wall += 60) {
            fakes::clock::SetWall(wall);
            ASSERT_EQ(m_clock.GetCurrentTime(), wall);
        }
    }

    TCShiftedClock m_clock;
};

TEST_F(ShiftedClock, StartsAsTheWallClockInUtcSecondsAndReadingItIsLogged) {
    fakes::clock::SetWall(1700000000, 999999999);

    EXPECT_EQ(m_clock.GetCurrentTime(), 1700000000);
    ExpectLogged(DLOG_PRIORITY_DEBUG, {"Getting current time"});
    EXPECT_EQ(fakes::dlog::Find("Getting current time").buffer, DLOG_BUFFER_SYSTEM);
}

TEST_F(ShiftedClock, PolicyTimeJumpsNeitherInTheDoubledHourNorInTheOneThatIsLeftOut) {
    const TimeZone zone(kMiddleEurope);
    ExpectNoJumpAround(kOctoberChange);
    ExpectNoJumpAround(kMarchChange);
}

TEST_F(ShiftedClock, PolicyTimeIsTheSameInEveryZone) {
    for (const char* zone : {"UTC0", "XST-14", "YST12", "NPT-5:45", "LHST-10:30LHDT-11,M10.1.0,M4.1.0"}) {
        const TimeZone here(zone);
        fakes::clock::SetWall(1698541200);
        EXPECT_EQ(m_clock.GetCurrentTime(), 1698541200) << zone;
    }
}

TEST_F(ShiftedClock, AMomentWithoutACalendarDateIsRefusedByTheDateLibrary) {
    t_isBeyondCalendar = true;
    EXPECT_THROW(m_clock.GetCurrentTime(), std::out_of_range);
    t_isBeyondCalendar = false;
}

TEST_F(ShiftedClock, AccumulatedSecondsAddUpBeyond32BitsAndAreStoredOnlyWhenItIsTold) {
    fakes::clock::SetWall(5000);
    m_clock.AccumulateTimeShift(100);
    m_clock.AccumulateTimeShift(-3600);
    EXPECT_EQ(m_clock.GetCurrentTime(), 5000 - 3500);
    EXPECT_FALSE(fakes::vconf::Exists(kKey));

    m_clock.StoreTimeShift();
    EXPECT_EQ(fakes::vconf::GetString(kKey), "-3500");

    m_clock.AccumulateTimeShift(5000000000);
    EXPECT_EQ(m_clock.GetCurrentTime(), 5000001500);
}

TEST_F(ShiftedClock, ResetForgetsTheShiftAndStoresZeroWhereItCan) {
    fakes::clock::SetWall(1000);
    m_clock.AccumulateTimeShift(77);
    fakes::vconf::Fail(kKey, fakes::vconf::FAIL_SET);
    m_clock.ResetTimeShift();
    EXPECT_EQ(m_clock.GetCurrentTime(), 1000);
    EXPECT_FALSE(fakes::vconf::Exists(kKey));

    fakes::vconf::Fail(kKey, fakes::vconf::FAIL_NONE);
    m_clock.ResetTimeShift();
    EXPECT_EQ(fakes::vconf::GetString(kKey), "0");
}

TEST_F(ShiftedClock, LoadingTakesTheStoredShiftAndWrapsWhereItIsAbsurd) {
    fakes::clock::SetWall(1000);
    fakes::vconf::SetString(kKey, "-250");
    m_clock.LoadTimeShift();
    EXPECT_EQ(m_clock.GetCurrentTime(), 750);

    fakes::clock::SetWall(1);
    fakes::vconf::SetString(kKey, "9223372036854775807");
    m_clock.LoadTimeShift();
    EXPECT_EQ(m_clock.GetCurrentTime(), INT64_MIN);
}

TEST_F(ShiftedClock, AMissingKeyLeavesTheShiftAndSaysNothing) {
    fakes::clock::SetWall(1000);
    m_clock.AccumulateTimeShift(5);
    fakes::dlog::Clear();

    m_clock.LoadTimeShift();

    EXPECT_TRUE(fakes::dlog::Lines().empty());
    EXPECT_EQ(m_clock.GetCurrentTime(), 1005);
}

TEST_F(ShiftedClock, AStoredTextThatIsNoNumberIsLoggedAndLeavesTheShift) {
    fakes::clock::SetWall(1000);
    m_clock.AccumulateTimeShift(5);

    for (const char* text : {"abc", "", "-", "99999999999999999999"}) {
        fakes::dlog::Clear();
        fakes::vconf::SetString(kKey, text);
        m_clock.LoadTimeShift();
        EXPECT_EQ(m_clock.GetCurrentTime(), 1005) << text;
        ExpectErrors({"Could not convert time shift"});
    }
}

}  // namespace

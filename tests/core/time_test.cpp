#include <time.h>

#include "Time.h"
#include "device_test.h"
#include "fake_clock.h"

namespace {

using Time = DeviceTest;

TEST_F(Time, TheStampsReadTheWallClockInTheirUnits) {
    fakes::clock::SetWall(1700000000, 123456789);

    EXPECT_EQ(CCTime::CurrentUtc(), 1700000000123456789U);
    EXPECT_EQ(CCTime::UTick(), 1700000000123456U);
    EXPECT_EQ(CCTime::Tick(), 1700000000123U);
    EXPECT_EQ(UTick(), CCTime::UTick());
}

TEST_F(Time, AClockThatIsSetBackMovesTheStampsBack) {
    const std::uint64_t before = CCTime::Tick();

    fakes::clock::SetWall(fakes::clock::kEpoch - 60);

    EXPECT_EQ(CCTime::Tick(), before - 60000);
}

TEST_F(Time, SleepTakesMillisecondsInA32BitProduct) {
    CCTime::Sleep(1500);
    EXPECT_EQ(fakes::clock::SleptUs(), 1500000U);

    CCTime::USleep(7);
    EXPECT_EQ(fakes::clock::SleptUs(), 1500007U);

    CCTime::Sleep(4294968);  // 4294968000 us is 704 us more than 32 bits hold
    EXPECT_EQ(fakes::clock::SleptUs(), 1500007U + 704U);
}

TEST_F(Time, TheThreadsTicksAreMillisecondsOfItsOwnProcessorTimeWhateverTheWallClockSays) {
    const auto used = [] {
        timespec time{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return static_cast<std::uint64_t>(time.tv_sec) * 1000U +
               static_cast<std::uint64_t>(time.tv_nsec) / 1000000U;
    };
    const std::uint64_t first = used();
    const std::uint64_t tick = CCTime::ThreadTick();
    EXPECT_GE(tick, first);
    EXPECT_LE(tick, used());

    fakes::clock::Advance(std::chrono::hours(1));
    while (CCTime::ThreadTick() < tick + 2) {  // works, so that it moves
    }
    EXPECT_GE(used(), tick + 2);
    const std::uint64_t later = ustick();
    EXPECT_GE(later, tick + 2);
    EXPECT_LE(later, used());
}

}  // namespace

#include <gtest/gtest.h>
#include <semaphore.h>

#include <cerrno>
#include <thread>

#include "platform_clock.h"

namespace {

/// A semaphore with a first value.
class Semaphore {
public:
    explicit Semaphore(unsigned value) { sem_init(&m_sem, 0, value); }
    ~Semaphore() { sem_destroy(&m_sem); }
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;
    sem_t* Get() { return &m_sem; }

private:
    sem_t m_sem{};
};

platform_time_t InSeconds(int64_t seconds) {
    platform_time_t time{};
    EXPECT_EQ(platform_clock_realtime(&time), 0);
    time.seconds += seconds;
    return time;
}

TEST(ClockSemaphore, IsTakenEvenWhenTheDeadlineIsOver) {
    Semaphore semaphore(1);
    const platform_time_t past = InSeconds(-10);

    EXPECT_EQ(platform_sem_wait_until(semaphore.Get(), &past), 0);
}

TEST(ClockSemaphore, TimesOutAtOnceWhenTheDeadlineIsOver) {
    Semaphore semaphore(0);
    const platform_time_t past = InSeconds(-10);

    EXPECT_EQ(platform_sem_wait_until(semaphore.Get(), &past), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST(ClockSemaphore, RefusesADeadlineThatIsNoneEvenWhenItCouldBeTaken) {
    Semaphore semaphore(1);
    platform_time_t wrong = InSeconds(10);
    wrong.nanoseconds = 1000000000;

    EXPECT_EQ(platform_sem_wait_until(semaphore.Get(), &wrong), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(ClockSemaphore, EndsItsWaitWhenItIsGiven) {
    Semaphore semaphore(0);
    const platform_time_t later = InSeconds(60);
    std::thread giver([&semaphore] { sem_post(semaphore.Get()); });

    EXPECT_EQ(platform_sem_wait_until(semaphore.Get(), &later), 0);
    giver.join();
}

TEST(ClockAlarm, ARingBeforeTheWaitEndsItAndIsUsedUp) {
    platform_alarm_t* alarm = platform_alarm_new();
    platform_alarm_ring(alarm);
    platform_alarm_ring(alarm);

    EXPECT_EQ(platform_alarm_wait(alarm, 60000000000U), 1);
    EXPECT_EQ(platform_alarm_wait(alarm, 0), 0);
    platform_alarm_ring(alarm);
    EXPECT_EQ(platform_alarm_wait_until(alarm, nullptr), 1);
    const platform_time_t past = InSeconds(-1);
    EXPECT_EQ(platform_alarm_wait_until(alarm, &past), 0);
    platform_alarm_free(alarm);
}

TEST(ClockAlarm, WaitsUntilAMomentHowLateItMayBeOrUntilItIsRung) {
    platform_alarm_t* alarm = platform_alarm_new();
    platform_time_t soon = InSeconds(0);
    soon.seconds += (soon.nanoseconds + 20000000) / 1000000000;
    soon.nanoseconds = (soon.nanoseconds + 20000000) % 1000000000;
    EXPECT_EQ(platform_alarm_wait_until(alarm, &soon), 0);
    const platform_time_t now = InSeconds(0);
    EXPECT_TRUE(now.seconds > soon.seconds ||
                (now.seconds == soon.seconds && now.nanoseconds >= soon.nanoseconds));
    for (const platform_time_t& moment :
         {InSeconds(3600), InSeconds(20000000000), platform_time_t{INT64_MAX, 999999999}}) {
        std::thread ringer([alarm] { platform_alarm_ring(alarm); });
        EXPECT_EQ(platform_alarm_wait_until(alarm, &moment), 1) << moment.seconds;
        ringer.join();
    }
    platform_alarm_free(alarm);
}

}  // namespace

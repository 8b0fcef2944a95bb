#include "Time.h"

#include <time.h>

#include "platform_clock.h"

namespace {

/// The wall clock in units of which a second holds `perSecond`.
std::uint64_t WallClock(std::uint64_t perSecond) {
    platform_time_t now{};
    platform_clock_realtime(&now);
    return static_cast<std::uint64_t>(now.seconds) * perSecond +
           static_cast<std::uint64_t>(now.nanoseconds) / (1000000000U / perSecond);
}

}  // namespace

std::uint64_t CCTime::CurrentUtc() {
    return WallClock(1000000000U);
}

std::uint64_t CCTime::Tick() {
    return WallClock(1000U);
}

std::uint64_t CCTime::UTick() {
    return WallClock(1000000U);
}

std::uint64_t CCTime::ThreadTick() {
    timespec used{};
    if (clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used) != 0) {
        return 0;
    }
    return static_cast<std::uint64_t>(used.tv_sec) * 1000U +
           static_cast<std::uint64_t>(used.tv_nsec) / 1000000U;
}

void CCTime::Sleep(unsigned long milliseconds) {
    platform_sleep_us(static_cast<std::uint32_t>(static_cast<std::uint32_t>(milliseconds) * 1000U));
}

void CCTime::USleep(unsigned long microseconds) {
    platform_sleep_us(microseconds);
}

std::uint64_t UTick() {
    return CCTime::UTick();
}
std::uint64_t ustick() {
    return CCTime::ThreadTick();
}

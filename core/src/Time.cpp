#include "Time.h"

#include <time.h>

#include "platform_clock.h"

namespace {

std::uint64_t Seconds(const timespec& time) {
    return static_cast<std::uint64_t>(time.tv_sec);
}
std::uint64_t Nanoseconds(const timespec& time) {
    return static_cast<std::uint64_t>(time.tv_nsec);
}

timespec Now() {
    timespec now{};
    platform_clock_realtime(&now);
    return now;
}

}  // namespace

std::uint64_t CCTime::CurrentUtc() {
    const timespec now = Now();
    return Seconds(now) * 1000000000U + Nanoseconds(now);
}

std::uint64_t CCTime::Tick() {
    const timespec now = Now();
    return Seconds(now) * 1000U + Nanoseconds(now) / 1000000U;
}

std::uint64_t CCTime::UTick() {
    const timespec now = Now();
    return Seconds(now) * 1000000U + Nanoseconds(now) / 1000U;
}

std::uint64_t CCTime::ThreadTick() {
    timespec used{};
    if (clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used) != 0) {
        return 0;
    }
    return Seconds(used) * 1000U + Nanoseconds(used) / 1000000U;
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

#include "platform_clock.h"

#include <glib.h>
#include <time.h>

#include <cerrno>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <new>
#include <utility>

struct platform_alarm_s {
    std::mutex mutex;
    std::condition_variable rang;
    bool rung = false;
};

extern "C" {

int platform_clock_realtime(platform_time_t* out) {
    timespec now{};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0) {
        return -1;
    }
    *out = {now.tv_sec, now.tv_nsec};
    return 0;
}

uint64_t platform_clock_steady_ns(void) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000U + static_cast<uint64_t>(now.tv_nsec);
}

void platform_sleep_us(uint64_t microseconds) {
    // g_usleep takes an unsigned long, which has 32 bits on the device.
    constexpr uint64_t kLongest = std::numeric_limits<gulong>::max();
    g_usleep(static_cast<gulong>(std::min(microseconds, kLongest)));
}

int platform_sem_wait_until(sem_t* sem, const platform_time_t* deadline) {
    constexpr int64_t kNsPerSecond = 1000000000;
    if (deadline->nanoseconds < 0 || deadline->nanoseconds >= kNsPerSecond) {
        errno = EINVAL;
        return -1;
    }
    // Tasks ask with a deadline of now at each pass: sem_timedwait would put them to sleep for it, and every
    // such switch costs as much as the pass itself.
    if (sem_trywait(sem) == 0) {
        return 0;
    }
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec > deadline->seconds ||
        (now.tv_sec == deadline->seconds && now.tv_nsec >= deadline->nanoseconds)) {
        errno = ETIMEDOUT;
        return -1;
    }
    const timespec until = {static_cast<time_t>(deadline->seconds),
                            static_cast<decltype(timespec::tv_nsec)>(deadline->nanoseconds)};
    int result = 0;
    do {
        result = sem_timedwait(sem, &until);
    } while (result != 0 && errno == EINTR);
    return result;
}

platform_alarm_t* platform_alarm_new(void) {
    return new (std::nothrow) platform_alarm_s;
}

void platform_alarm_free(platform_alarm_t* alarm) {
    delete alarm;
}

int platform_alarm_wait(platform_alarm_t* alarm, uint64_t nanoseconds) {
    // A year keeps the sum below the clock's range.
    constexpr uint64_t kLongest = 365ULL * 24 * 3600 * 1000000000;
    const std::chrono::nanoseconds time(static_cast<int64_t>(std::min(nanoseconds, kLongest)));
    std::unique_lock<std::mutex> lock(alarm->mutex);
    alarm->rang.wait_for(lock, time, [alarm] { return alarm->rung; });
    return std::exchange(alarm->rung, false) ? 1 : 0;
}

int platform_alarm_wait_until(platform_alarm_t* alarm, const platform_time_t* moment) {
    // Moments that nanoseconds since 1970 do not reach, the year 2255 and later, do not come.
    constexpr int64_t kLatest = 9000000000;
    std::unique_lock<std::mutex> lock(alarm->mutex);
    const auto hasRung = [alarm] { return alarm->rung; };
    if (moment == nullptr || moment->seconds > kLatest) {
        alarm->rang.wait(lock, hasRung);
    } else {
        // The kernel's timer of an absolute wait on the wall clock goes off when that clock is set past it.
        const auto since =
            std::chrono::seconds(moment->seconds) + std::chrono::nanoseconds(moment->nanoseconds);
        alarm->rang.wait_until(
            lock, std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>(since),
            hasRung);
    }
    return std::exchange(alarm->rung, false) ? 1 : 0;
}

void platform_alarm_ring(platform_alarm_t* alarm) {
    const std::lock_guard<std::mutex> lock(alarm->mutex);
    alarm->rung = true;
    alarm->rang.notify_one();
}
}

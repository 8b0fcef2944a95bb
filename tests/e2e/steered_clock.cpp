/// The clock of the daemon that the end-to-end tests steer: the product's daemon with this in place of the
/// platform's clock. ZOL_TEST_CLOCK_SPEED says how many seconds pass here while one passes outside,
/// ZOL_TEST_CLOCK_AHEAD by how many seconds the wall clock is wrong, ZOL_TEST_CLOCK_FILE a file with a number
/// of seconds by which it is wrong beside that: the clock jumps when it is written.
#include <fcntl.h>
#include <glib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <new>

#include "platform_clock.h"

namespace {

constexpr uint64_t kNsPerSecond = 1000000000;
/// Shorter waits are retries, whose length nobody watches; they stay as they are.
constexpr uint64_t kShortestSteered = kNsPerSecond;
constexpr gulong kLookUs = 1000;  ///< between looks at a clock that may jump

uint64_t Setting(const char* name) {
    const char* text = std::getenv(name);
    return text != nullptr ? std::strtoull(text, nullptr, 10) : 0;
}

uint64_t Speed() {
    static const uint64_t speed = std::max<uint64_t>(1, Setting("ZOL_TEST_CLOCK_SPEED"));
    return speed;
}

/// What the file says now; 0 when there is none.
int64_t Jumped() {
    static const char* const name = std::getenv("ZOL_TEST_CLOCK_FILE");
    static const int file = name != nullptr ? open(name, O_RDONLY | O_CLOEXEC) : -1;
    char text[32] = "";
    if (file >= 0 && pread(file, text, sizeof(text) - 1, 0) > 0) {
        return std::strtoll(text, nullptr, 10);
    }
    return 0;
}

/// Seconds: as nanoseconds it may be more than 64 bits hold.
int64_t Ahead() {
    static const auto ahead = static_cast<int64_t>(Setting("ZOL_TEST_CLOCK_AHEAD"));
    return ahead + Jumped();
}

uint64_t RealNs(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * kNsPerSecond + static_cast<uint64_t>(now.tv_nsec);
}

uint64_t StartNs() {
    static const uint64_t start = RealNs(CLOCK_MONOTONIC);
    return start;
}

uint64_t PassedNs() {
    const uint64_t start = StartNs();
    return (RealNs(CLOCK_MONOTONIC) - start) * Speed();
}

uint64_t WallNs() {
    static const uint64_t start = RealNs(CLOCK_REALTIME);
    return start + PassedNs();
}

/// Asked anew each time: the clock may jump meanwhile.
bool HasCome(const platform_time_t& moment) {
    const int64_t until =
        (moment.seconds - Ahead()) * static_cast<int64_t>(kNsPerSecond) + moment.nanoseconds;
    return static_cast<int64_t>(WallNs()) >= until;
}

uint64_t RealLength(uint64_t nanoseconds) {
    return nanoseconds < kShortestSteered ? nanoseconds : nanoseconds / Speed();
}

}  // namespace

struct platform_alarm_s {
    std::mutex mutex;
    std::condition_variable rang;
    bool rung = false;
};

extern "C" {

int platform_clock_realtime(platform_time_t* out) {
    const uint64_t now = WallNs();
    *out = {static_cast<int64_t>(now / kNsPerSecond) + Ahead(), static_cast<int64_t>(now % kNsPerSecond)};
    return 0;
}

uint64_t platform_clock_steady_ns(void) {
    return PassedNs();
}

void platform_sleep_us(uint64_t microseconds) {
    g_usleep(static_cast<gulong>(RealLength(microseconds * 1000) / 1000));
}

int platform_sem_wait_until(sem_t* sem, const platform_time_t* deadline) {
    if (deadline->nanoseconds < 0 || static_cast<uint64_t>(deadline->nanoseconds) >= kNsPerSecond) {
        errno = EINVAL;
        return -1;
    }
    while (sem_trywait(sem) != 0) {
        if (HasCome(*deadline)) {
            errno = ETIMEDOUT;
            return -1;
        }
        g_usleep(kLookUs);
    }
    return 0;
}

platform_alarm_t* platform_alarm_new(void) {
    return new (std::nothrow) platform_alarm_s;
}

void platform_alarm_free(platform_alarm_t* alarm) {
    delete alarm;
}

int platform_alarm_wait(platform_alarm_t* alarm, uint64_t nanoseconds) {
    std::unique_lock<std::mutex> lock(alarm->mutex);
    const std::chrono::nanoseconds time(static_cast<int64_t>(RealLength(nanoseconds)));
    const bool rung = alarm->rang.wait_for(lock, time, [alarm] { return alarm->rung; });
    alarm->rung = false;
    return rung ? 1 : 0;
}

int platform_alarm_wait_until(platform_alarm_t* alarm, const platform_time_t* moment) {
    std::unique_lock<std::mutex> lock(alarm->mutex);
    while (!alarm->rung) {
        if (moment == nullptr) {
            alarm->rang.wait(lock);
        } else if (HasCome(*moment)) {
            return 0;
        } else {
            alarm->rang.wait_for(lock, std::chrono::microseconds(kLookUs));
        }
    }
    alarm->rung = false;
    return 1;
}

void platform_alarm_ring(platform_alarm_t* alarm) {
    const std::lock_guard<std::mutex> lock(alarm->mutex);
    alarm->rung = true;
    alarm->rang.notify_one();
}
}

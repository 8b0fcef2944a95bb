#include "fake_clock.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <list>
#include <mutex>
#include <new>

#include "fake_internal.h"
#include "platform_clock.h"

using std::chrono::nanoseconds;

struct platform_alarm_s {
    bool rung = false;
};

namespace fakes {
namespace {

constexpr std::int64_t kNsPerSecond = 1000000000;

struct Sleeper {
    std::uint64_t until;
    std::int64_t duration;
    bool over = false;
    const bool* rung = nullptr;  // of the alarm that ends it; null for none
};

struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::int64_t wallBase = clock::kEpoch;  // seconds; nanoseconds would not go far enough
    std::int64_t wallNs = 0;                // since the base
    std::uint64_t steadyNs = 1000 * static_cast<std::uint64_t>(kNsPerSecond);
    bool failRealtime = false;
    bool sleepAdvances = true;
    std::uint64_t sleptUs = 0;
    std::list<Sleeper> sleepers;
};

State& The() {
    static auto* state = new State;
    return *state;
}

void MoveLocked(State& state, nanoseconds wall, nanoseconds steady) {
    state.wallNs += wall.count();
    state.steadyNs += static_cast<std::uint64_t>(steady.count());
    for (Sleeper& sleeper : state.sleepers) {
        sleeper.over = sleeper.over || sleeper.until <= state.steadyNs;
    }
    state.changed.notify_all();
}

/// Waits on the steady clock until `duration` is over or `ended` holds; true when `ended` holds.
template <class Ended>
bool WaitLocked(State& state, std::unique_lock<std::mutex>& lock, std::uint64_t duration, Ended ended,
                const bool* rung = nullptr) {
    const auto self = state.sleepers.insert(
        state.sleepers.end(),
        {state.steadyNs + duration, static_cast<std::int64_t>(duration), duration == 0, rung});
    state.changed.notify_all();
    state.changed.wait(lock, [&] { return self->over || ended(); });
    state.sleepers.erase(self);
    return ended();
}

}  // namespace

void ResetClock() {
    State& state = The();
    const std::lock_guard<std::mutex> lock(state.mutex);
    state.wallBase = clock::kEpoch;
    state.wallNs = 0;
    state.failRealtime = false;
    state.sleepAdvances = true;
    state.sleptUs = 0;
    state.changed.notify_all();
}

namespace clock {

void SetWall(std::int64_t seconds, std::int64_t nanosecondsPart) {
    const std::lock_guard<std::mutex> lock(The().mutex);
    The().wallBase = seconds;
    The().wallNs = nanosecondsPart;
    The().changed.notify_all();
}

std::int64_t WallSeconds() {
    const std::lock_guard<std::mutex> lock(The().mutex);
    return The().wallBase + The().wallNs / kNsPerSecond;
}

void Advance(nanoseconds time) {
    const std::lock_guard<std::mutex> lock(The().mutex);
    MoveLocked(The(), time, time);
}

void AdvanceSteady(nanoseconds time) {
    const std::lock_guard<std::mutex> lock(The().mutex);
    MoveLocked(The(), nanoseconds(0), time);
}

void FailRealtime(bool fail) {
    const std::lock_guard<std::mutex> lock(The().mutex);
    The().failRealtime = fail;
}

bool AwaitSleeper(nanoseconds duration, int sleepers) {
    State& state = The();
    std::unique_lock<std::mutex> lock(state.mutex);
    return state.changed.wait_for(lock, kPatience, [&] {
        return std::count_if(state.sleepers.begin(), state.sleepers.end(), [&](const Sleeper& sleeper) {
                   return !sleeper.over && (sleeper.rung == nullptr || !*sleeper.rung) &&
                          sleeper.duration == duration.count();
               }) >= sleepers;
    });
}

bool PassSleeps(nanoseconds duration, int times) {
    for (; times > 0 && AwaitSleeper(duration); --times) {
        Advance(duration);
    }
    return times == 0;
}

void SleepAdvances(bool on) {
    const std::lock_guard<std::mutex> lock(The().mutex);
    The().sleepAdvances = on;
}

std::uint64_t SleptUs() {
    const std::lock_guard<std::mutex> lock(The().mutex);
    return The().sleptUs;
}

}  // namespace clock
}  // namespace fakes

extern "C" {

int platform_clock_realtime(platform_time_t* out) {
    fakes::State& state = fakes::The();
    const std::lock_guard<std::mutex> lock(state.mutex);
    if (state.failRealtime) {
        return -1;
    }
    *out = {state.wallBase + state.wallNs / fakes::kNsPerSecond, state.wallNs % fakes::kNsPerSecond};
    return 0;
}

uint64_t platform_clock_steady_ns(void) {
    const std::lock_guard<std::mutex> lock(fakes::The().mutex);
    return fakes::The().steadyNs;
}

void platform_sleep_us(uint64_t microseconds) {
    fakes::State& state = fakes::The();
    std::unique_lock<std::mutex> lock(state.mutex);
    state.sleptUs += microseconds;
    if (state.sleepAdvances) {
        const nanoseconds time = std::chrono::microseconds(microseconds);
        fakes::MoveLocked(state, time, time);
        return;
    }
    fakes::WaitLocked(state, lock, microseconds * 1000, [] { return false; });
}

int platform_sem_wait_until(sem_t* sem, const platform_time_t* deadline) {
    if (deadline->nanoseconds < 0 || deadline->nanoseconds >= fakes::kNsPerSecond) {
        errno = EINVAL;
        return -1;
    }
    fakes::State& state = fakes::The();
    std::unique_lock<std::mutex> lock(state.mutex);
    const auto left = [&] {
        return (deadline->seconds - state.wallBase) * fakes::kNsPerSecond + deadline->nanoseconds -
               state.wallNs;
    };
    const std::int64_t duration = std::max<std::int64_t>(0, left());
    const auto self = state.sleepers.insert(
        state.sleepers.end(),
        {state.steadyNs + static_cast<std::uint64_t>(duration), duration, duration == 0});
    state.changed.notify_all();
    int result = 0;
    // A post does not tell the fake, so it looks again every real millisecond.
    while ((result = sem_trywait(sem)) != 0 && left() > 0) {
        state.changed.wait_for(lock, std::chrono::milliseconds(1));
    }
    state.sleepers.erase(self);
    if (result != 0) {
        errno = ETIMEDOUT;
    }
    return result;
}

platform_alarm_t* platform_alarm_new(void) {
    return new (std::nothrow) platform_alarm_s;
}

void platform_alarm_free(platform_alarm_t* alarm) {
    delete alarm;
}

int platform_alarm_wait(platform_alarm_t* alarm, uint64_t nanosecondsToWait) {
    fakes::State& state = fakes::The();
    std::unique_lock<std::mutex> lock(state.mutex);
    const bool rung = fakes::WaitLocked(
        state, lock, nanosecondsToWait, [alarm] { return alarm->rung; }, &alarm->rung);
    alarm->rung = false;
    return rung ? 1 : 0;
}

void platform_alarm_ring(platform_alarm_t* alarm) {
    fakes::State& state = fakes::The();
    const std::lock_guard<std::mutex> lock(state.mutex);
    alarm->rung = true;
    state.changed.notify_all();
}
}

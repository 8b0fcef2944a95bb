#include "fake_clock.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <iterator>
#include <limits>
#include <list>
#include <mutex>
#include <new>
#include <optional>
#include <utility>

#include "fake_internal.h"
#include "platform_clock.h"

using std::chrono::nanoseconds;

struct platform_alarm_s {
    bool rung = false;
};

namespace fakes {
namespace {

constexpr std::int64_t kNsPerSecond = 1000000000;

/// When a wait is over: a moment of the steady clock, one of the wall clock, or never.
struct End {
    std::optional<std::uint64_t> steadyNs;
    std::optional<platform_time_t> wall;
};

struct Sleeper {
    End end;
    const bool* rung = nullptr;  // of the alarm that ends it; null for none
    bool over = false;
    std::condition_variable woken{};

    bool IsAsleep() const { return !over && (rung == nullptr || !*rung); }
};

struct State {
    std::mutex mutex;
    std::condition_variable changed;        // for those who wait for sleepers
    std::int64_t wallBase = clock::kEpoch;  // seconds; nanoseconds would not go far enough
    std::int64_t wallNs = 0;                // since the base
    std::uint64_t steadyNs = 1000 * static_cast<std::uint64_t>(kNsPerSecond);
    bool failRealtime = false;
    bool sleepAdvances = true;
    std::uint64_t sleptUs = 0;
    std::list<Sleeper> sleepers;

    /// What is left of a wait; clock::kForever for one that time does not end.
    nanoseconds Left(const End& end) const {
        if (end.steadyNs) {
            return nanoseconds(*end.steadyNs > steadyNs ? *end.steadyNs - steadyNs : 0);
        }
        // Beyond a century nothing waits for its end, and nanoseconds do not go much further.
        constexpr std::int64_t kCentury = 36525 * std::int64_t{86400};
        if (!end.wall || end.wall->seconds - wallBase > kCentury) {
            return clock::kForever;
        }
        const std::int64_t left =
            (end.wall->seconds - wallBase) * kNsPerSecond + end.wall->nanoseconds - wallNs;
        return nanoseconds(std::max<std::int64_t>(left, 0));
    }
};

State& The() {
    static auto* state = new State;
    return *state;
}

void WakeLocked(State& state) {
    for (Sleeper& sleeper : state.sleepers) {
        if (!sleeper.over && state.Left(sleeper.end) == nanoseconds(0)) {
            sleeper.over = true;
            sleeper.woken.notify_all();
        }
    }
    state.changed.notify_all();
}

void MoveLocked(State& state, nanoseconds wall, nanoseconds steady) {
    state.wallNs += wall.count();
    state.steadyNs += static_cast<std::uint64_t>(steady.count());
    WakeLocked(state);
}

std::uint64_t SteadyAfter(const State& state, std::uint64_t time) {
    constexpr std::uint64_t kLatest = std::numeric_limits<std::int64_t>::max();
    return time < kLatest - state.steadyNs ? state.steadyNs + time : kLatest;
}

/// Waits until the end or until `rung`, when it is not null, is true.
void WaitLocked(State& state, std::unique_lock<std::mutex>& lock, const End& end,
                const bool* rung = nullptr) {
    state.sleepers.emplace_back();
    const auto self = std::prev(state.sleepers.end());
    self->end = end;
    self->rung = rung;
    self->over = state.Left(end) == nanoseconds(0);
    state.changed.notify_all();
    self->woken.wait(lock, [&] { return !self->IsAsleep(); });
    state.sleepers.erase(self);
}

/// 1 when it was rung, 0 when the end came first.
int WaitLocked(State& state, std::unique_lock<std::mutex>& lock, const End& end, platform_alarm_t* alarm) {
    WaitLocked(state, lock, end, &alarm->rung);
    return std::exchange(alarm->rung, false) ? 1 : 0;
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
    WakeLocked(The());
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
                   return sleeper.IsAsleep() && state.Left(sleeper.end) == duration;
               }) >= sleepers;
    });
}

bool PassSleeps(nanoseconds duration, int times) {
    for (; times > 0 && AwaitSleeper(duration); --times) {
        Advance(duration);
    }
    return times == 0;
}

int CountThreads() {
    struct stat tasks {};
    // A link for each, and those that every folder has.
    return stat("/proc/self/task", &tasks) == 0 ? static_cast<int>(tasks.st_nlink) - 2 : 0;
}

bool AwaitRest(int others) {
    State& state = The();
    const auto end = std::chrono::steady_clock::now() + kPatience;
    std::unique_lock<std::mutex> lock(state.mutex);
    const auto isAtRest = [&] {
        // A thread that comes or goes does not tell, so they are counted each time.
        return std::all_of(state.sleepers.begin(), state.sleepers.end(),
                           [](const Sleeper& sleeper) { return sleeper.IsAsleep(); }) &&
               static_cast<int>(state.sleepers.size()) == CountThreads() - others;
    };
    while (!isAtRest()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        state.changed.wait_for(lock, std::chrono::milliseconds(1));
    }
    return true;
}

nanoseconds UntilNextWake() {
    const State& state = The();
    const std::lock_guard<std::mutex> lock(The().mutex);
    nanoseconds next = kForever;
    for (const Sleeper& sleeper : state.sleepers) {
        next = std::min(next, state.Left(sleeper.end));
    }
    return next;
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
    fakes::WaitLocked(state, lock, {fakes::SteadyAfter(state, microseconds * 1000), {}});
}

int platform_sem_wait_until(sem_t* sem, const platform_time_t* deadline) {
    if (deadline->nanoseconds < 0 || deadline->nanoseconds >= fakes::kNsPerSecond) {
        errno = EINVAL;
        return -1;
    }
    fakes::State& state = fakes::The();
    std::unique_lock<std::mutex> lock(state.mutex);
    state.sleepers.emplace_back();
    const auto self = std::prev(state.sleepers.end());
    self->end.wall = *deadline;
    const auto left = [&] { return state.Left(self->end); };
    self->over = left() == nanoseconds(0);
    state.changed.notify_all();
    int result = 0;
    // A post does not tell the fake, so it looks again every real millisecond.
    while ((result = sem_trywait(sem)) != 0 && left() > nanoseconds(0)) {
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
    return fakes::WaitLocked(state, lock, {fakes::SteadyAfter(state, nanosecondsToWait), {}}, alarm);
}

int platform_alarm_wait_until(platform_alarm_t* alarm, const platform_time_t* moment) {
    fakes::State& state = fakes::The();
    std::unique_lock<std::mutex> lock(state.mutex);
    fakes::End end;
    if (moment != nullptr) {
        end.wall = *moment;
    }
    return fakes::WaitLocked(state, lock, end, alarm);
}

void platform_alarm_ring(platform_alarm_t* alarm) {
    fakes::State& state = fakes::The();
    const std::lock_guard<std::mutex> lock(state.mutex);
    alarm->rung = true;
    for (fakes::Sleeper& sleeper : state.sleepers) {
        if (sleeper.rung == &alarm->rung) {
            sleeper.woken.notify_all();
        }
    }
    state.changed.notify_all();
}
}

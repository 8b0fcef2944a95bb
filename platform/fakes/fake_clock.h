#pragma once
/// Time that stands still until a test moves it.
#include <chrono>
#include <cstdint>

namespace fakes {
namespace clock {

/// Wall clock after Reset: seconds since 1970.
constexpr std::int64_t kEpoch = 1700000000;

/// What is left of a wait that time does not end.
constexpr std::chrono::nanoseconds kForever = std::chrono::nanoseconds::max();

/// Sets the wall clock only; wakes who waits for a moment of it that has come.
void SetWall(std::int64_t seconds, std::int64_t nanoseconds = 0);
std::int64_t WallSeconds();
/// Lets time pass on both clocks and wakes every sleeper whose time is over.
void Advance(std::chrono::nanoseconds time);
/// Lets time pass on the steady clock only: a wall clock that is not set.
void AdvanceSteady(std::chrono::nanoseconds time);
/// Makes platform_clock_realtime fail (return -1).
void FailRealtime(bool fail);

/// Waits until a thread sleeps or waits that has exactly this long to go; false when fakes::kPatience ends.
/// Threads that Advance has woken do not count.
bool AwaitSleeper(std::chrono::nanoseconds duration, int sleepers = 1);

/// Lets time pass so often, each time as soon as a thread has that long to sleep; false when patience ends.
[[nodiscard]] bool PassSleeps(std::chrono::nanoseconds duration, int times);

/// Waits until every thread of the process but `others` sleeps here with nothing to wake it but time; false
/// when kPatience ends. Whoever calls counts among the others. What a thread does when another one rings it,
/// and what that one does then, is done when this returns.
[[nodiscard]] bool AwaitRest(int others);
/// Threads that the process has now.
[[nodiscard]] int CountThreads();
/// Time until the first wait is over; kForever when time ends none.
[[nodiscard]] std::chrono::nanoseconds UntilNextWake();

/// By default platform_sleep_us lets the time pass by itself and returns at once; off: it blocks until
/// Advance.
void SleepAdvances(bool on);
/// Sum of all platform_sleep_us since Reset, microseconds.
std::uint64_t SleptUs();

}  // namespace clock
}  // namespace fakes

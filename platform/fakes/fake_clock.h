#pragma once
/// Time that stands still until a test moves it.
#include <chrono>
#include <cstdint>
#include <optional>

namespace fakes {
namespace clock {

/// Wall clock after Reset: seconds since 1970.
constexpr std::int64_t kEpoch = 1700000000;

/// Sets the wall clock only: the steady clock and sleepers are not moved.
void SetWall(std::int64_t seconds, std::int64_t nanoseconds = 0);
std::int64_t WallSeconds();
/// Lets time pass on both clocks and wakes every sleeper whose time is over.
void Advance(std::chrono::nanoseconds time);
/// Lets time pass on the steady clock only: a wall clock that is not set.
void AdvanceSteady(std::chrono::nanoseconds time);
/// Makes platform_clock_realtime fail (return -1).
void FailRealtime(bool fail);

/// Waits until a thread sleeps or waits for exactly this long; false when fakes::kPatience ends. Threads that
/// Advance has woken do not count.
bool AwaitSleeper(std::chrono::nanoseconds duration, int sleepers = 1);

/// Lets time pass so often, each time as soon as a thread sleeps for that long; false when patience ends.
[[nodiscard]] bool PassSleeps(std::chrono::nanoseconds duration, int times);

/// Waits until every thread of the process but `others` sleeps here with nothing to wake it but time; false
/// when kPatience ends. Whoever calls counts among the others. What a thread does when another one rings it,
/// and what that one does then, is done when this returns.
[[nodiscard]] bool AwaitRest(int others);
/// Threads that the process has now.
[[nodiscard]] int CountThreads();
/// From now on time does not end waits of at most this length, only who rings: the pauses of an idle task,
/// which would find nothing. Its timers would not find their moment either. Zero after Reset.
void LetNap(std::chrono::nanoseconds longest);
/// Time until the first wait is over that time ends; null when there is none.
[[nodiscard]] std::optional<std::chrono::nanoseconds> UntilNextWake();

/// By default platform_sleep_us lets the time pass by itself and returns at once; off: it blocks until
/// Advance.
void SleepAdvances(bool on);
/// Sum of all platform_sleep_us since Reset, microseconds.
std::uint64_t SleptUs();

}  // namespace clock
}  // namespace fakes

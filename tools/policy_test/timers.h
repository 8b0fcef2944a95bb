#pragma once
/// The timers of the daemon's main loop, on the simulated clock.
#include <chrono>
#include <optional>

namespace policytest {

/// Time until the first of them is due; null when there is none.
[[nodiscard]] std::optional<std::chrono::nanoseconds> UntilNextTimer();

}  // namespace policytest

#pragma once
/// What the daemon's supervisor hears of it.
#include "base/subscription.h"

namespace zol_daemon {

/// While the result lives, the supervisor gets a sign of life from the default main context at half the time
/// that it waits for one: the thread on which policies arrive hangs when none comes. Empty when nobody
/// supervises. Main thread.
[[nodiscard]] base::Subscription GiveLifeSigns();

}  // namespace zol_daemon

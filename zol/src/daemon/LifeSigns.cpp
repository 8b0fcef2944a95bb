#include "LifeSigns.h"

#include <glib.h>

#include <algorithm>
#include <cstdint>

#include "service_watchdog.h"

namespace zol_daemon {

base::Subscription GiveLifeSigns() {
    const std::uint64_t interval = service_watchdog_interval_us();
    if (interval == 0) {
        return {};
    }
    constexpr std::uint64_t kUsPerMs = 1000;
    const auto half = static_cast<guint>(std::clamp<std::uint64_t>(interval / 2 / kUsPerMs, 1, G_MAXUINT));
    const auto give = [](gpointer) -> gboolean {
        service_watchdog_alive();
        return G_SOURCE_CONTINUE;
    };
    const guint timer = g_timeout_add(half, give, nullptr);
    return base::Subscription([timer] { g_source_remove(timer); });
}

}  // namespace zol_daemon

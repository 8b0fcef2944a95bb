#include "timers.h"

#include <glib.h>

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <set>

#include "platform_clock.h"

namespace policytest {
namespace {

constexpr std::uint64_t kNsPerMs = 1000000;

struct Timer {
    GSource source;
    std::uint64_t due;  ///< on the steady clock, nanoseconds
    std::uint64_t interval;
};

struct Timers {
    std::mutex mutex;
    std::set<Timer*> all;
};

/// Never destroyed: sources may outlive everything.
Timers& The() {
    static auto* const timers = new Timers;
    return *timers;
}

Timer* TimerOf(GSource* source) {
    return reinterpret_cast<Timer*>(source);
}

gboolean IsDue(GSource* source) {
    return platform_clock_steady_ns() >= TimerOf(source)->due ? TRUE : FALSE;
}

/// The main loop never sleeps: whoever lets time pass looks again.
gboolean Prepare(GSource* source, gint* timeout) {
    *timeout = -1;
    return IsDue(source);
}

gboolean Run(GSource* source, GSourceFunc callback, gpointer data) {
    TimerOf(source)->due += TimerOf(source)->interval;
    return callback != nullptr ? callback(data) : G_SOURCE_REMOVE;
}

void Forget(GSource* source) {
    const std::lock_guard<std::mutex> lock(The().mutex);
    The().all.erase(TimerOf(source));
}

}  // namespace

std::optional<std::chrono::nanoseconds> UntilNextTimer() {
    const std::lock_guard<std::mutex> lock(The().mutex);
    const std::uint64_t now = platform_clock_steady_ns();
    std::optional<std::chrono::nanoseconds> next;
    for (Timer* timer : The().all) {
        if (g_source_is_destroyed(&timer->source) == FALSE) {
            const std::chrono::nanoseconds left(timer->due > now ? timer->due - now : 0);
            next = std::min(next.value_or(left), left);
        }
    }
    return next;
}

}  // namespace policytest

/// Stands before GLib's in this program.
extern "C" GSource* g_timeout_source_new(guint interval) {
    static GSourceFuncs functions{policytest::Prepare, policytest::IsDue, policytest::Run,
                                  policytest::Forget,  nullptr,           nullptr};
    GSource* const source = g_source_new(&functions, sizeof(policytest::Timer));
    policytest::Timer* const timer = policytest::TimerOf(source);
    timer->interval = interval * policytest::kNsPerMs;
    timer->due = platform_clock_steady_ns() + timer->interval;
    const std::lock_guard<std::mutex> lock(policytest::The().mutex);
    policytest::The().all.insert(timer);
    return source;
}

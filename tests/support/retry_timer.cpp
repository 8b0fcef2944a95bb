#include "retry_timer.h"

#include <dlfcn.h>
#include <glib.h>
#include <unistd.h>

namespace {

/// The timer that the test's own thread made last, to be rung by hand.
GSource* g_timer = nullptr;
unsigned g_waitMs = 0;

}  // namespace

/// Stands before GLib's, for the whole test program.
extern "C" GSource* g_timeout_source_new(guint interval) {
    static const auto make = reinterpret_cast<GSource* (*)(guint)>(dlsym(RTLD_NEXT, "g_timeout_source_new"));
    GSource* timer = make(interval);
    if (gettid() != getpid()) {
        return timer;
    }
    g_clear_pointer(&g_timer, g_source_unref);
    g_timer = g_source_ref(timer);
    g_waitMs = interval;
    return timer;
}

unsigned RetryDelayMs() {
    return g_timer != nullptr && g_source_is_destroyed(g_timer) == FALSE ? g_waitMs : 0;
}

bool LetRetryCome() {
    if (RetryDelayMs() == 0) {
        return false;
    }
    GSource* timer = g_source_ref(g_timer);
    g_source_set_ready_time(timer, 0);
    while (g_source_is_destroyed(timer) == FALSE) {
        g_main_context_iteration(nullptr, FALSE);
    }
    g_source_unref(timer);
    return true;
}

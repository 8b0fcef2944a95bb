#pragma once
/// The default main context, served by the test in the daemon's place.
#include <glib.h>

#include <chrono>
#include <functional>
#include <thread>

#include "fakes.h"

/// Serves the default main context until `done` holds; false when fakes::kPatience ends.
inline bool ServeUntil(const std::function<bool()>& done) {
    const auto patience = std::chrono::steady_clock::now() + fakes::kPatience;
    while (!done()) {
        if (std::chrono::steady_clock::now() > patience) {
            return false;
        }
        g_main_context_iteration(nullptr, FALSE);
        std::this_thread::yield();
    }
    return true;
}

#pragma once
/// The wall between a C platform and what C++ may throw.
#include <exception>

#include "Log.h"

namespace zol {

/// For the catch-all of a platform callback: turns the exception under way into a log line of `module`.
inline void LogCallbackException(const char* module) noexcept {
    const char* const kLogModule = module;
    try {
        throw;
    } catch (const std::exception& error) {
        ZOL_LOG(LOG_ERROR, "callback failed: %s", error.what());
    } catch (...) {
        ZOL_LOG(LOG_ERROR, "callback failed");
    }
}

}  // namespace zol

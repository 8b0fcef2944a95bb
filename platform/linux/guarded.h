#pragma once
/// The wall that no exception passes on its way into C code.
#include <exception>
#include <utility>

#include "platform_log.h"

namespace platform {

/// Runs `work` for a callback that C code calls; an exception becomes a log line that names `where`.
template <typename Work>
void Guarded(const char* where, Work&& work) noexcept {
    try {
        std::forward<Work>(work)();
    } catch (const std::exception& error) {
        PLATFORM_LOG(ERROR, "%s: %s", where, error.what());
    } catch (...) {
        PLATFORM_LOG(ERROR, "%s: unknown exception", where);
    }
}

}  // namespace platform

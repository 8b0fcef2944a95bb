#pragma once
#include <utility>

#include "base/exception_wall.h"
#include "platform_log.h"

namespace platform {

/// Runs `work` for a callback that C code calls; an exception becomes a log line that names `where`.
/// @return what `work` returned; after an exception the zero of that type
template <typename Work>
auto Guarded(const char* where, Work&& work) noexcept {
    return base::CatchAll(std::forward<Work>(work),
                          [&](const char* what) { PLATFORM_LOG(ERROR, "%s: %s", where, what); });
}

/// The same for the body of a C function: what `work` returned; after an exception -1.
template <typename Work>
int GuardedCall(const char* where, Work&& work) noexcept {
    int result = -1;
    Guarded(where, [&] { result = work(); });
    return result;
}

}  // namespace platform

#pragma once
/// The wall between a C platform and what C++ may throw.
#include <utility>

#include "Log.h"
#include "base/exception_wall.h"

namespace zol {

/// Runs what a platform callback does. What it throws becomes a log line of `module`.
/// @return what `work` returned; after an exception the zero of that type
template <typename Work>
auto CatchAll(const char* module, Work&& work) noexcept -> decltype(work()) {
    return base::CatchAll(std::forward<Work>(work), [module](const char* what) {
        const char* const kLogModule = module;
        ZOL_LOG(LOG_ERROR, "callback failed: %s", what);
    });
}

/// The same for a function-try-block, in whose body log lines keep the function's own name: turns the
/// exception under way into a log line of `module`.
inline void LogCallbackException(const char* module) noexcept {
    CatchAll(module, [] { throw; });
}

}  // namespace zol

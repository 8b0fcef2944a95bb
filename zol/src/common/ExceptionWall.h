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
        // Not ZOL_LOG: here the function's name is that of a lambda.
        WriteLog(LOG_ERROR, module, __FILE__, "CatchAll", __LINE__, "callback failed: %s", what);
    });
}

/// The same for a function-try-block, in whose body log lines keep the function's own name: turns the
/// exception under way into a log line of `module`.
inline void LogCallbackException(const char* module) noexcept {
    CatchAll(module, [] { throw; });
}

}  // namespace zol

#pragma once
#include <exception>
#include <utility>

namespace base {

/// Runs `work` for a caller that no exception may reach: a C callback, the entry of a thread. The text of
/// what `work` throws goes to `report(const char*)`, which must not throw.
/// @return what `work` returned; after an exception the zero of that type (false, null, 0)
template <typename Work, typename Report>
auto CatchAll(Work&& work, Report&& report) noexcept -> decltype(work()) {
    try {
        return std::forward<Work>(work)();
    } catch (const std::exception& error) {
        report(error.what());
    } catch (...) {
        report("unknown exception");
    }
    return decltype(work())();
}

}  // namespace base

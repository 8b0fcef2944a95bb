#pragma once
#include <optional>

#include "vconf.h"

namespace zol {

/// A bool of the key store. Any thread.
struct TSPolicyFlag {
    const char* key;

    /// Nothing when it cannot be read.
    [[nodiscard]] std::optional<bool> Get() const {
        int value = 0;
        return vconf_get_bool(key, &value) == 0 ? std::optional(value != 0) : std::nullopt;
    }
    [[nodiscard]] bool Set(bool isOn) const { return vconf_set_bool(key, static_cast<int>(isOn)) == 0; }
};

/// Tasks were created for the current policy.
inline constexpr TSPolicyFlag kMonitoringRuns{"db/zol/corvel_policy"};
/// Set by the preparation of power-on, cleared by every policy that is not only stored.
inline constexpr TSPolicyFlag kPowerOnPrepared{"db/private/tvs-cv/power_on_prepared"};

}  // namespace zol

#pragma once
/// The last hit, and each as it comes, for whoever in the process shows them. Any thread.
#include <functional>

#include "IPolicyService.h"
#include "base/subscription.h"

namespace zol {

class HitNews {
public:
    using Listener = std::function<void(const TSPolicyHit& hit)>;

    HitNews() = delete;

    static void Tell(TSPolicyHit hit);
    /// Since the process started; time 0 when there was none.
    [[nodiscard]] static TSPolicyHit Last();
    /// Calls `listener` on the thread that reports, for as long as the result lives. There is one listener:
    /// it takes the place of an earlier one. It must return soon and not call this class.
    [[nodiscard]] static base::Subscription Listen(Listener listener);
};

}  // namespace zol

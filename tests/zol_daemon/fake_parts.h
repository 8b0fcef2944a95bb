#pragma once
/// Stand-ins for what the daemon is composed of, linked in place of the real classes: they tell when they
/// come and go, and fail where a test wants it.
#include <functional>
#include <string>
#include <vector>

namespace fake_parts {

struct Plan {
    std::string failing;                        ///< the part whose construction throws
    bool interrupt = false;                     ///< it throws boost::thread_interrupted
    int refusedOption = 0;                      ///< the one that mallopt refuses
    bool haveLoop = true;                       ///< whether g_main_loop_new makes one
    std::string signalAt;                       ///< the step at which a signal comes
    std::function<void()> whileItRuns = [] {};  ///< in place of the loop
};

/// Forgets all steps and follows `plan` from now on.
void Reset(const Plan& plan);

/// What has happened, in order.
const std::vector<std::string>& Steps();

}  // namespace fake_parts

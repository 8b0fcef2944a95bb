#pragma once
/// What is wrong with the policies of a scenario, before it is played.
#include <string>
#include <vector>

#include "scenario.h"

namespace policytest {

/// Lines "FILE:LINE:COLUMN: error|warning: TEXT (HINT)", as zolctl policy check prints them.
struct PolicyRemarks {
    std::vector<std::string> lines;
    bool hasErrors = false;
};

/// Of all policies that the scenario hands over; with the types of the keys that it has before the start.
[[nodiscard]] PolicyRemarks CheckPolicies(const Scenario& scenario);

}  // namespace policytest

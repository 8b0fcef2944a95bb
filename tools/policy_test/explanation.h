#pragma once
/// Hits and rules in words.
#include <string>
#include <vector>

#include "IPolicyService.h"
#include "hits.h"
#include "scenario.h"

namespace policytest {

/// `a hit of db/menu/level with value "3" at 2026-01-01 08:00:00`
[[nodiscard]] std::string Describe(const Hit& hit);
[[nodiscard]] std::string Describe(const ExpectedHit& hit);

/// What is other than expected; empty when nothing is.
[[nodiscard]] std::string DifferenceOf(const Hit& hit, const ExpectedHit& expected);

/// A rule, how it stands and what was counted.
[[nodiscard]] std::string Describe(const zol::TSPolicyRule& rule);

}  // namespace policytest

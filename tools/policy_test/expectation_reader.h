#pragma once
/// What a scenario expects, out of YAML.
#include <cstdint>

#include "scenario.h"
#include "yaml_value.h"

namespace policytest {

struct Reading;

/// "none", a hit or a list of them.
[[nodiscard]] ExpectHits ReadExpectedHits(const YamlValue& value, Reading& reading);
[[nodiscard]] ExpectState ReadExpectedState(const YamlValue& value);
/// Seconds since 1970.
[[nodiscard]] std::int64_t ReadMoment(const YamlValue& value);

}  // namespace policytest

#pragma once
/// The steps of a scenario out of YAML.
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "scenario.h"
#include "yaml_value.h"

namespace policytest {

/// What all scenarios of a file share while it is read.
struct Reading {
    std::string text;  ///< of the file
    std::map<std::string, std::shared_ptr<const std::string>>* policies = nullptr;
    std::size_t parts = 0;     ///< steps, keys and expected hits so far: aliases make many of few
    std::size_t keyBytes = 0;  ///< of the names and values of keys so far
};

/// A document in the scenario or in a file beside it.
[[nodiscard]] PolicyText ReadPolicy(const YamlValue& value, Reading& reading);
/// Names and values of keys.
[[nodiscard]] Keys ReadKeys(const YamlValue& value, Reading& reading);
[[nodiscard]] Step ReadStep(const YamlValue& value, Reading& reading);
/// Throws when the scenarios of a file have become too large to be played.
void CountPart(const YamlValue& value, Reading& reading);

}  // namespace policytest

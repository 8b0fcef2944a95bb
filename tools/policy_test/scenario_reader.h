#pragma once
/// Scenarios out of YAML.
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "scenario.h"

namespace policytest {

/// Reads scenario files and the policies they name. A policy that several scenarios name is read once.
class ScenarioReader {
public:
    /// The scenarios of a file, one for each YAML document. Throws BadScenario for the first thing that is
    /// not as it must be, and for a file that cannot be read.
    /// @param file "-" for standard input
    [[nodiscard]] std::vector<Scenario> Read(const std::string& file);

private:
    std::map<std::string, std::shared_ptr<const std::string>> m_policies;  ///< by their paths
};

}  // namespace policytest

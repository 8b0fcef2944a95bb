#pragma once
/// Results as continuous integration reads them.
#include <chrono>
#include <string>
#include <system_error>
#include <vector>

#include "scenario.h"

namespace policytest {

struct Result {
    enum class Outcome { PASSED, FAILED, UNREADABLE };

    Place place;
    std::string name;  ///< of the scenario; the file's where it cannot be read
    Outcome outcome = Outcome::PASSED;
    std::string text;                  ///< what is wrong, with its place; empty when nothing is
    std::vector<std::string> reasons;  ///< further lines
    std::chrono::duration<double> took{0};
};

/// Writes a JUnit report, valid XML whatever the results hold. A file that is there is replaced whole or not
/// at all; into a pipe or a device it is written.
[[nodiscard]] std::error_code WriteJunit(const std::string& path, const std::vector<Result>& results);

}  // namespace policytest

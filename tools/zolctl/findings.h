#pragma once
/// What a check found, as it is printed.
#include <json/value.h>

#include <iosfwd>
#include <string>
#include <vector>

#include "PolicyCheck.h"

namespace zolctl {

/// One document on the command line.
struct Checked {
    std::string file;
    std::string unreadable;  ///< why it could not be read; empty when it could
    std::string text;
    std::vector<zol::TSPolicyFinding> findings;
};

[[nodiscard]] bool HasErrors(const std::vector<zol::TSPolicyFinding>& findings);

/// "FILE:LINE:COLUMN: error: TEXT (HINT)", one line whatever it quotes.
/// @param severity before the text; may be empty
[[nodiscard]] std::string LineOf(const std::string& file, const std::string& severity,
                                 const zol::TSPolicyFinding& finding);

/// A line for each finding; for people, with `isColoured`, also the line of the document.
void PrintFindings(std::ostream& out, const Checked& checked, bool isColoured);

/// Valid JSON whatever the document holds.
[[nodiscard]] Json::Value ToJson(const Checked& checked);

}  // namespace zolctl

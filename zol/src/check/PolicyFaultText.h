#pragma once
/// Why an item is dropped, in words.
#include <string>

#include "PolicyAttributes.h"
#include "PolicyValidation.h"
#include "ZOLPolicy.h"

namespace zol {

struct TSExplanation {
    std::string text;
    std::string hint;  ///< may be empty
};

/// @param fault any but NONE
/// @param values of the item's element, which tell a missing value from one that counts as missing
[[nodiscard]] TSExplanation Explain(EPolicyFault fault, const ZOLVconfMonitor& item,
                                    const TCAttributes& values);
[[nodiscard]] TSExplanation Explain(EPolicyFault fault, const ZOLPolicyMonitor& item,
                                    const TCAttributes& values);

}  // namespace zol

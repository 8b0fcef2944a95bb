#pragma once
/// What the commands print.
#include <json/value.h>

namespace zolctl {

/// Indented, on the standard output, with a line feed.
void PrintJson(const Json::Value& value);

/// Whether the standard output may have colours: a terminal, and NO_COLOR is not set.
[[nodiscard]] bool IsColoured();

}  // namespace zolctl

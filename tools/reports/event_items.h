#pragma once
#include <map>
#include <string>

namespace reports {

/// The items of a KPI event's description, "{name=value;...}". A value that holds a semicolon ends there: the
/// description does not say.
[[nodiscard]] std::map<std::string, std::string> ItemsOf(const std::string& description);

}  // namespace reports

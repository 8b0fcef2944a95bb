#pragma once
/// How the daemon stands, from its properties.
#include <json/value.h>

#include <iosfwd>

namespace zolctl {

/// What runs and what is stored.
/// @param properties as PolicyDaemon reads them
[[nodiscard]] Json::Value PolicyOf(const Json::Value& properties);

/// The same as lines NAME<TAB>TEXT.
void PrintPolicy(std::ostream& out, const Json::Value& properties);

}  // namespace zolctl

#pragma once
/// Services that are missing; none after fakes::Reset. One thread.
#include <string>
#include <vector>

namespace fakes {
namespace platform_services {
void SetMissing(std::vector<std::string> names);
}  // namespace platform_services
}  // namespace fakes

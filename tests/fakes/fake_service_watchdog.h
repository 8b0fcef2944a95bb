#pragma once
/// A supervisor; nobody supervises after fakes::Reset. One thread.
#include <cstdint>

namespace fakes {
namespace service_watchdog {
void SetInterval(std::uint64_t microseconds);
/// Signs of life since Reset.
int SignsOfLife();
}  // namespace service_watchdog
}  // namespace fakes

#pragma once
/// A supervisor; nobody supervises after fakes::Reset. One thread.
#include <cstdint>
#include <string>

namespace fakes {
namespace service_watchdog {
void SetInterval(std::uint64_t microseconds);
/// Signs of life since Reset.
int SignsOfLife();
/// Whether the daemon has said since Reset that it is ready.
bool IsReady();
/// The line that it said last; empty after Reset.
std::string Status();
}  // namespace service_watchdog
}  // namespace fakes

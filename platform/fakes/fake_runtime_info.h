#pragma once
/// Run-time information of the device, set by the test; empty after fakes::Reset.

namespace fakes {
namespace runtime_info {
void Set(int key, int value);
void Unset(int key);
}  // namespace runtime_info
}  // namespace fakes

#pragma once
/// The smart remote, connected by the test.
#include <string>

namespace fakes {
namespace bt_hid {

/// Delivers a connect (or disconnect) to the callback, on the calling thread. One delivery at a time; a
/// withdrawal waits for it. False when nobody is registered.
bool Connect(bool connected = true, const std::string& address = "AA:BB:CC:DD:EE:FF");

/// Makes later registrations fail with this result; 0: they succeed.
void FailRegistrations(int result);
/// The callback slot is taken: 1, else 0.
int Registrations();

}  // namespace bt_hid
}  // namespace fakes

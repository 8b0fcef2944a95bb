#pragma once
/// The device's power notifications, sent by the test.
#include <string>
#include <vector>

namespace fakes {
namespace device_power {

/// Tells every subscriber on its own GLib context and returns when each callback has returned. False when one
/// did not within ten real seconds.
bool PowerOff(int reason);
bool WakeUp(int reason);

/// Waits until both notifications are subscribed; false when fakes::kPatience ends.
bool AwaitSubscribed();
/// What was called since Reset, in order: "subscribe_poweroff", "unsubscribe_wakeup" and so on.
std::vector<std::string> Calls();
/// Holds that were taken and not released since Reset.
int Holds();
/// Makes later subscriptions fail.
void FailSubscriptions(bool fail);

}  // namespace device_power
}  // namespace fakes

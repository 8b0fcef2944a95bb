#pragma once
/// Connections of remote controls as BlueZ reports them.
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "base/backoff.h"
#include "context_thread.h"
#include "dbus_service.h"

namespace platform {

/// A Bluetooth device as BlueZ describes it, as far as remote controls matter.
struct BluetoothDevice {
    std::string address;            ///< "AA:BB:CC:DD:EE:FF"
    std::string name;               ///< may be empty
    std::string icon;               ///< icon name; empty when BlueZ has none
    std::uint32_t deviceClass = 0;  ///< class of device (BR/EDR); 0 when there is none
    std::uint16_t appearance = 0;   ///< GAP appearance (LE); 0 when there is none
    bool connected = false;

    /// Whether icon, class or appearance says that it is a remote control.
    bool IsRemoteControl() const;
    bool IsConnectedRemoteControl() const { return connected && IsRemoteControl(); }
    /// Takes over what a dictionary (a{sv}) of org.bluez.Device1 properties holds; the rest stays.
    void Update(GVariant* properties);
};

/// Follows BlueZ's devices. Lives on one thread like SystemService.
///
/// What is connected when BlueZ is read for the first time is told to `baseline` and is no event. When BlueZ
/// vanishes nothing is told; when it is back its devices are compared with what was known, and each real
/// difference is one event, disconnects first. A BlueZ that is there but does not list its devices (busy
/// while the machine starts) is asked again after 100 ms, then doubling up to 30 s. A connected remote
/// control whose address changes (BlueZ has learnt its identity address) is told to `renamed` and is no
/// event.
class RemoteMonitor {
public:
    using EventFunction = std::function<void(const BluetoothDevice& device)>;
    /// Addresses of the connected remote controls.
    using BaselineFunction = std::function<void(const std::vector<std::string>& addresses)>;
    using RenamedFunction = std::function<void(const std::string& before, const std::string& now)>;

    /// @param event a remote control connected or (`connected` false) disconnected
    RemoteMonitor(EventFunction event, BaselineFunction baseline, RenamedFunction renamed);

private:
    using Devices = std::map<std::string, BluetoothDevice>;  ///< by object path

    void OnAppeared();
    void AskForDevices();
    void OnObjects(const SystemService::Reply& reply);
    void OnInterfacesAdded(GVariant* parameters);
    void OnInterfacesRemoved(GVariant* parameters);
    void OnPropertiesChanged(const char* path, GVariant* parameters);
    void Update(BluetoothDevice& device, GVariant* properties);
    void Compare(Devices fresh);
    void Tell(BluetoothDevice device, bool connected) const;

    const EventFunction m_event;
    const BaselineFunction m_baseline;
    const RenamedFunction m_renamed;
    bool m_haveBaseline = false;
    Devices m_devices;
    bool m_toldFailure = false;  ///< a list that was refused has been logged
    base::GSourcePtr m_retry;
    base::Backoff m_backoff;
    SystemService m_service;  ///< last, so that it stops before what its functions use goes
};

}  // namespace platform

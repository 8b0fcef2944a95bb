#pragma once
/// A Bluetooth device as BlueZ describes it, as far as remote controls matter.
#include <glib.h>

#include <cstdint>
#include <string>

namespace platform {

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

}  // namespace platform

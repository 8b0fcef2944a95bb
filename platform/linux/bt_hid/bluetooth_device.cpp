#include "bt_hid/bluetooth_device.h"

#include <algorithm>
#include <array>

namespace platform {

namespace {

constexpr std::array<const char*, 2> kRemoteIcons = {"input-remote", "remote-control"};

// Class of device: bits 12 to 8 hold the major class, of a peripheral bits 5 to 2 the kind.
constexpr std::uint32_t kMajorPeripheral = 0x05;
constexpr std::uint32_t kPeripheralRemote = 0x03;

// Appearance: the upper ten bits are the category; 0x0180 is the generic remote control.
constexpr unsigned kAppearanceCategoryShift = 6;
constexpr unsigned kRemoteCategory = 0x0180U >> kAppearanceCategoryShift;

void TakeString(GVariant* properties, const char* name, std::string& out) {
    const char* text = nullptr;
    if (g_variant_lookup(properties, name, "&s", &text) != FALSE) {
        out = text;
    }
}

}  // namespace

bool BluetoothDevice::IsRemoteControl() const {
    const bool byIcon = std::find(kRemoteIcons.begin(), kRemoteIcons.end(), icon) != kRemoteIcons.end();
    const bool byClass =
        ((deviceClass >> 8) & 0x1FU) == kMajorPeripheral && ((deviceClass >> 2) & 0x0FU) == kPeripheralRemote;
    const bool byAppearance =
        (static_cast<unsigned>(appearance) >> kAppearanceCategoryShift) == kRemoteCategory;
    return byIcon || byClass || byAppearance;
}

void BluetoothDevice::Update(GVariant* properties) {
    TakeString(properties, "Address", address);
    TakeString(properties, "Alias", name);
    TakeString(properties, "Icon", icon);
    g_variant_lookup(properties, "Class", "u", &deviceClass);
    g_variant_lookup(properties, "Appearance", "q", &appearance);
    gboolean value = connected ? TRUE : FALSE;
    g_variant_lookup(properties, "Connected", "b", &value);
    connected = value != FALSE;
}

}  // namespace platform

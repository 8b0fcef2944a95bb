#include "bt_hid/remote_monitor.h"

#include <algorithm>
#include <array>
#include <utility>

#include "platform_log.h"

namespace platform {

namespace {

constexpr const char* kDevice = "org.bluez.Device1";
constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";

/// The properties of the device among an object's interfaces (a{sa{sv}}); null when it is no device.
base::GVariantPtr DeviceProperties(GVariant* interfaces) {
    return base::GVariantPtr(g_variant_lookup_value(interfaces, kDevice, G_VARIANT_TYPE_VARDICT));
}

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

RemoteMonitor::RemoteMonitor(EventFunction event, BaselineFunction baseline, RenamedFunction renamed)
    : m_event(std::move(event)),
      m_baseline(std::move(baseline)),
      m_renamed(std::move(renamed)),
      m_service({"org.bluez", "BlueZ", "remote control connections"},
                {[this] { OnAppeared(); }, [this] { m_retry.reset(); }}) {}

void RemoteMonitor::OnAppeared() {
    m_service.Subscribe(
        {nullptr, kObjectManager, "InterfacesAdded", nullptr},
        [this](const char* /*path*/, GVariant* parameters) { OnInterfacesAdded(parameters); });
    m_service.Subscribe(
        {nullptr, kObjectManager, "InterfacesRemoved", nullptr},
        [this](const char* /*path*/, GVariant* parameters) { OnInterfacesRemoved(parameters); });
    m_service.Subscribe(
        {nullptr, kProperties, "PropertiesChanged", kDevice},
        [this](const char* path, GVariant* parameters) { OnPropertiesChanged(path, parameters); });
    m_backoff.Reset();
    AskForDevices();
}

void RemoteMonitor::AskForDevices() {
    m_service.Call({"/", kObjectManager, "GetManagedObjects"}, nullptr, "(a{oa{sa{sv}}})",
                   [this](const SystemService::Reply& reply) { OnObjects(reply); });
}

void RemoteMonitor::OnObjects(const SystemService::Reply& reply) {
    if (reply.value == nullptr) {
        if (!std::exchange(m_toldFailure, true)) {
            PLATFORM_LOG(ERROR, "BlueZ does not list its devices: %s; asking again",
                         base::ErrorText(reply.error));
        }
        m_retry = StartTimer(m_backoff.Next(), [this] { AskForDevices(); });
        return;
    }
    m_toldFailure = false;
    Devices fresh;
    const base::GVariantPtr objects(g_variant_get_child_value(reply.value, 0));
    for (gsize i = 0; i < g_variant_n_children(objects.get()); ++i) {
        const char* path = nullptr;
        GVariant* interfaces = nullptr;
        g_variant_get_child(objects.get(), i, "{&o@a{sa{sv}}}", &path, &interfaces);
        const base::GVariantPtr owner(interfaces);
        const base::GVariantPtr properties = DeviceProperties(interfaces);
        if (properties != nullptr) {
            fresh[path].Update(properties.get());
        }
    }
    Compare(std::move(fresh));
}

void RemoteMonitor::Compare(Devices fresh) {
    const Devices before = std::exchange(m_devices, std::move(fresh));
    const auto connectedIn = [](const Devices& devices, const std::string& path) {
        const auto found = devices.find(path);
        return found != devices.end() && found->second.IsConnectedRemoteControl() ? &found->second : nullptr;
    };
    std::vector<std::string> addresses;
    std::vector<BluetoothDevice> changed;
    for (const auto& [path, device] : before) {
        if (device.IsConnectedRemoteControl() && connectedIn(m_devices, path) == nullptr) {
            Tell(device, false);
        }
    }
    for (const auto& [path, device] : m_devices) {
        if (device.IsConnectedRemoteControl()) {
            addresses.push_back(device.address);
            const BluetoothDevice* known = connectedIn(before, path);
            if (known == nullptr) {
                changed.push_back(device);
            } else if (known->address != device.address) {
                m_renamed(known->address, device.address);
            }
        }
    }
    PLATFORM_LOG(INFO, "watching the Bluetooth devices: %zu known, %zu remote controls connected",
                 m_devices.size(), addresses.size());
    if (!std::exchange(m_haveBaseline, true)) {
        m_baseline(addresses);
        return;
    }
    for (const BluetoothDevice& device : changed) {
        Tell(device, true);
    }
}

void RemoteMonitor::OnInterfacesAdded(GVariant* parameters) {
    const char* path = nullptr;
    GVariant* interfaces = nullptr;
    g_variant_get(parameters, "(&o@a{sa{sv}})", &path, &interfaces);
    const base::GVariantPtr owner(interfaces);
    const base::GVariantPtr properties = DeviceProperties(interfaces);
    if (properties != nullptr) {
        Update(m_devices[path], properties.get());
    }
}

void RemoteMonitor::OnInterfacesRemoved(GVariant* parameters) {
    const char* path = nullptr;
    const char** interfaces = nullptr;
    g_variant_get(parameters, "(&o^a&s)", &path, &interfaces);
    const std::unique_ptr<const char*, base::FreeWith<g_free>> owner(interfaces);
    const auto found = m_devices.find(path);
    if (found == m_devices.end() || g_strv_contains(interfaces, kDevice) == FALSE) {
        return;
    }
    const BluetoothDevice device = std::move(found->second);
    m_devices.erase(found);
    if (device.IsConnectedRemoteControl()) {
        Tell(device, false);
    }
}

void RemoteMonitor::OnPropertiesChanged(const char* path, GVariant* parameters) {
    const auto found = m_devices.find(path);
    // An unknown device is in the list that was asked for; its properties come with it.
    if (found != m_devices.end()) {
        const base::GVariantPtr properties(g_variant_get_child_value(parameters, 1));
        Update(found->second, properties.get());
    }
}

void RemoteMonitor::Update(BluetoothDevice& device, GVariant* properties) {
    const bool before = device.IsConnectedRemoteControl();
    const std::string address = device.address;
    device.Update(properties);
    const bool now = device.IsConnectedRemoteControl();
    if (before != now) {
        Tell(device, now);
    } else if (now && device.address != address) {
        m_renamed(address, device.address);
    }
}

void RemoteMonitor::Tell(BluetoothDevice device, bool connected) const {
    device.connected = connected;
    m_event(device);
}

}  // namespace platform

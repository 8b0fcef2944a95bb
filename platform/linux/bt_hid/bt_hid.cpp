#include "bt_hid.h"

#include <algorithm>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "bt_hid/remote_monitor.h"
#include "context_thread.h"
#include "guarded.h"
#include "platform_log.h"
#include "vconf.h"

namespace platform {

namespace {

constexpr const char* kLastConnectedKey = "file/bluetooth/bt_last_connected_smart_rc";

std::string PublishedId() {
    const base::MallocString id(vconf_get_str(kLastConnectedKey));
    return id != nullptr ? id.get() : "";
}

/// Makes `address` the id of the remote that connected last. A key that says so already is left alone: each
/// write goes to flash.
void Publish(const std::string& address) {
    if (PublishedId() != address && vconf_set_str(kLastConnectedKey, address.c_str()) != 0) {
        PLATFORM_LOG(ERROR, "cannot publish the connected remote control in %s", kLastConnectedKey);
    }
}

/// Remotes that connected while nobody looked: the published id stays when it is one of them.
void PublishBaseline(const std::vector<std::string>& addresses) {
    if (!addresses.empty() &&
        std::find(addresses.begin(), addresses.end(), PublishedId()) == addresses.end()) {
        Publish(addresses.front());
    }
}

/// A remote keeps being the one that connected last when its address changes.
void PublishRenamed(const std::string& before, const std::string& now) {
    if (PublishedId() == before) {
        Publish(now);
    }
}

/// The one callback slot and the thread that serves it while it is filled.
class RemoteSlot {
public:
    int Set(bt_hid_smart_rc_connection_cb callback, void* userData) {
        // From inside the callback the thread runs anyhow, and whoever stops it holds the lock.
        std::unique_lock<std::mutex> life(m_life, std::defer_lock);
        if (!m_thread.IsCurrent()) {
            life.lock();
        }
        {
            const std::lock_guard<std::recursive_mutex> lock(m_slot);
            m_callback = callback;
            m_userData = userData;
        }
        if (m_thread.IsCurrent() || m_thread.Start([this] { Begin(); }, [this] { m_monitor.reset(); })) {
            return 0;
        }
        Empty(callback, userData);
        return -1;
    }

    int Unset(bt_hid_smart_rc_connection_cb callback, void* userData) {
        const std::lock_guard<std::mutex> life(m_life);
        if (!Empty(callback, userData)) {
            return -1;
        }
        m_thread.Stop();
        return 0;
    }

private:
    void Begin() {
        m_monitor.emplace([this](const BluetoothDevice& device) { OnEvent(device); }, PublishBaseline,
                          PublishRenamed);
    }

    void OnEvent(const BluetoothDevice& device) {
        // Before the callback, which compares the published id with the one it kept at the last disconnect.
        if (device.connected) {
            Publish(device.address);
        }
        bt_device_info_s info{device.address.c_str(), device.name.c_str()};
        const std::lock_guard<std::recursive_mutex> lock(m_slot);
        if (m_callback != nullptr) {
            m_callback(device.connected, &info, m_userData);
        }
    }

    /// Waits for a callback that is running. False when the slot holds something else.
    bool Empty(bt_hid_smart_rc_connection_cb callback, void* userData) {
        const std::lock_guard<std::recursive_mutex> lock(m_slot);
        if (m_callback == nullptr || m_callback != callback || m_userData != userData) {
            return false;
        }
        m_callback = nullptr;
        return true;
    }

    std::mutex m_life;            ///< starts and stops come one at a time
    std::recursive_mutex m_slot;  ///< guards the slot; held while the callback runs
    bt_hid_smart_rc_connection_cb m_callback = nullptr;
    void* m_userData = nullptr;
    std::optional<RemoteMonitor> m_monitor;  ///< lives on the thread
    ContextThread m_thread{"zol-bluetooth"};
};

/// Never destroyed: a callback that was not withdrawn may still run while the process ends.
RemoteSlot& Slot() {
    static auto* const slot = new RemoteSlot;
    return *slot;
}

}  // namespace

}  // namespace platform

extern "C" int bt_hid_set_smart_rc_connection_cb(bt_hid_smart_rc_connection_cb callback, void* user_data) {
    return platform::GuardedCall(
        "Bluetooth", [&] { return callback != nullptr ? platform::Slot().Set(callback, user_data) : -1; });
}

extern "C" int bt_hid_unset_smart_rc_connection_cb(bt_hid_smart_rc_connection_cb callback, void* user_data) {
    return platform::GuardedCall("Bluetooth", [&] { return platform::Slot().Unset(callback, user_data); });
}

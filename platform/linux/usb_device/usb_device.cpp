#include "usb_device.h"

#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "base/bus_link.h"
#include "device_path.h"
#include "guarded.h"
#include "usb_device/udisks.h"

struct usb_device_s {
    std::string mountPath;
};

struct usb_device_list_s {
    std::vector<usb_device_s> devices;
};

namespace platform {

namespace {

constexpr int kCallTimeoutMs = 5000;

/// Where the device sees a path of this machine. False for one outside its root: what runs on a throw-away
/// root never reaches a real stick.
bool ToDevicePath(std::string& path) {
    const std::string root = DevicePath("/");
    if (path.compare(0, root.size(), root) != 0) {
        return false;
    }
    path.erase(0, root.size() - 1);
    return true;
}

/// What lies between usb_device_init and usb_device_fini.
class UsbStorage {
public:
    int Init() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        base::GErrorPtr error;
        const base::GStringPtr address =
            m_bus == nullptr ? base::BusAddress(G_BUS_TYPE_SYSTEM, error) : nullptr;
        if (address != nullptr) {
            m_bus.reset(g_dbus_connection_new_for_address_sync(address.get(), base::kBusConnectionFlags,
                                                               nullptr, nullptr, base::OutError(error)));
        }
        if (m_bus == nullptr) {
            return Fail(m_toldNoBus, "no system bus for UDisks2", error.get());
        }
        g_dbus_connection_set_exit_on_close(m_bus.get(), FALSE);
        return 0;
    }

    int List(usb_device_list_t** list) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_bus == nullptr) {
            return -1;
        }
        base::GErrorPtr error;
        const base::GVariantPtr reply(
            g_dbus_connection_call_sync(m_bus.get(), "org.freedesktop.UDisks2", "/org/freedesktop/UDisks2",
                                        "org.freedesktop.DBus.ObjectManager", "GetManagedObjects", nullptr,
                                        G_VARIANT_TYPE("(a{oa{sa{sv}}})"), G_DBUS_CALL_FLAGS_NONE,
                                        kCallTimeoutMs, nullptr, base::OutError(error)));
        if (reply == nullptr) {
            return Fail(m_toldNoAnswer, "UDisks2 unavailable", error.get());
        }
        m_toldNoBus = m_toldNoAnswer = false;
        const base::GVariantPtr objects(g_variant_get_child_value(reply.get(), 0));
        auto result = std::make_unique<usb_device_list_s>();
        for (std::string& mount : MountedUsbDrives(objects.get())) {
            if (ToDevicePath(mount)) {
                result->devices.push_back({std::move(mount)});
            }
        }
        *list = result.get();
        m_lists.push_back(std::move(result));
        return 0;
    }

    void Fini() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_lists.clear();
        m_bus.reset();
    }

private:
    static int Fail(bool& told, const char* what, const GError* error) {
        if (!std::exchange(told, true)) {
            PLATFORM_LOG(WARN, "%s (%s): no USB storage, retrying when it is asked for", what,
                         base::ErrorText(error));
        }
        return -1;
    }

    std::mutex m_mutex;
    base::GObjectPtr<GDBusConnection> m_bus;
    std::vector<std::unique_ptr<usb_device_list_s>> m_lists;
    // One each: a bus that comes back without the service is another fault, and is told.
    bool m_toldNoBus = false;
    bool m_toldNoAnswer = false;
};

UsbStorage& Storage() {
    static auto* const storage = new UsbStorage;
    return *storage;
}

}  // namespace

}  // namespace platform

extern "C" {

int usb_device_init(void) {
    return platform::GuardedCall("USB storage", [] { return platform::Storage().Init(); });
}

int usb_device_get_device_list(int device_class, usb_device_list_t** list) {
    if (device_class != USB_DEVICE_MASS_STORAGE || list == nullptr) {
        return -1;
    }
    return platform::GuardedCall("USB storage", [&] { return platform::Storage().List(list); });
}

usb_device_t* usb_device_list_get_first(usb_device_list_t* list) {
    return list == nullptr || list->devices.empty() ? nullptr : &list->devices.front();
}

int usb_device_get_mountpath(usb_device_t* device, char* path, size_t size) {
    if (device == nullptr || path == nullptr || device->mountPath.size() >= size) {
        return -1;
    }
    std::memcpy(path, device->mountPath.c_str(), device->mountPath.size() + 1);
    return 0;
}

void usb_device_fini(void) {
    platform::Storage().Fini();
}
}

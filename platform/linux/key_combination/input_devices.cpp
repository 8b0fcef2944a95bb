#include "key_combination/input_devices.h"

#include <fcntl.h>
#include <glib-unix.h>
#include <libevdev/libevdev.h>
#include <sys/inotify.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "base/glib_handles.h"
#include "base/unique_fd.h"
#include "device_path.h"
#include "guarded.h"

namespace platform {

namespace {

constexpr const char* kDevicePrefix = "event";
constexpr int kReleased = 0;
constexpr int kPressed = 1;

using EvdevPtr = std::unique_ptr<libevdev, base::FreeWith<libevdev_free>>;

/// The folder itself, when the path is a link to it: devices are opened under their real names.
std::string ResolveLink(const std::string& path) {
    std::error_code error;
    const std::filesystem::path target = std::filesystem::read_symlink(path, error);
    return !error && target.is_absolute() ? target.string() : path;
}

bool IsDeviceName(const std::string& name) {
    return name.compare(0, std::strlen(kDevicePrefix), kDevicePrefix) == 0;
}

}  // namespace

/// One open input device.
class InputDevice {
public:
    using KeyFunction = std::function<void(unsigned key, bool held)>;

    InputDevice(int number, KeyFunction key, std::function<void()> gone)
        : id(number), m_key(std::move(key)), m_gone(std::move(gone)) {}

    /// 0, or the errno of what went wrong.
    int Open(const std::string& path) {
        m_fd.Reset(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        if (!m_fd) {
            return errno;
        }
        libevdev* device = nullptr;
        const int result = libevdev_new_from_fd(m_fd.Get(), &device);
        if (result < 0) {
            return -result;
        }
        m_device.reset(device);
        m_source.reset(g_unix_fd_source_new(m_fd.Get(), G_IO_IN));
        g_source_set_callback(m_source.get(), G_SOURCE_FUNC(ReadCb), this, nullptr);
        const base::GMainContextPtr context(g_main_context_ref_thread_default());
        g_source_attach(m_source.get(), context.get());
        return 0;
    }

    /// Keys that are held as the device is opened.
    void TellHeldKeys() const {
        for (unsigned key = 0; key < KEY_CNT; ++key) {
            if (libevdev_get_event_value(m_device.get(), EV_KEY, key) != kReleased) {
                m_key(key, true);
            }
        }
    }

    const int id;

private:
    static gboolean ReadCb(gint /*fd*/, GIOCondition /*condition*/, gpointer data) {
        auto* self = static_cast<InputDevice*>(data);
        bool alive = true;
        Guarded("input device", [&] { alive = self->Read(); });
        if (!alive) {
            // Closes this device.
            const std::function<void()> gone = self->m_gone;
            Guarded("input device", gone);
        }
        return G_SOURCE_CONTINUE;
    }

    /// False when the device is gone.
    bool Read() {
        input_event event{};
        int result = LIBEVDEV_READ_STATUS_SUCCESS;
        unsigned mode = LIBEVDEV_READ_FLAG_NORMAL;
        for (;;) {
            result = libevdev_next_event(m_device.get(), mode, &event);
            if (result == -EAGAIN && mode == LIBEVDEV_READ_FLAG_SYNC) {
                mode = LIBEVDEV_READ_FLAG_NORMAL;
            } else if (result < 0) {
                return result == -EAGAIN || result == -EINTR;
            } else {
                // After lost events libevdev hands out the differences between then and now.
                mode =
                    result == LIBEVDEV_READ_STATUS_SYNC ? LIBEVDEV_READ_FLAG_SYNC : LIBEVDEV_READ_FLAG_NORMAL;
                Tell(event);
            }
        }
    }

    void Tell(const input_event& event) const {
        if (event.type == EV_KEY && (event.value == kPressed || event.value == kReleased)) {
            m_key(event.code, event.value == kPressed);
        }
    }

    const KeyFunction m_key;
    const std::function<void()> m_gone;
    base::UniqueFd m_fd;
    EvdevPtr m_device;
    base::GSourcePtr m_source;
};

InputDevices::InputDevices(const std::string& folder, Handlers handlers)
    : m_devicePath(folder),
      m_folder(ResolveLink(DevicePath(folder))),
      m_handlers(std::move(handlers)),
      m_watch({m_folder}, IN_ATTRIB,
              {[this](std::size_t) { Scan(); }, [this](std::size_t) { CloseAll(); },
               [this](std::size_t, const std::string& name, std::uint32_t mask) {
                   if ((mask & (IN_DELETE | IN_MOVED_FROM)) != 0) {
                       Close(name);
                   } else {
                       // Attributes: a device may be opened only after its owner was set.
                       Open(name);
                   }
               },
               [this] { Scan(); }}) {}

InputDevices::~InputDevices() = default;

bool InputDevices::Start() {
    if (!m_watch.Start()) {
        return false;
    }
    if (m_devices.empty()) {
        PLATFORM_LOG(WARN, "no input device in %s: no key combinations until one appears",
                     m_devicePath.c_str());
        m_toldNone = true;
    }
    return true;
}

void InputDevices::Scan() {
    std::error_code error;
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_folder, error)) {
        names.push_back(entry.path().filename().string());
    }
    for (const std::string& name : names) {
        Open(name);
    }
}

void InputDevices::Open(const std::string& name) {
    if (!IsDeviceName(name) || m_devices.count(name) != 0) {
        return;
    }
    const int id = ++m_lastId;
    auto device = std::make_unique<InputDevice>(
        id, [this, id](unsigned key, bool held) { m_handlers.key(id, key, held); },
        [this, name] { Close(name); });
    const int error = device->Open(m_folder + "/" + name);
    if (error != 0) {
        if (m_refused.insert(name).second) {
            PLATFORM_LOG(WARN, "input device %s: %s", name.c_str(), std::strerror(error));
        }
        return;
    }
    m_refused.erase(name);
    if (std::exchange(m_toldNone, false)) {
        PLATFORM_LOG(INFO, "input device %s is there: key combinations work", name.c_str());
    }
    device->TellHeldKeys();
    m_devices[name] = std::move(device);
}

void InputDevices::Close(const std::string& name) {
    m_refused.erase(name);
    const auto found = m_devices.find(name);
    if (found != m_devices.end()) {
        const std::unique_ptr<InputDevice> device = std::move(found->second);
        m_devices.erase(found);
        m_handlers.gone(device->id);
    }
}

void InputDevices::CloseAll() {
    while (!m_devices.empty()) {
        Close(std::string(m_devices.begin()->first));
    }
}

}  // namespace platform

#pragma once
/// The keys of all input devices, also of those that come and go.
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "folder_watch.h"

namespace platform {

class InputDevice;

/// Follows the "event*" devices of a folder. Lives on one thread like FolderWatch.
class InputDevices {
public:
    struct Handlers {
        /// A key of a device was pressed or let go. Repeats are not told.
        std::function<void(int device, unsigned key, bool held)> key;
        /// A device is gone.
        std::function<void(int device)> gone;
    };

    /// @param folder path of the device; its name in the log
    InputDevices(const std::string& folder, Handlers handlers);
    ~InputDevices();
    /// False when folders cannot be watched.
    [[nodiscard]] bool Start();

private:
    void Scan();
    void Open(const std::string& name);
    void Close(const std::string& name);
    void CloseAll();

    const std::string m_devicePath;
    const std::string m_folder;  ///< where that is on this machine
    const Handlers m_handlers;
    int m_lastId = 0;
    std::map<std::string, std::unique_ptr<InputDevice>> m_devices;  ///< by name
    std::set<std::string> m_refused;                                ///< names that were logged as unusable
    bool m_toldNone = false;
    FolderWatch m_watch;
};

}  // namespace platform

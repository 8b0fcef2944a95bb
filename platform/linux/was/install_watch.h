#pragma once
/// Installs and removals of web applications, seen from the applications folders.
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "context_thread.h"
#include "folder_watch.h"

namespace platform {

/// The applications folders: the user's own, then the system's, without doubles.
std::vector<std::string> ApplicationsFolders();

/// Tells when `<id>.desktop` has been written or replaced in one of the folders (one event for each finished
/// write, link or rename, however many file events it took), and when it is gone from all of them.
///
/// Lives on one thread like FolderWatch, except for Add and Remove. `mutex` is the caller's: it is held while
/// the thread looks at files and calls the event function, and the caller holds it for Add and Remove.
class InstallWatch {
public:
    using EventFunction = std::function<void(const std::string& id, bool installed)>;

    InstallWatch(std::recursive_mutex& mutex, std::vector<std::string> folders, EventFunction event);
    /// False when folders cannot be watched.
    [[nodiscard]] bool Start() { return m_watch.Start(); }

    /// Any thread. What is there now is no install.
    void Add(const std::string& id);
    void Remove(const std::string& id) { m_apps.erase(id); }

private:
    /// Tells one state of a file from another: device, inode, size, and when it and its inode were modified
    /// (seconds, nanoseconds). Empty when there is no file.
    using Time = std::pair<std::int64_t, std::int64_t>;
    using Signature = std::optional<std::tuple<dev_t, ino_t, off_t, Time, Time>>;
    struct Entry {
        Signature known;      ///< as last told
        Signature unsettled;  ///< found without an event; told when it stays like this
    };
    using Entries = std::vector<Entry>;  ///< by folder

    static Signature Read(const std::string& path);
    std::string FilePath(std::size_t folder, const std::string& id) const;
    void OnEntry(std::size_t folder, const std::string& name, std::uint32_t mask);
    void OnFinished(const std::string& id, Entries& entries, std::size_t folder);
    void OnGone(const std::string& id, Entries& entries, std::size_t folder);
    void Look(std::size_t folder);
    void LookEverywhere();
    void Settle();

    std::recursive_mutex& m_mutex;  ///< guards the applications
    const EventFunction m_event;
    std::map<std::string, std::shared_ptr<Entries>> m_apps;
    base::GSourcePtr m_settle;
    FolderWatch m_watch;
};

}  // namespace platform

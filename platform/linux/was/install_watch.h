#pragma once
/// Installs and removals of web applications, seen from the applications folders.
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
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
    /// Tells one state of a file from another.
    struct Signature {
        bool present = false;
        dev_t device = 0;
        ino_t inode = 0;
        off_t size = 0;
        std::pair<std::int64_t, std::int64_t> modified;  ///< seconds, nanoseconds
        std::pair<std::int64_t, std::int64_t> changed;

        bool operator==(const Signature& other) const;
    };
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
    ContextTimer m_settle;
    FolderWatch m_watch;
};

}  // namespace platform

#pragma once
/// Folders that are watched also while they do not exist.
#include <glib.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "base/glib_handles.h"
#include "base/inotify.h"

namespace platform {

/// Watches folders with inotify. For a folder that does not exist its nearest existing parent is watched
/// until it appears. Two paths of one folder count as the first of them. A file system that is mounted over a
/// folder, and a parent further up that is moved away, are not noticed: inotify has no events for them.
///
/// Made, used and destroyed on the thread that runs its thread-default main context; everything is delivered
/// there.
class FolderWatch {
public:
    struct Handlers {
        /// The folder is watched from now on; what is in it already has no events.
        std::function<void(std::size_t folder)> appeared;
        /// The folder was removed or moved away.
        std::function<void(std::size_t folder)> vanished;
        /// Something happened to an entry. `mask` holds inotify's bits.
        std::function<void(std::size_t folder, const std::string& name, std::uint32_t mask)> entry;
        /// Events were lost: whatever is in the folders may have changed.
        std::function<void()> overflowed;
    };

    /// @param folders absolute paths that are opened as they are
    /// @param entryEvents inotify's bits `entry` wants to hear of; IN_CREATE, IN_DELETE and moves always come
    FolderWatch(std::vector<std::string> folders, std::uint32_t entryEvents, Handlers handlers);
    FolderWatch(const FolderWatch&) = delete;
    FolderWatch& operator=(const FolderWatch&) = delete;

    /// Tells of the folders that are there already and begins. False when there is no inotify.
    [[nodiscard]] bool Start();
    const std::string& Path(std::size_t folder) const { return m_folders[folder].path; }
    std::size_t Count() const { return m_folders.size(); }

private:
    enum class State { Waiting, Watched, Alias };
    struct Folder {
        std::string path;
        std::string awaited;  ///< entry of the watched parent that leads to the folder
        int watch = -1;       ///< of the folder, or of its nearest existing parent
        State state = State::Waiting;
    };

    static gboolean ReadCb(gint fd, GIOCondition condition, gpointer data);
    void Handle(const base::InotifyEvent& event);
    void LookAgain();
    void LoseWatch(int watch);
    void HandleEntry(int watch, const std::string& name, std::uint32_t mask);
    void Attach(std::size_t index);
    [[nodiscard]] bool AttachOnce(std::size_t index);
    void TellFailure(const std::string& path);
    bool IsWatched(int watch) const;

    std::vector<Folder> m_folders;
    const std::uint32_t m_mask;
    const Handlers m_handlers;
    bool m_toldFailure = false;
    base::Inotify m_inotify;
    base::GSourcePtr m_source;  ///< before the descriptor goes
};

}  // namespace platform

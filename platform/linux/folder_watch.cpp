#include "folder_watch.h"

#include <glib-unix.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "guarded.h"
#include "platform_log.h"

namespace platform {

namespace {

constexpr std::uint32_t kFolderEvents =
    IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr std::uint32_t kFolderGone = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT;

bool IsFolder(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

FolderWatch::FolderWatch(std::vector<std::string> folders, std::uint32_t entryEvents, Handlers handlers)
    // One mask for all: a second watch on one folder replaces the mask of the first.
    : m_mask(entryEvents | kFolderEvents), m_handlers(std::move(handlers)) {
    for (std::string& path : folders) {
        m_folders.push_back({std::move(path), {}, -1, State::Waiting});
    }
}

bool FolderWatch::Start() {
    if (!m_inotify.Open()) {
        PLATFORM_LOG(ERROR, "cannot watch folders: inotify: %s", std::strerror(errno));
        return false;
    }
    m_source.reset(g_unix_fd_source_new(m_inotify.Fd(), G_IO_IN));
    g_source_set_callback(m_source.get(), G_SOURCE_FUNC(ReadCb), this, nullptr);
    const base::GMainContextPtr context(g_main_context_ref_thread_default());
    g_source_attach(m_source.get(), context.get());
    for (std::size_t i = 0; i < m_folders.size(); ++i) {
        Attach(i);
    }
    return true;
}

gboolean FolderWatch::ReadCb(gint /*fd*/, GIOCondition /*condition*/, gpointer data) {
    auto* self = static_cast<FolderWatch*>(data);
    Guarded("folder watch",
            [&] { self->m_inotify.Read([&](const base::InotifyEvent& event) { self->Handle(event); }); });
    return G_SOURCE_CONTINUE;
}

void FolderWatch::Handle(const base::InotifyEvent& event) {
    if ((event.mask & IN_Q_OVERFLOW) != 0) {
        PLATFORM_LOG(WARN, "events of watched folders were lost; looking at all of them");
        LookAgain();
        m_handlers.overflowed();
    } else if ((event.mask & kFolderGone) != 0) {
        LoseWatch(event.watch);
    } else {
        HandleEntry(event.watch, event.name, event.mask);
    }
}

/// Among the events that were lost may have been those of folders that went and came.
void FolderWatch::LookAgain() {
    for (std::size_t i = 0; i < m_folders.size(); ++i) {
        const Folder& folder = m_folders[i];
        // The descriptor of a folder stays the same for as long as it is watched.
        if (folder.state != State::Waiting && m_inotify.Add(folder.path, m_mask) != folder.watch) {
            LoseWatch(folder.watch);
        }
        Attach(i);
    }
}

void FolderWatch::LoseWatch(int watch) {
    // A folder that was moved away is still watched by the kernel.
    m_inotify.Remove(watch);
    std::vector<std::size_t> lost;
    for (std::size_t i = 0; i < m_folders.size(); ++i) {
        if (m_folders[i].watch == watch) {
            m_folders[i].watch = -1;
            lost.push_back(i);
        }
    }
    for (const std::size_t index : lost) {
        if (std::exchange(m_folders[index].state, State::Waiting) == State::Watched) {
            m_handlers.vanished(index);
        }
        Attach(index);
    }
}

void FolderWatch::HandleEntry(int watch, const std::string& name, std::uint32_t mask) {
    for (std::size_t i = 0; i < m_folders.size(); ++i) {
        const Folder& folder = m_folders[i];
        if (folder.watch != watch) {
            continue;
        }
        if (folder.state == State::Watched) {
            m_handlers.entry(i, name, mask);
        } else if (folder.state == State::Waiting && folder.awaited == name &&
                   (mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
            Attach(i);
        }
    }
}

bool FolderWatch::IsWatched(int watch) const {
    return std::any_of(m_folders.begin(), m_folders.end(), [&](const Folder& folder) {
        return folder.watch == watch && folder.state == State::Watched;
    });
}

void FolderWatch::Attach(std::size_t index) {
    // More than once only when folders come and go between two looks.
    constexpr int kLooks = 16;
    for (int look = 0; look < kLooks && m_folders[index].state == State::Waiting; ++look) {
        if (AttachOnce(index)) {
            return;
        }
    }
    if (m_folders[index].state == State::Waiting) {
        TellFailure(m_folders[index].path);
    }
}

void FolderWatch::TellFailure(const std::string& path) {
    if (!std::exchange(m_toldFailure, true)) {
        PLATFORM_LOG(ERROR, "cannot watch %s: %s", path.c_str(), std::strerror(errno));
    }
}

/// False when it must look again: the next folder on the way appeared before its parent was watched.
bool FolderWatch::AttachOnce(std::size_t index) {
    Folder& folder = m_folders[index];
    std::string path = folder.path;
    std::string awaited;
    int watch = m_inotify.Add(path, m_mask);
    while (watch < 0 && path.size() > 1) {
        const std::size_t slash = path.rfind('/');
        awaited = path.substr(slash + 1);
        path.resize(std::max<std::size_t>(slash, 1));
        watch = m_inotify.Add(path, m_mask);
    }
    if (watch < 0) {
        TellFailure(folder.path);
        return true;
    }
    if (awaited.empty()) {
        folder.state = IsWatched(watch) ? State::Alias : State::Watched;
        folder.watch = watch;
        if (folder.state == State::Watched) {
            m_handlers.appeared(index);
        }
        return true;
    }
    // The parent watched before is left behind unless somebody else needs it; its events are ignored.
    folder.watch = watch;
    folder.awaited = awaited;
    return !IsFolder((path.size() > 1 ? path : "") + "/" + awaited);
}

}  // namespace platform

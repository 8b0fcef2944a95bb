#include "was/install_watch.h"

#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <string_view>

#include "device_path.h"

namespace platform {

namespace {

constexpr std::string_view kEnding = ".desktop";
/// How long a file that was found without an event must stay as it is to count as finished.
constexpr unsigned kSettleMs = 250;

std::string Environment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

/// The data folder of the user; empty when there is none.
std::string UserDataFolder() {
    std::string configured = Environment("XDG_DATA_HOME");
    if (!configured.empty() && configured.front() == '/') {
        return configured;
    }
    const std::string home = Environment("HOME");
    return home.empty() || home.front() != '/' ? std::string() : DevicePath(home + "/.local/share");
}

std::vector<std::string> SystemDataFolders() {
    const std::string configured = Environment("XDG_DATA_DIRS");
    if (configured.empty()) {
        return {DevicePath("/usr/local/share"), DevicePath("/usr/share")};
    }
    std::vector<std::string> folders;
    std::istringstream list(configured);
    for (std::string folder; std::getline(list, folder, ':');) {
        folders.push_back(folder);
    }
    return folders;
}

/// Whether the file is complete as soon as it exists: links, not files that are being written.
bool ExistsFinished(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 &&
           (S_ISLNK(status.st_mode) || (S_ISREG(status.st_mode) && status.st_nlink > 1));
}

}  // namespace

std::vector<std::string> ApplicationsFolders() {
    std::vector<std::string> folders = SystemDataFolders();
    folders.insert(folders.begin(), UserDataFolder());
    std::vector<std::string> result;
    for (std::string& folder : folders) {
        // Relative paths are not valid there.
        if (folder.empty() || folder.front() != '/') {
            continue;
        }
        folder.resize(folder.find_last_not_of('/') + 1);
        folder += "/applications";
        if (std::find(result.begin(), result.end(), folder) == result.end()) {
            result.push_back(folder);
        }
    }
    return result;
}

InstallWatch::InstallWatch(std::recursive_mutex& mutex, std::vector<std::string> folders, EventFunction event)
    : m_mutex(mutex),
      m_event(std::move(event)),
      m_watch(std::move(folders), IN_CLOSE_WRITE,
              {[this](std::size_t folder) { Look(folder); }, [this](std::size_t folder) { Look(folder); },
               [this](std::size_t folder, const std::string& name, std::uint32_t mask) {
                   OnEntry(folder, name, mask);
               },
               [this] { LookEverywhere(); }}) {}

void InstallWatch::Add(const std::string& id) {
    std::shared_ptr<Entries>& entries = m_apps[id];
    if (entries == nullptr) {
        entries = std::make_shared<Entries>(m_watch.Count());
        for (std::size_t folder = 0; folder < entries->size(); ++folder) {
            (*entries)[folder].known = Read(FilePath(folder, id));
        }
    }
}

InstallWatch::Signature InstallWatch::Read(const std::string& path) {
    struct stat status {};
    // The entry itself: a link is installed when it is made, whatever happens to its target later.
    if (lstat(path.c_str(), &status) != 0 || !(S_ISREG(status.st_mode) || S_ISLNK(status.st_mode))) {
        return std::nullopt;
    }
    return std::tuple(status.st_dev, status.st_ino, status.st_size,
                      Time(status.st_mtim.tv_sec, status.st_mtim.tv_nsec),
                      Time(status.st_ctim.tv_sec, status.st_ctim.tv_nsec));
}

std::string InstallWatch::FilePath(std::size_t folder, const std::string& id) const {
    return m_watch.Path(folder) + "/" + id + std::string(kEnding);
}

void InstallWatch::OnEntry(std::size_t folder, const std::string& name, std::uint32_t mask) {
    if (name.size() <= kEnding.size() ||
        name.compare(name.size() - kEnding.size(), kEnding.size(), kEnding) != 0) {
        return;
    }
    const std::string id = name.substr(0, name.size() - kEnding.size());
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const auto app = m_apps.find(id);
    if (app == m_apps.end()) {
        return;
    }
    // Kept: the event function may remove the application.
    const std::shared_ptr<Entries> entries = app->second;
    if ((mask & (IN_DELETE | IN_MOVED_FROM)) != 0) {
        OnGone(id, *entries, folder);
    } else if ((mask & (IN_CLOSE_WRITE | IN_MOVED_TO)) != 0 ||
               ((mask & IN_CREATE) != 0 && ExistsFinished(FilePath(folder, id)))) {
        OnFinished(id, *entries, folder);
    }
}

void InstallWatch::OnFinished(const std::string& id, Entries& entries, std::size_t folder) {
    Entry& entry = entries[folder];
    const Signature now = Read(FilePath(folder, id));
    // Gone again: the event of its removal follows. Unchanged: opened for writing, nothing written; or the
    // event of an earlier step of one that has been told.
    if (!now || now == entry.known) {
        return;
    }
    // Known from another folder: that one is this one under another name.
    const bool told =
        std::any_of(entries.begin(), entries.end(), [&](const Entry& other) { return other.known == now; });
    entry.known = now;
    if (!told) {
        m_event(id, true);
    }
}

void InstallWatch::OnGone(const std::string& id, Entries& entries, std::size_t folder) {
    // Present: it was replaced, and the end of that has an event of its own.
    if (!entries[folder].known || Read(FilePath(folder, id))) {
        return;
    }
    entries[folder].known.reset();
    // The files are asked, not what is known of them: a second name of this folder has no events of its own.
    for (std::size_t other = 0; other < entries.size(); ++other) {
        if (Read(FilePath(other, id))) {
            return;
        }
    }
    for (Entry& entry : entries) {
        entry.known.reset();
    }
    m_event(id, false);
}

void InstallWatch::Look(std::size_t folder) {
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const auto apps = m_apps;
    for (const auto& [id, entries] : apps) {
        Entry& entry = (*entries)[folder];
        const Signature now = Read(FilePath(folder, id));
        if (!now) {
            OnGone(id, *entries, folder);
        } else if (now != entry.known) {
            // Perhaps still being written: nobody can tell.
            entry.unsettled = now;
            m_settle = StartTimer(kSettleMs, [this] { Settle(); });
        }
    }
}

void InstallWatch::LookEverywhere() {
    for (std::size_t folder = 0; folder < m_watch.Count(); ++folder) {
        Look(folder);
    }
}

void InstallWatch::Settle() {
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const auto apps = m_apps;
    for (const auto& [id, entries] : apps) {
        for (std::size_t folder = 0; folder < entries->size(); ++folder) {
            Entry& entry = (*entries)[folder];
            const Signature found = std::exchange(entry.unsettled, std::nullopt);
            if (!found) {
                continue;
            }
            if (found == Read(FilePath(folder, id))) {
                OnFinished(id, *entries, folder);
            } else {
                Look(folder);
            }
        }
    }
}

}  // namespace platform

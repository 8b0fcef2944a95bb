#include "vconf/key_watcher.h"

#include <cerrno>
#include <cstring>

#include "guarded.h"
#include "platform_log.h"

namespace keystore {
namespace {

constexpr std::uint32_t kEvents = IN_MODIFY | IN_CLOSE_WRITE | IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM |
                                  IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// When to look again after a write to a log, in case its writer does not ring.
constexpr std::array<std::int64_t, 3> kLooksMs = {5, 50, 500};
// When to look again at a store that could not be read.
constexpr std::int64_t kRetryMs = 500;

}  // namespace

GSourceFuncs KeyWatcher::s_sourceFunctions = {nullptr, nullptr, &KeyWatcher::DispatchSource,
                                              nullptr, nullptr, nullptr};

KeyWatcher::KeyWatcher(std::array<KeyDatabase*, kDatabases> databases, GMainContext* context)
    : m_context(context) {
    for (std::size_t index = 0; index < kDatabases; ++index) {
        m_watched[index].database = databases[index];
    }
}

KeyWatcher::~KeyWatcher() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_source.reset();
}

bool KeyWatcher::Add(std::size_t database, const std::string& key, vconf_callback_fn callback,
                     void* userData) {
    // Nobody reads changes between the look at the end of the history and the registration: what comes
    // after that end meets the registration.
    const std::lock_guard<std::mutex> lock(m_mutex);
    Watched& watched = m_watched[database];
    Position start;
    if (!StartSource() || !StartDatabase(watched) || !watched.database->End(&start)) {
        return false;
    }
    m_registry.Add(key, callback, userData, start);
    return true;
}

bool KeyWatcher::Withdraw(const std::string& key, vconf_callback_fn callback, void* userData) {
    return m_registry.Withdraw(key, callback, userData);
}

bool KeyWatcher::StartSource() {
    if (m_source != nullptr) {
        return true;
    }
    if (!m_inotify.Open()) {
        PLATFORM_LOG(ERROR, "keys cannot be watched: inotify: %s", std::strerror(errno));
        return false;
    }
    m_source.reset(g_source_new(&s_sourceFunctions, sizeof(GSource)));
    g_source_set_name(m_source.get(), "key store");
    g_source_add_unix_fd(m_source.get(), m_inotify.Fd(), G_IO_IN);
    g_source_set_callback(m_source.get(), &KeyWatcher::OnSource, this, nullptr);
    g_source_attach(m_source.get(), m_context);
    return true;
}

bool KeyWatcher::StartDatabase(Watched& watched) {
    if (watched.started) {
        return true;
    }
    // The first call makes the folder; the second one counts, because from here on changes are events.
    if (!watched.database->End(&watched.known) || !WatchFolder(watched)) {
        return false;
    }
    watched.started = watched.database->End(&watched.known);
    return watched.started;
}

bool KeyWatcher::WatchFolder(Watched& watched) {
    const std::string& folder = watched.database->Files().Folder();
    watched.descriptor = m_inotify.Add(folder, kEvents);
    if (watched.descriptor < 0) {
        PLATFORM_LOG(ERROR, "keys cannot be watched: %s: %s", folder.c_str(), std::strerror(errno));
        return false;
    }
    return true;
}

gboolean KeyWatcher::DispatchSource(GSource*, GSourceFunc callback, gpointer userData) {
    return callback(userData);
}

gboolean KeyWatcher::OnSource(gpointer self) {
    platform::Guarded("watching keys", [&] { static_cast<KeyWatcher*>(self)->Dispatch(); });
    return G_SOURCE_CONTINUE;
}

void KeyWatcher::Dispatch() {
    std::vector<Change> changes;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const bool due = TakeDueLook();
        m_inotify.Read([this](const base::InotifyEvent& event) { NoteEvent(event); });
        bool more = false;
        for (Watched& watched : m_watched) {
            if (watched.started && (due || (watched.changed && !watched.unreadable))) {
                more = Look(watched, &changes) || more;
            }
        }
        PlanNextLook(more);
    }
    for (const Change& change : changes) {
        m_registry.Deliver(change);
    }
}

void KeyWatcher::NoteEvent(const base::InotifyEvent& event) {
    if (StoreFiles::IsNoise(event.name)) {
        return;
    }
    if (StoreFiles::IsWriteAheadLog(event.name) && (event.mask & IN_MODIFY) != 0) {
        m_nextLook = 0;
        m_due = -1;
        DueIn(kLooksMs[m_nextLook]);
    }
    for (Watched& watched : m_watched) {
        // An overflow has no descriptor and stands for anything.
        if (event.watch != watched.descriptor && (event.mask & IN_Q_OVERFLOW) == 0) {
            continue;
        }
        watched.changed = true;
        if ((event.mask & (IN_DELETE_SELF | IN_MOVE_SELF)) != 0) {
            m_inotify.Remove(watched.descriptor);
            watched.descriptor = -1;
        }
    }
}

/// Appends what has changed. True when there may be more to read at once.
bool KeyWatcher::Look(Watched& watched, std::vector<Change>* changes) {
    watched.changed = false;
    if (watched.descriptor < 0) {
        Position end;
        // The folder is gone: begin a new one, so that there is something to watch.
        watched.unreadable = !watched.database->End(&end) || !WatchFolder(watched);
        if (watched.unreadable) {
            return false;
        }
    }
    const std::size_t before = changes->size();
    watched.unreadable = !watched.database->ReadChanges(&watched.known, changes);
    return changes->size() - before == static_cast<std::size_t>(KeyDatabase::kMaxChanges);
}

/// True when a look is due; plans the next one of the series.
bool KeyWatcher::TakeDueLook() {
    if (m_due < 0 || g_get_monotonic_time() < m_due) {
        return false;
    }
    m_due = -1;
    if (m_nextLook < kLooksMs.size() && ++m_nextLook < kLooksMs.size()) {
        DueIn(kLooksMs[m_nextLook]);
    }
    return true;
}

void KeyWatcher::PlanNextLook(bool more) {
    for (const Watched& watched : m_watched) {
        if (watched.unreadable) {
            DueIn(kRetryMs);
        }
    }
    if (more) {
        DueIn(0);
    }
    g_source_set_ready_time(m_source.get(), m_due);
}

void KeyWatcher::DueIn(std::int64_t milliseconds) {
    const std::int64_t due = g_get_monotonic_time() + milliseconds * 1000;
    if (m_due < 0 || due < m_due) {
        m_due = due;
    }
}

}  // namespace keystore

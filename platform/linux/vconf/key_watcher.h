#pragma once
#include <glib.h>

#include <array>
#include <cstdint>
#include <mutex>
#include <vector>

#include "base/glib_handles.h"
#include "base/inotify.h"
#include "vconf/key_database.h"
#include "vconf/watch_registry.h"

namespace keystore {

/// Tells the watchers of two databases about every change, whichever process makes it. It sleeps until
/// something happens in a database's folder, then reads the changes after the last one it knows.
///
/// A commit becomes visible a moment after its log was written. Who wakes up in between is woken again: by
/// the writer's doorbell, by the closing of the writer's files when it died, and by a short series of looks
/// for writers that do not ring.
class KeyWatcher {
public:
    static constexpr std::size_t kDatabases = 2;

    /// The databases and the context (null: the default one) must outlive it.
    KeyWatcher(std::array<KeyDatabase*, kDatabases> databases, GMainContext* context);
    /// On the thread that runs the context, or when nobody runs it any more.
    ~KeyWatcher();
    KeyWatcher(const KeyWatcher&) = delete;
    KeyWatcher& operator=(const KeyWatcher&) = delete;

    /// Watches a key of the database with this index. False when its folder cannot be watched.
    [[nodiscard]] bool Add(std::size_t database, const std::string& key, vconf_callback_fn callback,
                           void* userData);
    [[nodiscard]] bool Withdraw(const std::string& key, vconf_callback_fn callback, void* userData);

private:
    struct Watched {
        KeyDatabase* database = nullptr;
        int descriptor = -1;      // of the inotify watch, -1 when there is none
        bool started = false;     // somebody has watched a key of it
        bool changed = false;     // something happened in the folder since the last look
        bool unreadable = false;  // the last look failed: only the clock leads to the next one
        Position known;           // the last change that was read
    };

    static gboolean DispatchSource(GSource* source, GSourceFunc callback, gpointer userData);
    static gboolean OnSource(gpointer self);

    [[nodiscard]] bool StartSource();
    [[nodiscard]] bool StartDatabase(Watched& watched);
    [[nodiscard]] bool WatchFolder(Watched& watched);
    void Dispatch();
    void NoteEvent(const base::InotifyEvent& event);
    [[nodiscard]] bool Look(Watched& watched, std::vector<Change>* changes);
    bool TakeDueLook();
    void PlanNextLook(bool more);
    void DueIn(std::int64_t milliseconds);

    static GSourceFuncs s_sourceFunctions;

    GMainContext* const m_context;
    WatchRegistry m_registry;

    std::mutex m_mutex;  // guards everything below; not held while callbacks run
    std::array<Watched, kDatabases> m_watched;
    base::Inotify m_inotify;
    base::GSourcePtr m_source;
    std::size_t m_nextLook = 0;  // of the series after a write to a log
    std::int64_t m_due = -1;     // monotonic microseconds of the next look, -1 for none
};

}  // namespace keystore

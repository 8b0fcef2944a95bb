#pragma once
/// The hand-over of report folders to the collector through one vconf key.
#include <atomic>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "KeyWatch.h"

namespace zol {

/// The collector empties KEY when it has taken a folder. Paths that come meanwhile wait here, first in, first
/// out, and are lost with the object. Any thread; no two queues of the process publish at the same time.
class HandOverQueue {
public:
    /// vconf string key: device path of the folder that waits for the collector, empty when none does.
    static constexpr const char* KEY = "db/zol/send_zol_files_path";

    enum class Offered {
        PUBLISHED,
        WAITING,     ///< another path is published: this one waits at the end of the queue
        UNREADABLE,  ///< the key cannot be read, the path is dropped
        UNWRITABLE   ///< the key cannot be written, the path is dropped
    };

    HandOverQueue();
    ~HandOverQueue();
    HandOverQueue(const HandOverQueue&) = delete;
    HandOverQueue& operator=(const HandOverQueue&) = delete;

    /// Takes back whatever is published. False when the key cannot be written; each path that is offered
    /// tries it again then, until the key is empty.
    [[nodiscard]] static bool EmptyKey();
    /// Null when the key cannot be read.
    [[nodiscard]] static std::optional<bool> IsKeyEmpty() noexcept;

    /// Calls `callback` after every change of KEY for as long as this object lives. False when vconf refuses.
    [[nodiscard]] bool Watch(vconf_callback_fn callback, void* userData);
    [[nodiscard]] bool IsWatching() const { return static_cast<bool>(m_watch); }

    /// Publishes a path if the key is empty.
    [[nodiscard]] Offered Offer(const std::string& path);
    /// Takes the path out that has waited longest; null when none waits.
    [[nodiscard]] std::optional<std::string> TakeFirst();
    /// While it is held no path is on its way from a queue to KEY, unless on this thread. Recursive.
    [[nodiscard]] static std::unique_lock<std::recursive_mutex> Lock();
    /// The path that is published and those that wait in any queue of the process; null when KEY cannot be
    /// read.
    [[nodiscard]] static std::optional<std::vector<std::string>> Awaited();
    /// How many paths wait.
    [[nodiscard]] std::size_t Waiting() const;
    /// How many wait in all queues of the process. Never waits, not even for the key store.
    [[nodiscard]] static std::size_t WaitingInAll() { return s_waiting; }

private:
    /// Guards what follows, and reading and then writing the key: two threads that find it empty
    /// together would overwrite each other's path. Of the process, because a policy that arrives while the
    /// tasks of an earlier one run has a queue of its own. Recursive, because a store may call its watchers
    /// from inside a set.
    static std::recursive_mutex s_mutex;
    static std::vector<const HandOverQueue*> s_queues;
    /// The key could not be emptied, and has not been seen empty since.
    static bool s_isEmptyingDue;
    static std::atomic<std::size_t> s_waiting;
    std::deque<std::string> m_notiPathList;
    KeyWatch m_watch;  ///< last, and so withdrawn before the rest goes
};

}  // namespace zol

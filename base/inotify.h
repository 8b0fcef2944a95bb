#pragma once
#include <sys/inotify.h>

#include <cstdint>
#include <functional>
#include <string>

#include "base/unique_fd.h"

namespace base {

/// One event. `watch` is -1 and `mask` IN_Q_OVERFLOW when events were lost.
struct InotifyEvent {
    int watch;
    std::uint32_t mask;
    const char* name;  ///< of the entry in the watched folder, empty when it is about the folder; borrowed
};

/// An inotify descriptor and the reading of its events. One thread at a time.
class Inotify {
public:
    /// Comes before everything else. False with errno when the system gives none.
    [[nodiscard]] bool Open() {
        m_fd.Reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        return static_cast<bool>(m_fd);
    }

    /// Readable while events wait.
    [[nodiscard]] int Fd() const { return m_fd.Get(); }

    /// The watch; -1 with errno. A path that is watched already keeps its watch and gets the new mask.
    [[nodiscard]] int Add(const std::string& path, std::uint32_t mask) {
        return inotify_add_watch(m_fd.Get(), path.c_str(), mask);
    }
    /// Nothing to do when the kernel has dropped the watch itself.
    void Remove(int watch) { inotify_rm_watch(m_fd.Get(), watch); }

    /// Hands over the events that wait, in their order. Does not block.
    void Read(const std::function<void(const InotifyEvent&)>& handle);

private:
    UniqueFd m_fd;
};

}  // namespace base

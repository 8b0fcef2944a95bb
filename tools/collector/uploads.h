#pragma once
#include <glib.h>

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/glib_handles.h"
#include "base/unique_fd.h"
#include "retry_delay.h"
#include "spool.h"

namespace collector {

/// Sends what waits in the spool, the oldest first and one at a time, each by a process of its own
/// (zol_upload): what it takes to speak TLS is in memory only meanwhile. A report that cannot be read is
/// passed over until the others are sent. There is a process or a timer only while something waits. An upload
/// under way ends with this process, and the next collector makes it again. On the thread of GLib's default
/// main context.
class Uploads {
public:
    /// @param command the program and its options, to which the folder of the report is added
    /// @param say told what happens, one line each; a fault that lasts is one line
    Uploads(Spool& spool, std::vector<std::string> command, RetryDelay delay,
            std::function<void(const std::string&)> say);
    Uploads(const Uploads&) = delete;
    Uploads& operator=(const Uploads&) = delete;

    /// There may be something to send: begins, unless it is busy or waits for another attempt.
    void Wake();

private:
    static void EndedCb(GPid child, gint status, gpointer self);
    [[nodiscard]] bool Start(const Entry& entry);
    void Ended(int waitStatus);
    void PassOver(const std::string& name, const std::string& why);
    void TryAgain(std::uint64_t wishSeconds, const std::string& why);
    void WakeLater(std::uint64_t wishSeconds);

    Spool& m_spool;
    const std::vector<std::string> m_command;
    RetryDelay m_delay;
    const std::function<void(const std::string&)> m_say;
    std::string m_complaint;             ///< the fault that lasts; empty for none
    std::set<std::string> m_passedOver;  ///< entries that could not be read, until all others are sent
    std::set<std::string> m_unreadable;  ///< those that were told of
    std::optional<Entry> m_entry;        ///< being sent
    base::UniqueFd m_output;             ///< of the child
    base::GSourcePtr m_ended;            ///< tells of the child's end
    base::GSourcePtr m_timer;            ///< of the next attempt
};

}  // namespace collector

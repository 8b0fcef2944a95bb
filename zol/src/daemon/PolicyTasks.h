#pragma once
#include <cstdint>
#include <memory>
#include <vector>

#include "ZOLPolicy.h"

class TCMonitorManager;
class TCNotifyManager;

namespace zol {

class TCVconfChecker;

/// What watches one policy. Call the three starts in their order, each as soon as the one before it has
/// succeeded, and all again until IsWatchingAll: each makes up for what is missing and leaves alone what
/// runs. Main thread or the thread that dispatches calls.
class TCPolicyTasks {
public:
    /// @param keys        for the checker; none: there is no checker
    /// @param hasMonitors whether the information storage has items for the monitors
    TCPolicyTasks(SharedVconfItems keys, bool hasMonitors);
    /// Ends every task that was started.
    ~TCPolicyTasks();
    TCPolicyTasks(const TCPolicyTasks&) = delete;
    TCPolicyTasks& operator=(const TCPolicyTasks&) = delete;

    /// False when the task cannot be created. After an exception, too, the start may be called again.
    [[nodiscard]] bool StartNotify();
    [[nodiscard]] bool StartChecker();
    [[nodiscard]] bool StartMonitors();

    [[nodiscard]] bool IsAnythingRunning() const;
    /// Whether everything runs and nothing that it watches was refused.
    [[nodiscard]] bool IsWatchingAll() const;

    /// Null while there is none.
    [[nodiscard]] const TCVconfChecker* Checker() const { return m_checker.get(); }
    [[nodiscard]] const TCMonitorManager* Monitors() const { return m_monitors.get(); }
    /// Rules that are watched, or were reported at once.
    [[nodiscard]] std::size_t CountWatched() const;
    /// Lets the end of the tasks go on with reports until this moment of the steady clock (nanoseconds) at
    /// the latest.
    void ReportUntil(std::uint64_t moment);

private:
    const SharedVconfItems m_keys;
    const bool m_hasMonitors;
    // Those that report go before the one they report to.
    std::unique_ptr<TCNotifyManager> m_notify;
    std::unique_ptr<TCMonitorManager> m_monitors;
    std::unique_ptr<TCVconfChecker> m_checker;
};

}  // namespace zol

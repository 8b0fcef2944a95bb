#pragma once
#include <memory>
#include <vector>

#include "ZOLPolicy.h"

class TCMonitorManager;
class TCNotifyManager;

namespace zol {

class TCVconfChecker;

/// What watches one policy. Main thread or the thread that dispatches calls.
class TCPolicyTasks {
public:
    enum class EStart { STARTED, NO_NOTIFY, NO_CHECKER, NO_MONITORS };

    TCPolicyTasks();
    /// Ends every task that was started.
    ~TCPolicyTasks();
    TCPolicyTasks(const TCPolicyTasks&) = delete;
    TCPolicyTasks& operator=(const TCPolicyTasks&) = delete;

    /// Starts the notify task, then a checker of the keys unless there are none, then the monitors of the
    /// information storage if there are any. Once. Tasks in front of the one that cannot be created go on.
    [[nodiscard]] EStart Start(const std::vector<ZOLVconfMonitor>& keys, bool hasMonitors);

private:
    // Those that report go before the one they report to.
    std::unique_ptr<TCNotifyManager> m_notify;
    std::unique_ptr<TCMonitorManager> m_monitors;
    std::unique_ptr<TCVconfChecker> m_checker;
};

}  // namespace zol

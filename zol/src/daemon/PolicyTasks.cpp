#include "PolicyTasks.h"

#include "ZOLMonitorManager.h"
#include "ZOLNotifyManager.h"
#include "ZOLVconfChecker.h"

namespace zol {

TCPolicyTasks::TCPolicyTasks() = default;

TCPolicyTasks::~TCPolicyTasks() = default;

TCPolicyTasks::EStart TCPolicyTasks::Start(const std::vector<ZOLVconfMonitor>& keys, bool hasMonitors) {
    m_notify = std::make_unique<TCNotifyManager>();
    if (!m_notify->Create()) {
        return EStart::NO_NOTIFY;
    }
    if (!keys.empty()) {
        m_checker = std::make_unique<TCVconfChecker>(m_notify.get(), keys);
        if (!m_checker->Create()) {
            return EStart::NO_CHECKER;
        }
        m_checker->CheckNow(keys);
    }
    if (hasMonitors) {
        m_monitors = std::make_unique<TCMonitorManager>(m_notify.get());
        if (!m_monitors->Create()) {
            return EStart::NO_MONITORS;
        }
        // What cannot start is logged; what started goes on.
        static_cast<void>(m_monitors->StartMonitoring());
    }
    return EStart::STARTED;
}

}  // namespace zol

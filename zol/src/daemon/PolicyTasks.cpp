#include "PolicyTasks.h"

#include <algorithm>
#include <utility>

#include "ZOLMonitorManager.h"
#include "ZOLNotifyManager.h"
#include "ZOLVconfChecker.h"

namespace zol {

TCPolicyTasks::TCPolicyTasks(SharedVconfItems keys, bool hasMonitors)
    : m_keys(std::move(keys)), m_hasMonitors(hasMonitors) {}

TCPolicyTasks::~TCPolicyTasks() = default;

bool TCPolicyTasks::StartNotify() {
    // Made once: its construction takes back the path that is published.
    if (m_notify == nullptr) {
        m_notify = std::make_unique<TCNotifyManager>();
    } else {
        m_notify->WatchRest();
    }
    return IsAnythingRunning() || m_notify->Create();
}

void TCPolicyTasks::ReportUntil(std::uint64_t moment) {
    if (m_notify != nullptr) {
        m_notify->ReportUntil(moment);
    }
}

// What throws on its way is made anew by the next attempt: nothing is kept before it is whole.
bool TCPolicyTasks::StartChecker() {
    if (m_checker != nullptr) {
        m_checker->WatchRest();
        return true;
    }
    if (m_keys->empty()) {
        return true;
    }
    auto checker = std::make_unique<TCVconfChecker>(m_notify.get(), m_keys);
    if (!checker->Create()) {
        return false;
    }
    checker->CheckNow(*m_keys);
    m_checker = std::move(checker);
    return true;
}

bool TCPolicyTasks::StartMonitors() {
    if (m_monitors != nullptr) {
        m_monitors->WatchRest();
        return true;
    }
    if (!m_hasMonitors) {
        return true;
    }
    auto monitors = std::make_unique<TCMonitorManager>(m_notify.get());
    if (!monitors->Create()) {
        return false;
    }
    // What cannot start is logged and left to WatchRest; what started goes on.
    static_cast<void>(monitors->StartMonitoring());
    m_monitors = std::move(monitors);
    return true;
}

bool TCPolicyTasks::IsAnythingRunning() const {
    return m_notify != nullptr && m_notify->CCTask::FlagCreate();
}

bool TCPolicyTasks::IsWatchingAll() const {
    const bool areKeysWatched = m_checker != nullptr ? m_checker->IsWatchingAll() : m_keys->empty();
    const bool areMonitorsWatching = m_monitors != nullptr ? m_monitors->IsWatchingAll() : !m_hasMonitors;
    return IsAnythingRunning() && m_notify->IsWatchingAll() && areKeysWatched && areMonitorsWatching;
}

std::size_t TCPolicyTasks::CountWatched() const {
    std::size_t count = 0;
    for (std::size_t position = 0; m_checker != nullptr && position < m_checker->Items().size(); ++position) {
        const TCVconfChecker::EState state = m_checker->StateOf(position);
        count += state == TCVconfChecker::EState::WAITING || state == TCVconfChecker::EState::NO_KEY ? 0 : 1;
    }
    if (m_monitors != nullptr) {
        const auto monitors = m_monitors->Monitors();
        count += static_cast<std::size_t>(std::count_if(
            monitors.begin(), monitors.end(), [](const auto& monitor) { return monitor.isMonitoring; }));
    }
    return count;
}

}  // namespace zol

#include "ZOLAppInstallMonitor.h"

#include <utility>

#include "ExceptionWall.h"
#include "Log.h"
#include "Logging.h"
#include "WorkerTask.h"

namespace {

constexpr const char* kLogModule = "TCAppInstallMonitor";
constexpr const char* kSource = "zol/src/ZOLAppInstallMonitor";
constexpr const char* kTaskName = "InstallMonitor";

/// Event of the task that registers with the service.
constexpr std::uint32_t kEventStart = 0;

}  // namespace

TCAppInstallMonitor::TCAppInstallMonitor(TCNotifyManager* notify, std::string id, int durationMinutes,
                                         int repetition, int method, int index)
    : TCMonitorInformation(notify, durationMinutes, repetition, method, index), m_appId(std::move(id)) {
    ZOL_LOG(LOG_INFO, "[INSTALL MONITOR] %s, %d, %d, %d", m_appId.c_str(), durationMinutes, repetition,
            method);
}

TCAppInstallMonitor::~TCAppInstallMonitor() {
    // Before the registration goes: an event still queued for the task could register anew.
    EndWorkerTask(*this, *this);
}

bool TCAppInstallMonitor::Create() {
    ZOL_LOG(LOG_INFO, "[TCAppInstallMonitor] Create");
    if (!StartWorkerTask(*this, *this, kTaskName, kSource, __LINE__)) {
        return false;
    }
    ZOL_LOG(LOG_INFO, "[TCAppInstallMonitor] Created : %lu", CCTask::Id());
    return true;
}

bool TCAppInstallMonitor::StartMonitoring() {
    if (!m_RegisterCallback()) {
        ZOL_LOG(LOG_ERROR, "[InstallMonitor] RegisterCallback() fail");
        return false;
    }
    return true;
}

bool TCAppInstallMonitor::m_RegisterCallback() {
    m_registration.Reset();
    was_install_status_request request{};
    m_appId.copy(request.app_id, sizeof(request.app_id) - 1);
    request.callback = AppInstallCb;
    request.user_data = this;
    const int result = was_monitor_webapp_install_status(request);
    if (result != 0) {
        ZOL_LOG(LOG_ERROR, "[InstallMonitor] RegisterCallback() fail, return [%d]", result);
        return false;
    }
    m_registration = base::Subscription([this] { was_unmonitor_webapp_install_status(AppInstallCb, this); });
    ZOL_LOG(LOG_INFO, "[InstallMonitor] RegisterCallback() success");
    return true;
}

void TCAppInstallMonitor::AppInstallCb(const char* /*appId*/, was_notify_event_e event, int /*value1*/,
                                       int /*value2*/, void* userData) try {
    ZOL_LOG(LOG_INFO, "[InstallMonitor] AppInstallCb(), event : %d", event);
    auto* const monitor = static_cast<TCAppInstallMonitor*>(userData);
    if (monitor == nullptr) {
        ZOL_LOG(LOG_ERROR, "[InstallMonitor] AppInstallCb() called, pMonitor is NULL");
        return;
    }
    if (event != WAS_NOTIFY_INSTALL_COMPLETED) {
        return;
    }
    const TSCounted counted = monitor->CountEvent(GetCurrentTime());
    if (counted.isNewPeriod) {
        ZOL_LOG(LOG_INFO, "[InstallMonitor] CurrentTime > ExpireTime, set now time to FirstCallTime");
    }
    ZOL_LOG(LOG_INFO, "[InstallMonitor] AppInstallCb(), Current Repetition : %d", counted.repetition);
    if (!counted.isHit) {
        return;
    }
    ZOL_LOG(LOG_INFO, "[InstallMonitor] abnormal behavior, send to Notifier");
    if (monitor->NotifyZOL()) {
        ZOL_LOG(LOG_INFO, "[InstallMonitor] Send Event success");
    } else {
        ZOL_LOG(LOG_ERROR, "[InstallMonitor] Send Event fail");
    }
} catch (...) {
    zol::LogCallbackException(kLogModule);
}

bool TCAppInstallMonitor::t_OnEvent(const CSEvent* event) {
    if (!AssertAtsc3(event != nullptr, "event", kSource, __LINE__)) {
        return false;
    }
    ZOL_LOG(LOG_INFO, "[TCAppInstallMonitor::t_OnEvent] TYPE:%lu", static_cast<unsigned long>(event->type));
    if (!AssertAtsc3(event->type == kEventStart, "!\"[TCAppInstallMonitor] Unknown Event Type\"", kSource,
                     __LINE__)) {
        return false;
    }
    ZOL_LOG(LOG_INFO, "[TCAppInstallMonitor::t_OnEvent] monitoring start");
    static_cast<void>(StartMonitoring());  // logs its failure, and the event was known all the same
    return true;
}

#include "ZOLAppInstallMonitor.h"

#include <utility>

#include "CallbackException.h"
#include "Logging.h"
#include "WorkerTask.h"

namespace {

constexpr const char* kLogModule = "TCAppInstallMonitor";
constexpr const char* kSource = "zol/src/ZOLAppInstallMonitor";
constexpr const char* kTaskName = "InstallMonitor";

/// Event of the task that registers with the service.
constexpr std::uint32_t kEventStart = 0;

constexpr TSRepetitionTexts kTexts = {
    kLogModule,
    __FILE__,
    "AppInstallCb",
    __LINE__,
    "[InstallMonitor] CurrentTime > ExpireTime, set now time to FirstCallTime",
    "[InstallMonitor] AppInstallCb(), Current Repetition : ",
    "[InstallMonitor] abnormal behavior, send to Notifier",
    "[InstallMonitor] Send Event success",
    "[InstallMonitor] Send Event fail",
};

}  // namespace

TCAppInstallMonitor::TCAppInstallMonitor(TCNotifyManager* notify, std::string id, int durationMinutes,
                                         int repetition, int method, int index)
    : TCMonitorInformation(notify, durationMinutes, repetition, method, index),
      m_appId(std::move(id)),
      m_bCreated(false),
      m_bRegistered(false) {
    ZOL_LOG(LOG_INFO, "[INSTALL MONITOR] %s, %d, %d, %d", m_appId.c_str(), durationMinutes, repetition,
            method);
}

TCAppInstallMonitor::~TCAppInstallMonitor() {
    Shutdown();
}

bool TCAppInstallMonitor::Create() {
    ZOL_LOG(LOG_INFO, "[TCAppInstallMonitor] Create");
    if (!StartWorkerTask(*this, *this, kTaskName, kSource, __LINE__)) {
        return false;
    }
    m_bCreated = true;
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
    was_install_status_request request{};
    m_appId.copy(request.app_id, sizeof(request.app_id) - 1);
    request.callback = AppInstallCb;
    request.user_data = this;
    const int result = was_monitor_webapp_install_status(request);
    if (result != 0) {
        ZOL_LOG(LOG_ERROR, "[InstallMonitor] RegisterCallback() fail, return [%d]", result);
        return false;
    }
    m_bRegistered = true;
    ZOL_LOG(LOG_INFO, "[InstallMonitor] RegisterCallback() success");
    return true;
}

void TCAppInstallMonitor::Shutdown() {
    // The task goes first: an event still queued for it could register anew.
    if (m_bCreated) {
        EndWorkerTask(*this, *this);
        m_bCreated = false;
    }
    if (m_bRegistered.exchange(false)) {
        was_unmonitor_webapp_install_status(AppInstallCb, this);
    }
}

void TCAppInstallMonitor::AppInstallCb(const char* /*appId*/, was_notify_event_e event, int /*value1*/,
                                       int /*value2*/, void* userData) try {
    ZOL_LOG(LOG_INFO, "[InstallMonitor] AppInstallCb(), event : %d", event);
    auto* const monitor = static_cast<TCAppInstallMonitor*>(userData);
    if (monitor == nullptr) {
        ZOL_LOG(LOG_ERROR, "[InstallMonitor] AppInstallCb() called, pMonitor is NULL");
    } else if (event == WAS_NOTIFY_INSTALL_COMPLETED) {
        monitor->CountEvent(GetCurrentTime(), kTexts);
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
    StartMonitoring();
    return true;
}

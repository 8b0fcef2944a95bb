#pragma once
/// Watches the installation of one web application.
#include <string>

#include "Event.h"
#include "Handler.h"
#include "Task.h"
#include "ZOLMonitorInformation.h"
#include "base/subscription.h"
#include "was.h"

class TCNotifyManager;

/// Counts completed installs by the repetition rule.
///
/// Construct, Create, StartMonitoring once; from then on only the web-app service's callback drives it, on
/// the service's thread.
class TCAppInstallMonitor : public TCMonitorInformation, public CCTask, public CCHandler {
public:
    /// @param id application id; the service is asked for its first 127 characters
    TCAppInstallMonitor(TCNotifyManager* notify, std::string id, int durationMinutes, int repetition,
                        int method, int index);
    /// Ends the task and withdraws the callback, which is not running when this returns. Neither on the
    /// task's own thread nor from inside the callback.
    ~TCAppInstallMonitor() override;

    /// Starts the task. False, and logged, when it cannot.
    [[nodiscard]] bool Create();
    /// Registers with the web-app service. False, and logged, when it refuses.
    [[nodiscard]] bool StartMonitoring();
    /// Whether it is registered.
    [[nodiscard]] bool IsMonitoring() const { return static_cast<bool>(m_registration); }

    /// `userData` is the monitor. The id is not compared: the service reports only what was registered.
    static void AppInstallCb(const char* appId, was_notify_event_e event, int value1, int value2,
                             void* userData);

    /// Type 0 registers with the service, on the task's thread, in place of StartMonitoring; any other type
    /// is a failed assertion (false where that returns). Type 0 and StartMonitoring must not run at a time.
    bool t_OnEvent(const CSEvent* event) override;

private:
    bool m_RegisterCallback();

    const std::string m_appId;
    base::Subscription m_registration;  ///< goes first: the callback uses all of the above
};

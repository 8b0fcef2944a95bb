#pragma once
/// Turns the behaviour items of the current policy into running monitors.
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Event.h"
#include "Handler.h"
#include "Task.h"
#include "ZOLPolicy.h"

class TCAppInstallMonitor;
class TCBtPairMonitor;
class TCMonitorInformation;
class TCNotifyManager;

/// Construct, Create, StartMonitoring once, WatchRest while something is left to it, destroy. The monitors
/// report by themselves, on the platform's threads. The policy is watched by at most one pairing monitor and
/// one install monitor per application id: the first item wins.
class TCMonitorManager : public CCTask, public CCHandler {
public:
    /// @param notify receiver of the hits; not owned, must outlive this object. Null: every hit is lost.
    explicit TCMonitorManager(TCNotifyManager* notify);
    /// Withdraws every platform callback, ends the monitors' tasks and this one's; no callback is running
    /// when this returns. The notify manager is left alone. Neither on a task's own thread nor from inside a
    /// platform callback.
    ~TCMonitorManager() override;

    /// Starts the task. False, and logged, when it cannot.
    [[nodiscard]] bool Create();

    /// Builds a monitor for every item in the information storage that can be watched, and starts them: the
    /// pairing monitor, then the install monitors in the order of their ids. An item that is refused is
    /// logged and skipped. False when a monitor cannot start; those behind it are then not started either.
    [[nodiscard]] bool StartMonitoring();
    /// Makes and starts every monitor that StartMonitoring did not, as long as the information storage holds
    /// the same items. What is refused again is logged.
    void WatchRest();
    /// Whether nothing is left to WatchRest.
    [[nodiscard]] bool IsWatchingAll() const;

    /// A monitor that was made.
    struct Running {
        zol::EMonitoringType type;
        std::string id;  ///< of the application; empty for the remote
        const TCMonitorInformation* rule;
        bool isMonitoring;
        int ignoreTime;  ///< seconds; of the remote only
    };
    /// In the order of the policy's items; valid as long as this object. On the thread of StartMonitoring.
    [[nodiscard]] std::vector<Running> Monitors() const;

    /// Destroys the notify manager and forgets it; no more than that: monitors and tasks go on. Asserts that
    /// there is one.
    void Destroy() override;

    /// Accepts type 0 and does nothing; any other type is a failed assertion (false where that returns).
    bool t_OnEvent(const CSEvent* event) override;

private:
    void m_Init();
    void m_InitItem(const zol::ZOLPolicyMonitor& item, int index);
    bool m_BtPairInit(int duration, int repetition, int method, int ignoreTime, int index);
    bool m_AppInstallInit(std::string id, int duration, int repetition, int method, int index);
    bool m_StartBtPairMonitoring();
    bool m_StartAppInstallMonitoring(TCAppInstallMonitor* monitor);

    TCNotifyManager* m_pNotify;
    std::unique_ptr<TCBtPairMonitor> m_pBtPairMonitor;
    std::map<std::string, std::unique_ptr<TCAppInstallMonitor>> m_appInstallMonitors;
    std::vector<int> m_unmade;  ///< indexes of items whose monitor could not be created
    bool m_bBtPair = false;
    bool m_bAppInstall = false;
    bool m_bAppLaunch = false;  ///< reserved; never set
};

#pragma once
/// The task that turns a hit into a report: a folder with header.json, a KPI event per hit, and the folder's
/// path handed to the collector through a vconf key.
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Event.h"
#include "Handler.h"
#include "Task.h"
#include "ZOLKpiManager.h"
#include "ZOLPolicy.h"
#include "vconf.h"

/// Events of TCNotifyManager. Any other code is a failed assertion.
enum ENotifyEvent {
    NOTIFY_ZOL_VCONF = 0,  ///< report what AddNotify queued; no parameter
    NOTIFY_ZOL_MONITOR =
        1  ///< report a behaviour monitor; param.l[0]: its index in the policy's monitor list
};

/// Construct, Create, post events, destroy. The collector empties KEY_SEND_PATH when it has taken a folder;
/// paths that come meanwhile wait in a queue and are lost when the process ends.
class TCNotifyManager : public CCTask, public CCHandler {
public:
    /// vconf string key: device path of the folder that waits for the collector, empty when none does.
    static constexpr const char* KEY_SEND_PATH = "db/zol/send_zol_files_path";

    /// Empties KEY_SEND_PATH and watches it from now on.
    TCNotifyManager();
    /// Shutdown. Not on the task's own thread. A derived class calls Shutdown in its own destructor: the task
    /// must not run any more while the object is taken apart.
    ~TCNotifyManager() override;
    TCNotifyManager(const TCNotifyManager&) = delete;
    TCNotifyManager& operator=(const TCNotifyManager&) = delete;

    /// Starts the task. False, and logged, when it cannot; Destroy must not be called then.
    bool Create();
    /// Ends the task: events that were not handled are lost. Only after a successful Create.
    void Destroy() override;
    /// Withdraws the watch and, when the task runs, Destroy. May be called more than once, from any thread
    /// but the task's own.
    void Shutdown();

    /// Queues one hit for the next NOTIFY_ZOL_VCONF, which the caller posts. Any thread.
    /// @param intValue the key's value; -1: no integer, `strValue` is the value
    void AddNotify(zol::ZOLVconfMonitor monitor, int intValue, std::string strValue);

    /// Handles one event on the task's thread; always true.
    bool t_OnEvent(const CSEvent* event) override;

    /// Blocks until KEY_SEND_PATH is empty or cannot be read, at most 900 seconds.
    void m_CheckVconfKey();

protected:
    /// The text of a KPI event: items "name=value;" in braces; "{}" without a KPI manager.
    std::string m_GetKpiDescription(const std::string& key, int intValue, const std::string& strValue);
    /// @param index position in the policy's monitor list. A position outside it is a caller's mistake: the
    ///              result is then empty, logged, and nothing is sent for the event.
    std::string m_GetKpiDescription(long index);

    std::unique_ptr<TCKpiManager> m_pKpiManager;

private:
    struct TSVconfNotifyItem {
        std::string key;
        std::int32_t intValue;  ///< -1: the value is strValue
        std::string strValue;
    };

    static void m_vconfCb(keynode_t* node, void* userData);

    void m_OnKeyChanged();
    void m_InitVconfKey();
    void m_RegisterVconfKey();
    void m_DoNotify(long index);
    bool m_CreateHeaderInfo(const char* path);
    void m_ReportVconfHits();
    void m_ReportMonitorHit(long index);
    std::string m_GetIdentifiers() const;
    void m_SendKpi(const std::string& description);
    void m_UpdateVconfKey(const char* path);
    void m_UpdateVconfKeyLocked(const char* path);
    void m_NotifyFromList();
    std::string m_GetDefaultKpiDescription() const;
    std::string m_ConvertToString(unsigned int number) const;

    std::mutex m_hitMutex;                           ///< m_vconfNotiList; never held while calling out
    std::vector<TSVconfNotifyItem> m_vconfNotiList;  ///< hits of the next NOTIFY_ZOL_VCONF
    /// m_notiPathList, and reading and then writing the key: tasks and vconf callbacks must not find the key
    /// empty together and overwrite each other's path. Of the process, because a policy that comes while an
    /// earlier one's tasks live on has a notify manager of its own. vconf's get and set call nobody back.
    static std::mutex s_publishMutex;
    std::list<std::string> m_notiPathList;  ///< paths that wait for the key to become empty
    bool m_isWatching = false;
    bool m_isCreated = false;
};

#pragma once
/// The task that turns a hit into a report: a folder with header.json, a KPI event per hit, and the folder's
/// path handed to the collector through a vconf key.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Event.h"
#include "HandOverQueue.h"
#include "Handler.h"
#include "Task.h"
#include "UncollectedReports.h"
#include "ZOLKpiManager.h"
#include "ZOLPolicy.h"
#include "vconf.h"

/// Events of TCNotifyManager. Any other code is a failed assertion.
enum ENotifyEvent {
    NOTIFY_ZOL_VCONF = 0,   ///< report what AddNotify queued; no parameter
    NOTIFY_ZOL_MONITOR = 1  ///< report the monitor at index param.l[0] of the policy's monitor list
};

/// Construct, Create, post events, destroy. Its paths wait for the collector in a HandOverQueue.
class TCNotifyManager : public CCTask, public CCHandler {
public:
    static constexpr std::uint64_t kLastReportsNs = 5000000000;

    /// Empties the key of the hand-over and watches it from now on.
    TCNotifyManager();
    /// Ends the task when it runs. Not on the task's own thread. A class that derives and handles events ends
    /// it in its own destructor: it must not run any more while the object is taken apart.
    ~TCNotifyManager() override;

    /// Starts the task. False, and logged, when it cannot; Destroy must not be called then.
    [[nodiscard]] bool Create();
    /// Ends the task. What was posted before is still reported, for kLastReportsNs at most; hits that are not
    /// reported by then are lost, and one line counts them. Only after a successful Create, not on the task's
    /// own thread.
    void Destroy() override;
    /// Lets Destroy report until this moment of the steady clock (nanoseconds) at the latest. Any thread.
    void ReportUntil(std::uint64_t moment);

    /// Watches the key of the hand-over when that was refused before, and hands over what waited for it. On
    /// the thread that the callbacks of vconf come on.
    void WatchRest();
    /// Whether nothing is left to WatchRest.
    [[nodiscard]] bool IsWatchingAll() const { return m_handOver.IsWatching(); }

    /// Queues one hit for the next NOTIFY_ZOL_VCONF, which the caller posts. Any thread.
    /// @param intValue the key's value; -1: no integer, `strValue` is the value
    void AddNotify(zol::ZOLVconfMonitor monitor, int intValue, std::string strValue);

    /// Handles one event on the task's thread; always true.
    bool t_OnEvent(const CSEvent* event) override;

    /// Blocks until the hand-over's key is empty or cannot be read, at most 900 seconds.
    void m_CheckVconfKey();

protected:
    /// The text of a KPI event: items "name=value;" in braces; "{}" without a KPI manager.
    std::string m_GetKpiDescription(const std::string& key, int intValue, const std::string& strValue);
    /// Null, and logged, when `index` lies outside the policy's monitor list, which is a caller's mistake.
    std::optional<std::string> m_GetKpiDescription(long index);

    std::unique_ptr<TCKpiManager> m_pKpiManager;

private:
    struct TSVconfNotifyItem {
        std::string key;
        std::int32_t intValue;  ///< -1: the value is strValue
        std::string strValue;
    };

    static void m_vconfCb(keynode_t* node, void* userData);

    void m_InitVconfKey();
    void m_RegisterVconfKey();
    [[nodiscard]] bool m_IsTimeOver() const;
    void m_DoNotify(long index);
    [[nodiscard]] bool m_CreateHeaderInfo(const char* path);
    /// @return those that were queued
    std::vector<TSVconfNotifyItem> m_ReportVconfHits();
    static void m_TellHits(long index, const std::vector<TSVconfNotifyItem>& hits, const std::string& report);
    static std::string m_GetValue(int intValue, const std::string& strValue);
    void m_SendKpi(const std::string& description);
    void m_UpdateVconfKey(const char* path);
    void m_NotifyFromList();
    static std::string m_GetDefaultKpiDescription();
    static std::string m_ConvertToString(unsigned int number);

    std::mutex m_hitMutex;                           ///< m_vconfNotiList; never held while calling out
    std::vector<TSVconfNotifyItem> m_vconfNotiList;  ///< hits of the next NOTIFY_ZOL_VCONF
    std::atomic<std::uint64_t> m_reportUntil{std::numeric_limits<std::uint64_t>::max()};
    std::size_t m_givenUp = 0;  ///< hits; the task's own until that has ended
    zol::HandOverQueue m_handOver;
    zol::UncollectedReports m_uncollected;
};

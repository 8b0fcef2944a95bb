#include "ZOLMonitorManager.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "Log.h"
#include "Logging.h"
#include "PolicyTimes.h"
#include "WorkerTask.h"
#include "ZOLAppInstallMonitor.h"
#include "ZOLBtPairMonitor.h"
#include "ZOLInformationStorage.h"
#include "ZOLNotifyManager.h"
#include "ZOLPolicy.h"

namespace {

constexpr const char* kLogModule = "TCMonitorManager";
constexpr const char* kSource = "zol/src/ZOLMonitorManager";
constexpr const char* kTaskName = "ZolMonitorManager";

/// The only event of the task; it means nothing.
constexpr std::uint32_t kEventNone = 0;

/// The ignore time of an item, seconds; 0 leaves it to the monitor.
std::int32_t ReadIgnoreTime(const zol::ZOLPolicyMonitor& item) {
    const std::int32_t seconds = zol::ReadSeconds(item.reserve1);
    if (seconds < 0) {
        ZOL_LOG(LOG_ERROR, "invalid ignoreTime, set to default value");
        return 0;
    }
    return seconds;
}

}  // namespace

TCMonitorManager::TCMonitorManager(TCNotifyManager* notify) : m_pNotify(notify) {}

TCMonitorManager::~TCMonitorManager() {
    EndWorkerTask(*this, *this);
}

bool TCMonitorManager::Create() {
    ZOL_LOG(LOG_INFO, "[TCMonitorManager] Create");
    if (!StartWorkerTask(*this, *this, kTaskName, kSource, __LINE__)) {
        return false;
    }
    ZOL_LOG(LOG_INFO, "[TCMonitorManager] Created");
    return true;
}

bool TCMonitorManager::StartMonitoring() {
    ZOL_LOG(LOG_INFO, " --------> StartMonitoring() begin");
    m_Init();
    if (m_bBtPair) {
        if (!m_StartBtPairMonitoring()) {
            ZOL_LOG(LOG_ERROR, "fail to start BT PAIR");
            return false;
        }
        ZOL_LOG(LOG_INFO, "BT PAIR monitoring started.");
    }
    if (m_bAppInstall) {
        for (const auto& [id, monitor] : m_appInstallMonitors) {
            if (monitor == nullptr) {
                continue;
            }
            if (!m_StartAppInstallMonitoring(monitor.get())) {
                ZOL_LOG(LOG_ERROR, "fail to start APP INSTALL");
                return false;
            }
            ZOL_LOG(LOG_INFO, "APP INSTALL monitoring started.");
        }
    }
    if (m_bAppLaunch) {
        ZOL_LOG(LOG_INFO, "APP LAUNCH not implemented");
    }
    ZOL_LOG(LOG_INFO, " --------> StartMonitoring() end");
    return true;
}

void TCMonitorManager::WatchRest() {
    unsigned count = 0;
    std::vector<zol::ZOLPolicyMonitor> items;
    zol::TCInformationStorage::Instance()->GetZOLMonitorInformation(count, items);
    for (std::size_t left = m_unmade.size(); left > 0; --left) {
        const int index = m_unmade.front();
        const zol::ZOLPolicyMonitor& item = items.at(static_cast<std::size_t>(index));
        if (item.type == zol::APP_INSTALL) {
            m_appInstallMonitors.erase(item.id);
        }
        m_InitItem(item, index);
        m_unmade.erase(m_unmade.begin());
    }
    // The results are those of IsWatchingAll.
    if (m_bBtPair && !m_pBtPairMonitor->IsMonitoring()) {
        static_cast<void>(m_StartBtPairMonitoring());
    }
    for (const auto& [id, monitor] : m_appInstallMonitors) {
        if (monitor != nullptr && !monitor->IsMonitoring()) {
            static_cast<void>(m_StartAppInstallMonitoring(monitor.get()));
        }
    }
}

bool TCMonitorManager::IsWatchingAll() const {
    return m_unmade.empty() && (!m_bBtPair || m_pBtPairMonitor->IsMonitoring()) &&
           std::all_of(m_appInstallMonitors.begin(), m_appInstallMonitors.end(), [](const auto& entry) {
               return entry.second != nullptr && entry.second->IsMonitoring();
           });
}

std::vector<TCMonitorManager::Running> TCMonitorManager::Monitors() const {
    std::vector<Running> monitors;
    if (m_bBtPair) {
        monitors.push_back({zol::ZOL_BT_PAIR, "", m_pBtPairMonitor.get(), m_pBtPairMonitor->IsMonitoring(),
                            m_pBtPairMonitor->GetIgnoreTime()});
    }
    for (const auto& [id, monitor] : m_appInstallMonitors) {
        if (monitor != nullptr) {
            monitors.push_back({zol::APP_INSTALL, id, monitor.get(), monitor->IsMonitoring(), 0});
        }
    }
    std::sort(monitors.begin(), monitors.end(), [](const Running& one, const Running& other) {
        return one.rule->GetIndex() < other.rule->GetIndex();
    });
    return monitors;
}

void TCMonitorManager::Destroy() {
    if (!AssertAtsc3(m_pNotify != nullptr, "m_pNotify", kSource, __LINE__)) {
        return;
    }
    ZOL_LOG(LOG_INFO, "[TCMonitorManager] Destroy");
    m_pNotify->Destroy();
    m_pNotify = nullptr;
    ZOL_LOG(LOG_INFO, "[TCMonitorManager] Destroyed");
}

bool TCMonitorManager::t_OnEvent(const CSEvent* event) {
    if (!AssertAtsc3(event != nullptr, "event", kSource, __LINE__)) {
        return false;
    }
    ZOL_LOG(LOG_INFO, "[TCMonitorManager::t_OnEvent] TYPE:%lu", static_cast<unsigned long>(event->type));
    return AssertAtsc3(event->type == kEventNone, "!\"[TCMonitorManager] Unknown Event Type\"", kSource,
                       __LINE__);
}

void TCMonitorManager::m_Init() {
    ZOL_LOG(LOG_INFO, "Start Initialize");
    unsigned count = 0;
    std::vector<zol::ZOLPolicyMonitor> items;
    zol::TCInformationStorage::Instance()->GetZOLMonitorInformation(count, items);
    // The number goes out with a hit: it counts the items of every type.
    int number = 0;
    for (const zol::ZOLPolicyMonitor& item : items) {
        m_InitItem(item, number++);
    }
}

void TCMonitorManager::m_InitItem(const zol::ZOLPolicyMonitor& item, int index) {
    switch (item.type) {
        case zol::ZOL_BT_PAIR:
            if (m_BtPairInit(item.duration, item.repetition, item.method, ReadIgnoreTime(item), index)) {
                m_bBtPair = true;
            } else {
                ZOL_LOG(LOG_ERROR, "fail to init BT PAIR");
            }
            break;
        case zol::APP_INSTALL:
            if (m_AppInstallInit(item.id, item.duration, item.repetition, item.method, index)) {
                m_bAppInstall = true;
            } else {
                ZOL_LOG(LOG_ERROR, "fail to init APP INSTALL");
            }
            break;
        case zol::APP_LAUNCH:
            ZOL_LOG(LOG_INFO, "APP LAUNCH , skip");
            break;
        default:
            break;
    }
}

bool TCMonitorManager::m_BtPairInit(int duration, int repetition, int method, int ignoreTime, int index) {
    ZOL_LOG(LOG_INFO, "INIT [BT PAIR]");
    if (m_bBtPair) {
        ZOL_LOG(LOG_ERROR, "BtPairMonitoring is already exist. return false");
        return false;
    }
    m_pBtPairMonitor =
        std::make_unique<TCBtPairMonitor>(m_pNotify, duration, repetition, method, ignoreTime, index);
    if (!m_pBtPairMonitor->Create()) {
        ZOL_LOG(LOG_ERROR, "m_pBtPairMonitor->Create() fail");
        m_unmade.push_back(index);
        return false;
    }
    return true;
}

bool TCMonitorManager::m_AppInstallInit(std::string id, int duration, int repetition, int method, int index) {
    ZOL_LOG(LOG_INFO, "INIT [APP INSTALL]");
    if (id.empty()) {
        ZOL_LOG(LOG_ERROR, "AppId is empty");
        return false;
    }
    if (m_appInstallMonitors.count(id) != 0) {
        ZOL_LOG(LOG_ERROR, "AppId key is already exist. return false");
        return false;
    }
    auto& monitor = m_appInstallMonitors[id];
    monitor.reset(new (std::nothrow)
                      TCAppInstallMonitor(m_pNotify, std::move(id), duration, repetition, method, index));
    if (monitor == nullptr) {
        ZOL_LOG(LOG_ERROR, "new TCAppInstallMonitor() is NULL");
        m_unmade.push_back(index);
        return false;
    }
    if (!monitor->Create()) {
        ZOL_LOG(LOG_ERROR, "new TCAppInstallMonitor()->Create() fail");
        // The id stays taken: the first item of an id counts, also when it cannot be monitored.
        monitor.reset();
        m_unmade.push_back(index);
        return false;
    }
    return true;
}

bool TCMonitorManager::m_StartBtPairMonitoring() {
    return m_pBtPairMonitor->StartMonitoring();
}

bool TCMonitorManager::m_StartAppInstallMonitoring(TCAppInstallMonitor* monitor) {
    return monitor->StartMonitoring();
}

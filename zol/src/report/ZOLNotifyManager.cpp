#include "ZOLNotifyManager.h"

#include <algorithm>
#include <boost/lexical_cast.hpp>
#include <utility>

#include "EventDescription.h"
#include "ExceptionWall.h"
#include "HitNews.h"
#include "Log.h"
#include "Logging.h"
#include "ReportFolder.h"
#include "Time.h"
#include "WorkerTask.h"
#include "ZOLInformationStorage.h"
#include "platform_clock.h"

using zol::EventDescription;
using zol::HandOverQueue;
using zol::HitNews;
using zol::ReportFolder;

namespace {

constexpr const char* kLogModule = "zol::NotifyManager";
constexpr const char* kSource = "zol/src/ZOLNotifyManager";

constexpr const char* kTaskName = "ZolNotifyManager";
constexpr long kVconfHits = -1;  ///< index that stands for the queued vconf hits
constexpr int kNoInteger = -1;   ///< value of a hit whose value is a text

constexpr int kCollectorWaitSeconds = 900;
constexpr unsigned long kSecondMs = 1000;

constexpr const char* kKpiType = "20_errdata";
constexpr const char* kKpiCategory = "ZOL";
constexpr const char* kKpiEventId = "EV007";

}  // namespace

TCNotifyManager::TCNotifyManager() {
    ZOL_LOG(LOG_ERROR, "TCNotifyManager()");
    m_InitVconfKey();
    m_RegisterVconfKey();
    m_pKpiManager = std::make_unique<TCKpiManager>();
}

TCNotifyManager::~TCNotifyManager() {
    if (CCTask::FlagCreate()) {
        TCNotifyManager::Destroy();
    }
    if (const std::size_t waiting = m_handOver.Waiting(); waiting > 0) {
        ZOL_LOG(LOG_ERROR, "%zu report folders stay that no collector was told of", waiting);
    }
}

bool TCNotifyManager::Create() {
    ZOL_LOG(LOG_INFO, "[TCNotifyManager] Create");
    if (!StartWorkerTask(*this, *this, kTaskName, kSource, __LINE__)) {
        return false;
    }
    ZOL_LOG(LOG_INFO, "[TCNotifyManager] Created");
    return true;
}

void TCNotifyManager::Destroy() {
    ReportUntil(platform_clock_steady_ns() + kLastReportsNs);
    ZOL_LOG(LOG_INFO, "[TCNotifyManager] Destroy");
    CCTask::ExitLoop();  // behind the events that are queued
    EndWorkerTask(*this, *this);
    if (const std::size_t lost = m_givenUp + m_vconfNotiList.size(); lost > 0) {
        ZOL_LOG(LOG_ERROR, "%zu hits are given up, the daemon ends", lost);
    }
    ZOL_LOG(LOG_INFO, "[TCNotifyManager] Destroyed");
}

void TCNotifyManager::ReportUntil(std::uint64_t moment) {
    m_reportUntil = std::min(m_reportUntil.load(), moment);
}

bool TCNotifyManager::m_IsTimeOver() const {
    return platform_clock_steady_ns() >= m_reportUntil;
}

void TCNotifyManager::AddNotify(zol::ZOLVconfMonitor monitor, int intValue, std::string strValue) {
    ZOL_LOG(LOG_ERROR, "key[%s], intValue[%d], strValue[%s]", monitor.key.c_str(), intValue,
            strValue.c_str());
    const std::lock_guard<std::mutex> lock(m_hitMutex);
    m_vconfNotiList.push_back({std::move(monitor.key), intValue, std::move(strValue)});
}

bool TCNotifyManager::t_OnEvent(const CSEvent* event) {
    if (!AssertAtsc3(event != nullptr, "event", kSource, __LINE__)) {
        return true;
    }
    ZOL_LOG(LOG_INFO, "[TCNotifyManager::t_OnEvent] TYPE:%lu", static_cast<unsigned long>(event->type));
    switch (event->type) {
        case NOTIFY_ZOL_VCONF:
            ZOL_LOG(LOG_INFO, "[TCNotifyManager::t_OnEvent] event->type is NOTIFY_ZOL_VCONF");
            m_DoNotify(kVconfHits);
            break;
        case NOTIFY_ZOL_MONITOR:
            ZOL_LOG(LOG_INFO, "[TCNotifyManager::t_OnEvent] event->type is NOTIFY_ZOL_MONITOR");
            ZOL_LOG(LOG_INFO, "[TCNotifyManager::t_OnEvent] event->param.l[0] is %ld",
                    static_cast<long>(event->param.l[0]));
            m_DoNotify(event->param.l[0]);
            break;
        default:
            __ASSERT_ATSC3("!\"[TCNotifyManager] Unknown Event Type\"", kSource, __LINE__);
            break;
    }
    m_uncollected.Bound();
    return true;
}

void TCNotifyManager::m_DoNotify(long index) {
    if (m_IsTimeOver()) {
        m_givenUp += index == kVconfHits ? 0 : 1;  // those of keys are still in their list
        return;
    }
    if (m_pKpiManager == nullptr) {
        ZOL_LOG(LOG_ERROR, "m_pKpiManager is NULL");
        return;
    }
    m_pKpiManager->GetAllInformation();
    const ReportFolder folder(m_pKpiManager->Get(KPI_TGID), m_pKpiManager->Get(KPI_EVID));
    if (!folder.Make() || !m_CreateHeaderInfo(folder.Path().c_str())) {
        return;
    }
    std::vector<TSVconfNotifyItem> hits;
    if (index == kVconfHits) {
        hits = m_ReportVconfHits();
    } else if (const std::optional<std::string> description = m_GetKpiDescription(index)) {
        m_SendKpi(*description);
    }
    m_UpdateVconfKey(folder.Path().c_str());
    // Last: what fails here costs no report.
    zol::CatchAll(kLogModule, [&] { m_TellHits(index, hits, folder.Path()); });
}

void TCNotifyManager::m_TellHits(long index, const std::vector<TSVconfNotifyItem>& hits,
                                 const std::string& report) {
    platform_time_t now{};
    static_cast<void>(platform_clock_realtime(&now));  // 1970 when the clock cannot be read
    for (const TSVconfNotifyItem& hit : hits) {
        HitNews::Tell({now.seconds, hit.key, m_GetValue(hit.intValue, hit.strValue), report});
    }
    if (index == kVconfHits) {
        return;
    }
    unsigned count = 0;
    std::vector<zol::ZOLPolicyMonitor> monitors;
    zol::TCInformationStorage::Instance()->GetZOLMonitorInformation(count, monitors);
    if (index >= 0 && static_cast<std::size_t>(index) < monitors.size()) {
        const zol::ZOLPolicyMonitor& monitor = monitors[static_cast<std::size_t>(index)];
        HitNews::Tell({now.seconds, monitor.type == zol::ZOL_BT_PAIR ? "pairing" : monitor.id, "", report});
    }
}

bool TCNotifyManager::m_CreateHeaderInfo(const char* path) {
    if (m_pKpiManager == nullptr) {
        ZOL_LOG(LOG_ERROR, "m_pKpiManager is NULL");
        return false;
    }
    const ReportFolder::HeaderErrors errors = ReportFolder(path).WriteHeader(*m_pKpiManager);
    if (errors.open) {
        ZOL_LOG(LOG_ERROR, "file open failed");
    }
    if (const std::error_code error = errors.open ? errors.open : errors.write) {
        ZOL_LOG(LOG_ERROR, "cannot write %s/header.json: %s", path, error.message().c_str());
    }
    if (errors.open) {
        return false;
    }
    // Written or not: the hit is worth a report all the same.
    ZOL_LOG(LOG_INFO, "header.json created");
    return true;
}

std::vector<TCNotifyManager::TSVconfNotifyItem> TCNotifyManager::m_ReportVconfHits() {
    std::vector<TSVconfNotifyItem> hits;
    {
        const std::lock_guard<std::mutex> lock(m_hitMutex);
        hits.swap(m_vconfNotiList);
    }
    for (const TSVconfNotifyItem& hit : hits) {
        if (m_IsTimeOver()) {
            ++m_givenUp;
        } else {
            m_SendKpi(m_GetKpiDescription(hit.key, hit.intValue, hit.strValue));
        }
    }
    return hits;
}

void TCNotifyManager::m_SendKpi(const std::string& description) {
    // Logged by the KPI manager; the report goes out without the event.
    static_cast<void>(m_pKpiManager->SendKPI(kKpiType, kKpiCategory, kKpiEventId, description));
}

std::string TCNotifyManager::m_GetKpiDescription(const std::string& key, int intValue,
                                                 const std::string& strValue) {
    if (m_pKpiManager == nullptr) {
        return "{}";
    }
    EventDescription items(*m_pKpiManager);
    items.Add("key", key);
    items.Add("value", m_GetValue(intValue, strValue));
    for (const char* empty : {"zol_error_type", "app_id", "app_name", "zol_duration", "zol_repetion"}) {
        items.Add(empty);
    }
    std::string description = items.EndedBy(m_GetDefaultKpiDescription());
    ZOL_LOG(LOG_ERROR, "kpiDesc : %s", description.c_str());
    return description;
}

std::optional<std::string> TCNotifyManager::m_GetKpiDescription(long index) {
    if (m_pKpiManager == nullptr) {
        return "{}";
    }
    unsigned count = 0;
    std::vector<zol::ZOLPolicyMonitor> monitors;
    zol::TCInformationStorage::Instance()->GetZOLMonitorInformation(count, monitors);
    if (index < 0 || static_cast<unsigned long>(index) >= monitors.size()) {
        ZOL_LOG(LOG_ERROR, "no monitor at index %ld of %zu, nothing is sent", index, monitors.size());
        return std::nullopt;
    }
    const zol::ZOLPolicyMonitor& monitor = monitors[static_cast<std::size_t>(index)];
    EventDescription items(*m_pKpiManager);
    items.Add("zol_error_type", m_ConvertToString(static_cast<unsigned int>(monitor.type)));
    items.Add("app_id", monitor.id);
    items.Add("app_name", monitor.name);
    items.Add("zol_duration", m_ConvertToString(static_cast<unsigned int>(monitor.duration)));
    items.Add("zol_repetion", m_ConvertToString(static_cast<unsigned int>(monitor.repetition)));
    items.Add("key");
    items.Add("value");
    std::string description = items.EndedBy(m_GetDefaultKpiDescription());
    ZOL_LOG(LOG_ERROR, "kpiDesc : %s", description.c_str());
    return description;
}

std::string TCNotifyManager::m_GetValue(int intValue, const std::string& strValue) {
    return intValue == kNoInteger ? strValue : m_ConvertToString(static_cast<unsigned int>(intValue));
}

std::string TCNotifyManager::m_GetDefaultKpiDescription() {
    return EventDescription::DEFAULT_ITEMS;
}

std::string TCNotifyManager::m_ConvertToString(unsigned int number) {
    try {
        return boost::lexical_cast<std::string>(number);
    } catch (const boost::bad_lexical_cast&) {
        ZOL_LOG(LOG_ERROR, "bad_lexical_cast");
        return "0";
    }
}

void TCNotifyManager::m_InitVconfKey() {
    if (!HandOverQueue::EmptyKey()) {
        ZOL_LOG(LOG_ERROR, "vconf_set_str fail");
    }
}

void TCNotifyManager::m_RegisterVconfKey() {
    ZOL_LOG(LOG_ERROR, "%s", m_handOver.Watch(m_vconfCb, this) ? "success" : "fail");
}

void TCNotifyManager::WatchRest() {
    if (m_handOver.IsWatching()) {
        return;
    }
    m_RegisterVconfKey();
    // What nobody was told of meanwhile.
    if (m_handOver.IsWatching() && HandOverQueue::IsKeyEmpty().value_or(false)) {
        m_NotifyFromList();
    }
}

void TCNotifyManager::m_UpdateVconfKey(const char* path) {
    switch (m_handOver.Offer(path)) {
        case HandOverQueue::Offered::PUBLISHED:
            ZOL_LOG(LOG_ERROR, "vconf_set_str success");
            break;
        case HandOverQueue::Offered::WAITING:
            ZOL_LOG(LOG_ERROR, "vconfkey is not empty, add current path to list");
            break;
        case HandOverQueue::Offered::UNREADABLE:
            ZOL_LOG(LOG_ERROR, "vconf_get_str fail");
            ZOL_LOG(LOG_ERROR, "%s stays, and no collector is told of it", path);
            break;
        case HandOverQueue::Offered::UNWRITABLE:
            ZOL_LOG(LOG_ERROR, "vconf_set_str fail");
            ZOL_LOG(LOG_ERROR, "%s stays, and no collector is told of it", path);
            break;
    }
}

void TCNotifyManager::m_vconfCb(keynode_t* node, void* userData) {
    if (userData == nullptr || node == nullptr || node->keyname == nullptr) {
        return;
    }
    // Read anew: the value that the notification carries may be an older one.
    const std::optional<bool> isEmpty = HandOverQueue::IsKeyEmpty();
    if (!isEmpty) {
        ZOL_LOG(LOG_ERROR, "vconf_get_str fail");
    } else if (*isEmpty) {
        ZOL_LOG(LOG_ERROR, "vconfkey is empty");
        zol::CatchAll(kLogModule, [=] { static_cast<TCNotifyManager*>(userData)->m_NotifyFromList(); });
    }
}

void TCNotifyManager::m_NotifyFromList() {
    const auto lock = HandOverQueue::Lock();  // on its way the path is in neither place
    const std::optional<std::string> path = m_handOver.TakeFirst();
    if (!path) {
        ZOL_LOG(LOG_ERROR, "m_notiPathList is empty, return");
        return;
    }
    // When the key was taken again meanwhile the path goes back to the end of the list.
    m_UpdateVconfKey(path->c_str());
}

void TCNotifyManager::m_CheckVconfKey() {
    for (int remaining = kCollectorWaitSeconds; remaining > 0; --remaining) {
        const std::optional<bool> isEmpty = HandOverQueue::IsKeyEmpty();
        if (!isEmpty) {
            ZOL_LOG(LOG_ERROR, "vconf_get_str fail");
            return;
        }
        if (*isEmpty) {
            ZOL_LOG(LOG_ERROR, "vconfkey is empty, exit");
            return;
        }
        ZOL_LOG(LOG_ERROR, "vconfkey is not empty, waiting[%d]", remaining);
        CCTime::Sleep(kSecondMs);
    }
}

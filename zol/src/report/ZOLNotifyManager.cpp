#include "ZOLNotifyManager.h"

#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/lexical_cast.hpp>
#include <cstdio>
#include <sstream>
#include <utility>

#include "CallbackException.h"
#include "Log.h"
#include "Logging.h"
#include "TSFileSystem.h"
#include "Time.h"
#include "VconfString.h"
#include "WorkerTask.h"
#include "ZOLInformationStorage.h"
#include "device_path.h"
#include "device_paths.h"

using zol::GetVconfString;
using zol::VconfString;

namespace {

constexpr const char* kLogModule = "zol::NotifyManager";
constexpr const char* kSource = "zol/src/ZOLNotifyManager";

constexpr const char* kTaskName = "ZolNotifyManager";
constexpr std::size_t kPathLength = 127;  ///< longer paths of a report are cut
constexpr long kVconfHits = -1;           ///< index that stands for the queued vconf hits
constexpr int kNoInteger = -1;            ///< value of a hit whose value is a text

constexpr mode_t kHeaderMode = 0644;

constexpr int kCollectorWaitSeconds = 900;
constexpr unsigned long kSecondMs = 1000;

constexpr const char* kKpiType = "20_errdata";
constexpr const char* kKpiCategory = "ZOL";
constexpr const char* kKpiEventId = "EV007";

constexpr const char* kDefaultItems[] = {
    "chip_id=;",
    "sn=;",
    "series=;",
    "platform=;",
    "test_step=;",
    "micomtv=;",
    "micomjp=;",
    "is_shop_mode=;",
    "checksum=;",
    "is_sw_modify=;",
    "serdes_err_accum=;",
    "serdes_err_delta=;",
    "serdes_reset_accum=;",
    "serdes_reset_delta=;",
    "wifi_no_detect_accum=;",
    "wifi_no_detect_delta=;",
    "wifi_detach_accum=;",
    "wifi_detach_delta=;",
    "bt_type=;",
    "bt_name=;",
    "bt_rssi=;",
    "bt_no_detect_accum=;",
    "bt_detach_accum=}",
};

std::string CutPath(const std::string& path) {
    return path.substr(0, kPathLength);
}

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, CloseFile>;

/// Created when it is missing, never through a link. The process's umask is not to hide a report from its
/// collector.
FilePtr OpenForReaders(const std::string& path) {
    const int descriptor = open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kHeaderMode);
    if (descriptor < 0) {
        return nullptr;
    }
    fchmod(descriptor, kHeaderMode);
    FilePtr file(fdopen(descriptor, "r+"));
    if (file == nullptr) {
        close(descriptor);
    }
    return file;
}

/// Events of one second share a folder, and the collector may be reading it already: a file that is right
/// stays as it is.
void SetContent(std::FILE* file, const std::string& text) {
    std::string content(text.size() + 1, '\0');
    content.resize(std::fread(content.data(), 1, content.size(), file));
    if (content != text) {
        std::rewind(file);
        [[maybe_unused]] const int ignored = ftruncate(fileno(file), 0);
        std::fputs(text.c_str(), file);
    }
}

std::string Item(const char* name, const std::string& value) {
    return std::string(name) + "=" + value + ";";
}

}  // namespace

std::mutex TCNotifyManager::s_publishMutex;

TCNotifyManager::TCNotifyManager() {
    ZOL_LOG(LOG_ERROR, "TCNotifyManager()");
    m_InitVconfKey();
    m_RegisterVconfKey();
    m_pKpiManager = std::make_unique<TCKpiManager>();
}

TCNotifyManager::~TCNotifyManager() {
    TCNotifyManager::Shutdown();
}

bool TCNotifyManager::Create() {
    ZOL_LOG(LOG_INFO, "[TCNotifyManager] Create");
    if (!StartWorkerTask(*this, *this, kTaskName, kSource, __LINE__)) {
        return false;
    }
    m_isCreated = true;
    ZOL_LOG(LOG_INFO, "[TCNotifyManager] Created");
    return true;
}

void TCNotifyManager::Destroy() {
    ZOL_LOG(LOG_INFO, "[TCNotifyManager] Destroy");
    m_isCreated = false;
    EndWorkerTask(*this, *this);
    ZOL_LOG(LOG_INFO, "[TCNotifyManager] Destroyed");
}

void TCNotifyManager::Shutdown() {
    if (m_isWatching) {
        m_isWatching = false;
        vconf_withdraw_key_changed(KEY_SEND_PATH, m_vconfCb, this);
    }
    if (m_isCreated) {
        TCNotifyManager::Destroy();
    }
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
    return true;
}

void TCNotifyManager::m_DoNotify(long index) {
    if (m_pKpiManager == nullptr) {
        ZOL_LOG(LOG_ERROR, "m_pKpiManager is NULL");
        return;
    }
    m_pKpiManager->GetAllInformation();
    const std::string path = CutPath(std::string(ZOL_PATH_REPORT_ROOT) + "/" + m_pKpiManager->Get(KPI_TGID) +
                                     "_" + m_pKpiManager->Get(KPI_EVID));
    if (!TSFileSystem::MakeDir(path, true) || !m_CreateHeaderInfo(path.c_str())) {
        return;
    }
    if (index == kVconfHits) {
        m_ReportVconfHits();
    } else {
        m_ReportMonitorHit(index);
    }
    m_UpdateVconfKey(path.c_str());
}

bool TCNotifyManager::m_CreateHeaderInfo(const char* path) {
    if (m_pKpiManager == nullptr) {
        ZOL_LOG(LOG_ERROR, "m_pKpiManager is NULL");
        return false;
    }
    Json::Value header;
    header["idtype"] = "HWDUID";
    header["id"] = m_pKpiManager->Get(KPI_HWDUID);
    header["category"] = kKpiCategory;
    header["tgid"] = m_pKpiManager->Get(KPI_TGID);
    header["lcid"] = m_pKpiManager->Get(KPI_LCID);
    header["evid"] = m_pKpiManager->Get(KPI_EVID);
    header["Content-Type"] = "multipart/form-data";

    FilePtr file = OpenForReaders(DevicePath(CutPath(std::string(path) + "/header.json")));
    if (file == nullptr) {
        ZOL_LOG(LOG_ERROR, "file open failed");
        return false;
    }
    const std::unique_ptr<Json::StreamWriter> writer(Json::StreamWriterBuilder().newStreamWriter());
    std::ostringstream text;
    writer->write(header, &text);
    SetContent(file.get(), text.str());
    // Closed before the path is published: the collector must find the file whole.
    file.reset();
    ZOL_LOG(LOG_INFO, "header.json created");
    return true;
}

void TCNotifyManager::m_ReportVconfHits() {
    std::vector<TSVconfNotifyItem> hits;
    {
        const std::lock_guard<std::mutex> lock(m_hitMutex);
        hits.swap(m_vconfNotiList);
    }
    for (const TSVconfNotifyItem& hit : hits) {
        m_SendKpi(m_GetKpiDescription(hit.key, hit.intValue, hit.strValue));
    }
}

void TCNotifyManager::m_ReportMonitorHit(long index) {
    const std::string description = m_GetKpiDescription(index);
    if (!description.empty()) {
        m_SendKpi(description);
    }
}

void TCNotifyManager::m_SendKpi(const std::string& description) {
    m_pKpiManager->SendKPI(kKpiType, kKpiCategory, kKpiEventId, description);
}

std::string TCNotifyManager::m_GetIdentifiers() const {
    return Item("tgid", m_pKpiManager->Get(KPI_TGID)) + Item("lcid", m_pKpiManager->Get(KPI_LCID)) +
           Item("evid", m_pKpiManager->Get(KPI_EVID));
}

std::string TCNotifyManager::m_GetKpiDescription(const std::string& key, int intValue,
                                                 const std::string& strValue) {
    if (m_pKpiManager == nullptr) {
        return "{}";
    }
    const std::string value =
        intValue == kNoInteger ? strValue : m_ConvertToString(static_cast<unsigned int>(intValue));
    std::string description = "{" + m_GetIdentifiers() + Item("key", key) + Item("value", value);
    description += "zol_error_type=;app_id=;app_name=;zol_duration=;zol_repetion=;";
    description += m_GetDefaultKpiDescription();
    ZOL_LOG(LOG_ERROR, "kpiDesc : %s", description.c_str());
    return description;
}

std::string TCNotifyManager::m_GetKpiDescription(long index) {
    if (m_pKpiManager == nullptr) {
        return "{}";
    }
    unsigned count = 0;
    std::vector<zol::ZOLPolicyMonitor> monitors;
    zol::TCInformationStorage::Instance()->GetZOLMonitorInformation(count, monitors);
    if (index < 0 || static_cast<unsigned long>(index) >= monitors.size()) {
        ZOL_LOG(LOG_ERROR, "no monitor at index %ld of %zu, nothing is sent", index, monitors.size());
        return "";
    }
    const zol::ZOLPolicyMonitor& monitor = monitors[static_cast<std::size_t>(index)];
    const auto number = [this](std::int32_t value) {
        return m_ConvertToString(static_cast<unsigned int>(value));
    };
    std::string description = "{" + m_GetIdentifiers();
    description += Item("zol_error_type", number(monitor.type));
    description += Item("app_id", monitor.id) + Item("app_name", monitor.name);
    description += Item("zol_duration", number(monitor.duration));
    description += Item("zol_repetion", number(monitor.repetition));
    description += "key=;value=;" + m_GetDefaultKpiDescription();
    ZOL_LOG(LOG_ERROR, "kpiDesc : %s", description.c_str());
    return description;
}

std::string TCNotifyManager::m_GetDefaultKpiDescription() const {
    std::string items;
    for (const char* item : kDefaultItems) {
        items += item;
    }
    return items;
}

std::string TCNotifyManager::m_ConvertToString(unsigned int number) const {
    try {
        return boost::lexical_cast<std::string>(number);
    } catch (const boost::bad_lexical_cast&) {
        ZOL_LOG(LOG_ERROR, "bad_lexical_cast");
        return "0";
    }
}

void TCNotifyManager::m_InitVconfKey() {
    if (vconf_set_str(KEY_SEND_PATH, "") != 0) {
        ZOL_LOG(LOG_ERROR, "vconf_set_str fail");
    }
}

void TCNotifyManager::m_RegisterVconfKey() {
    m_isWatching = vconf_notify_key_changed(KEY_SEND_PATH, m_vconfCb, this) >= 0;
    ZOL_LOG(LOG_ERROR, "%s", m_isWatching ? "success" : "fail");
}

void TCNotifyManager::m_UpdateVconfKey(const char* path) {
    const std::lock_guard<std::mutex> lock(s_publishMutex);
    m_UpdateVconfKeyLocked(path);
}

void TCNotifyManager::m_UpdateVconfKeyLocked(const char* path) {
    const VconfString value = GetVconfString(KEY_SEND_PATH);
    if (value == nullptr) {
        ZOL_LOG(LOG_ERROR, "vconf_get_str fail");
        return;
    }
    if (*value != '\0') {
        ZOL_LOG(LOG_ERROR, "vconfkey is not empty, add current path to list");
        m_notiPathList.emplace_back(path);
        return;
    }
    if (vconf_set_str(KEY_SEND_PATH, path) != 0) {
        ZOL_LOG(LOG_ERROR, "vconf_set_str fail");
    } else {
        ZOL_LOG(LOG_ERROR, "vconf_set_str success");
    }
}

void TCNotifyManager::m_vconfCb(keynode_t* node, void* userData) {
    if (userData == nullptr || node == nullptr || node->keyname == nullptr) {
        return;
    }
    try {
        static_cast<TCNotifyManager*>(userData)->m_OnKeyChanged();
    } catch (...) {
        zol::LogCallbackException(kLogModule);
    }
}

void TCNotifyManager::m_OnKeyChanged() {
    // Read anew: the value that the notification carries may be an older one.
    const VconfString value = GetVconfString(KEY_SEND_PATH);
    if (value == nullptr) {
        ZOL_LOG(LOG_ERROR, "vconf_get_str fail");
        return;
    }
    if (*value == '\0') {
        ZOL_LOG(LOG_ERROR, "vconfkey is empty");
        m_NotifyFromList();
    }
}

void TCNotifyManager::m_NotifyFromList() {
    const std::lock_guard<std::mutex> lock(s_publishMutex);
    if (m_notiPathList.empty()) {
        ZOL_LOG(LOG_ERROR, "m_notiPathList is empty, return");
        return;
    }
    // When the key was taken again meanwhile the path goes back to the end of the list.
    const std::string path = m_notiPathList.front();
    m_UpdateVconfKeyLocked(path.c_str());
    m_notiPathList.pop_front();
}

void TCNotifyManager::m_CheckVconfKey() {
    for (int remaining = kCollectorWaitSeconds; remaining > 0; --remaining) {
        const VconfString value = GetVconfString(KEY_SEND_PATH);
        if (value == nullptr) {
            ZOL_LOG(LOG_ERROR, "vconf_get_str fail");
            return;
        }
        if (*value == '\0') {
            ZOL_LOG(LOG_ERROR, "vconfkey is empty, exit");
            return;
        }
        ZOL_LOG(LOG_ERROR, "vconfkey is not empty, waiting[%d]", remaining);
        CCTime::Sleep(kSecondMs);
    }
}

#include "ZOLPolicyManager.h"

#include <algorithm>
#include <boost/thread/exceptions.hpp>
#include <cinttypes>
#include <optional>
#include <system_error>
#include <utility>

#include "ExceptionWall.h"
#include "IControl.h"
#include "IDbus.h"
#include "Log.h"
#include "PolicyFile.h"
#include "PolicyFlag.h"
#include "PolicyObserver.h"
#include "PolicyTasks.h"
#include "PolicyValidation.h"
#include "PolicyWords.h"
#include "TCDirsManager.h"
#include "TSFileSystem.h"
#include "ZOLCVLogger.h"
#include "ZOLInformationStorage.h"
#include "ZOLNotifyManager.h"
#include "ZOLPolicyParser.h"
#include "platform_clock.h"

namespace zol {
namespace {

constexpr const char* kLogModule = "zol::TCPolicyManager";

constexpr int kNoTasks = 0;
constexpr int kStartTasks = 1;
constexpr int kWaitForever = -1;

/// A set has a thread and the memory of a queue for each of its tasks.
constexpr std::size_t kMaxTaskSets = 8;

void KeepInStorage(ZOLPolicy policy) {
    TCInformationStorage* storage = TCInformationStorage::Instance();
    const auto count = static_cast<unsigned>(policy.numOfZol);
    storage->SetZOLMonitorInformation(count, std::move(policy.vconfMonitors));
    storage->SetZOLMonitorInformation(count, std::move(policy.policyMonitors));
}

/// Keeps the valid items in the storage; a line of `function` tells of each other one. @return how many are
/// kept
template <class Item>
unsigned KeepValid(std::vector<Item> items, bool (*isValid)(const Item&), const char* function) {
    // In place: the items of a long policy are most of what the daemon has.
    auto kept = items.begin();
    for (auto item = kept; item != items.end(); ++item) {
        if (isValid(*item)) {
            std::iter_swap(kept++, item);
        } else {
            WriteLog(LOG_ERROR, kLogModule, __FILE__, function, __LINE__, "removed");
        }
    }
    items.erase(kept, items.end());
    const auto count = static_cast<unsigned>(items.size());
    TCInformationStorage::Instance()->SetZOLMonitorInformation(count, std::move(items));
    return count;
}

}  // namespace

TCPolicyManager::TCPolicyManager(TCShiftedClock& clock, IDbusServer* server, TCCVLogger* logger)
    : m_server(server), m_scheduler([this] { RemovePolicy(); }, clock), m_logger(logger) {
    try {
        TCDirsManager::Initialize();
    } catch (const boost::thread_interrupted&) {
        ZOL_LOG(LOG_ERROR, "TCDirsManager::Initialize interrupted");
    }
    m_SetCorvelPolicy(false);
    ReloadSchedule();
    m_LogCurrentPolicy();
}

TCPolicyManager::~TCPolicyManager() {
    // The sets end one after the other: each with a time of its own would take as often as long.
    const std::uint64_t end = platform_clock_steady_ns() + TCNotifyManager::kLastReportsNs;
    for (const std::unique_ptr<TCPolicyTasks>& set : m_tasks) {
        set->ReportUntil(end);
    }
}

void TCPolicyManager::ReloadSchedule() {
    if (m_logger != nullptr) {
        m_logger->LogVolumeLevel();
    }
    ZOLPolicy policy;
    std::string digest;
    m_isReloadDue = false;
    if (m_Load(policy, m_isReloadDue, &digest)) {
        m_ApplyStored(std::move(policy), digest);
        return;
    }
    m_CreatePolicyThread(kNoTasks);
    m_SetCorvelPolicy(false);
    if (m_isReloadDue) {
        ZOL_LOG(LOG_ERROR, "the stored policy cannot be read: trying again until it can");
        m_RetryLater();
    }
}

void TCPolicyManager::m_ReadAgain() {
    ZOLPolicy policy;
    bool mayDoBetterLater = false;
    std::string digest;
    if (m_Load(policy, mayDoBetterLater, &digest)) {
        m_ApplyStored(std::move(policy), digest);
    }
    // Last: what throws on its way is tried again.
    m_isReloadDue = mayDoBetterLater;
}

void TCPolicyManager::m_ApplyStored(ZOLPolicy policy, const std::string& digest) {
    m_UpdateScheduler(policy, false);
    ZOL_LOG(LOG_ERROR, "Set policy information.");
    if (m_GetCorvelPolicy()) {
        ZOL_LOG(LOG_ERROR, "Monitoring is already running.");
        return;
    }
    KeepInStorage(std::move(policy));
    if (m_CreatePolicyThread(kStartTasks)) {
        m_runningDigest = digest;
    }
}

bool TCPolicyManager::UpdatePolicy(const std::string& xml) {
    ZOL_LOG(LOG_ERROR, "Policy update");
    m_outcome = EOutcome::REFUSED;
    const bool isAccepted = m_Update(xml);
    m_TellChange();
    return isAccepted;
}

bool TCPolicyManager::m_Update(const std::string& xml) {
    ZOLPolicy policy;
    bool isAccepted = false;
    bool isApplied = false;
    if (!TCPolicyParser().Parse(xml, policy)) {
        ZOL_LOG(LOG_ERROR, "Error occurred while parsing policy, policy update failed");
    } else if (policy.vconfMonitors.empty()) {
        ZOL_LOG(LOG_DEBUG, "Policy contains commands only, old policy should be left intact");
        isAccepted = true;
        m_outcome = EOutcome::NOTHING;
    } else if (!m_Store(xml)) {
        ZOL_LOG(LOG_ERROR, "Something went wrong with storing of policy");
    } else {
        ZOL_LOG(LOG_ERROR, "Update policy information.");
        m_outcome = EOutcome::STORED;
        if (m_GetCorvelPolicy()) {
            ZOL_LOG(LOG_ERROR, "Monitoring is already running.");
            return true;
        }
        if (m_CountSets() >= kMaxTaskSets) {
            ZOL_LOG(LOG_ERROR, "%zu sets of tasks run already, the policy is applied at the next start",
                    kMaxTaskSets);
            return true;
        }
        m_isReloadDue = false;
        m_UpdateScheduler(policy, true);
        TCInformationStorage::Instance()->SetPolicyVersion(policy.version);
        KeepInStorage(std::move(policy));
        const bool isWatched = m_CreatePolicyThread(kStartTasks);
        m_outcome = isWatched ? EOutcome::RUNNING : EOutcome::NOTHING;
        m_runningDigest = isWatched ? DigestOf(xml) : m_runningDigest;
        isApplied = true;
    }
    if (!isApplied) {
        m_isFlagWaiting = false;
        m_SetCorvelPolicy(false);
    }
    if (!kPowerOnPrepared.Set(false)) {
        ZOL_LOG(LOG_ERROR, "Unable to set %s", kPowerOnPrepared.key);
    }
    return isApplied || isAccepted;
}

bool TCPolicyManager::LoadPolicy(ZOLPolicy& policy) {
    bool mayDoBetterLater = false;
    return m_Load(policy, mayDoBetterLater, nullptr);
}

bool TCPolicyManager::m_Load(ZOLPolicy& policy, bool& mayDoBetterLater, std::string* digest) {
    const std::string path = TCDirsManager::GetPolicyXmlPath();
    const TSPolicyRead read = ReadPolicyFile(path);
    if (read.open == std::errc::no_such_file_or_directory || read.open == std::errc::not_a_directory) {
        ZOL_LOG(LOG_DEBUG, "Policy %s does not exist", path.c_str());
        return false;
    }
    if (read.open) {
        ZOL_LOG(LOG_DEBUG, "Unable to open policy %s, errno: %d, message: %s", path.c_str(),
                read.open.value(), read.open.message().c_str());
        mayDoBetterLater = IsPassing(read.open);
        return false;
    }
    if (read.size > static_cast<std::int64_t>(kMaxPolicyBytes)) {
        ZOL_LOG(LOG_ERROR, "Policy %s of %" PRId64 " bytes refused, at most %zu are read", path.c_str(),
                read.size, kMaxPolicyBytes);
        return false;
    }
    if (static_cast<std::int64_t>(read.text.size()) < read.size) {
        ZOL_LOG(LOG_DEBUG, "Read size %d expected size %zu", static_cast<int>(read.text.size()),
                static_cast<std::size_t>(read.size));
        mayDoBetterLater = true;
        return false;
    }
    if (digest != nullptr) {
        *digest = DigestOf(read.text);
    }
    const std::optional<EPolicyRefusal> refusal = TCPolicyParser().FindRefusal(read.text, policy);
    mayDoBetterLater = refusal == EPolicyRefusal::NO_MEMORY;
    return !refusal;
}

bool TCPolicyManager::m_Store(const std::string& xml) {
    ZOL_LOG(LOG_DEBUG, "Storing policy");
    const std::string path = TCDirsManager::GetPolicyXmlPath();
    const TSPolicyWrite write = WritePolicyFile(path, xml);
    if (write.open) {
        ZOL_LOG(LOG_ERROR, "Unable to create file %s, errno %d", path.c_str(), write.open.value());
        return false;
    }
    if (write.sync) {
        ZOL_LOG(LOG_ERROR, "Could not sync file: %s", write.sync.message().c_str());
    }
    if (write.close) {
        ZOL_LOG(LOG_ERROR, "Could not close file: %s", write.close.message().c_str());
    }
    const bool isWhole = write.written == xml.size();
    if (!isWhole) {
        ZOL_LOG(LOG_ERROR, "Written policy size differs from expected, written: %d, expected: %zu",
                static_cast<int>(write.written), xml.size());
    } else {
        ZOL_LOG(LOG_DEBUG, "Policy written, size: %d", static_cast<int>(write.written));
    }
    if (write.replace) {
        ZOL_LOG(LOG_ERROR, "Unable to replace file %s, errno %d", path.c_str(), write.replace.value());
    }
    return isWhole && !write.sync && !write.close && !write.replace;
}

void TCPolicyManager::m_UpdateScheduler(const ZOLPolicy& policy, bool isNewPolicy) {
    const TSEventTime expiry{TIME_BASE_START, static_cast<std::int64_t>(policy.expiredTime)};
    m_scheduler.SetSchedule({{SCHEDULE_EVENT_DISABLE, expiry}}, isNewPolicy);
}

bool TCPolicyManager::m_CreatePolicyThread(int start) {
    if (start != kStartTasks) {
        return false;
    }
    TCInformationStorage* storage = TCInformationStorage::Instance();
    unsigned count = 0;
    std::vector<ZOLVconfMonitor> vconfItems;
    std::vector<ZOLPolicyMonitor> monitorItems;
    storage->GetZOLMonitorInformation(count, vconfItems);
    storage->GetZOLMonitorInformation(count, monitorItems);
    const std::size_t given = vconfItems.size() + monitorItems.size();
    const unsigned vconfCount = m_RemoveInvalidVconfPolicy(std::move(vconfItems));
    const unsigned monitorCount = m_RemoveInvalidMonitorPolicy(std::move(monitorItems));

    const unsigned totalCount = vconfCount + monitorCount;
    m_dropped = static_cast<std::uint32_t>(given - totalCount);
    ZOL_LOG(LOG_ERROR, "vconfPolicyCount[%d]", static_cast<int>(vconfCount));
    ZOL_LOG(LOG_ERROR, "monitorList[%d]", static_cast<int>(monitorCount));
    ZOL_LOG(LOG_ERROR, "totalCount[%d]", static_cast<int>(totalCount));
    m_tasks.resize(m_CountSets());
    m_isSetUnfinished = false;
    if (totalCount == 0) {
        ZOL_LOG(LOG_ERROR, "policy_monitorCnt is zero");
        m_SetCorvelPolicy(false);
        return false;
    }
    m_tasks.push_back(std::make_unique<TCPolicyTasks>(storage->GetVconfItems(), monitorCount > 0));
    m_isFlagWaiting = true;
    m_WatchPolicy();
    if (m_isSetUnfinished) {
        ZOL_LOG(LOG_ERROR, "not all of the policy is watched: trying again until it is");
    }
    return true;
}

std::size_t TCPolicyManager::m_CountSets() const {
    const bool isLastIdle = m_isSetUnfinished && !m_tasks.back()->IsAnythingRunning();
    return m_tasks.size() - (isLastIdle ? 1 : 0);
}

void TCPolicyManager::m_WatchPolicy() {
    // What throws is tried again like what is refused.
    CatchAll(kLogModule, [this] { m_StartTasks(); });
    m_isSetUnfinished = !m_tasks.back()->IsWatchingAll();
    if (m_isSetUnfinished) {
        m_RetryLater();
    }
}

void TCPolicyManager::m_StartTasks() {
    TCPolicyTasks& tasks = *m_tasks.back();
    if (!tasks.StartNotify()) {
        ZOL_LOG(LOG_ERROR, "pNotify is NULL or failed to create");
    } else if (!tasks.StartChecker()) {
        ZOL_LOG(LOG_ERROR, "pVconfMonitor is NULL or failed to create");
    } else if (!tasks.StartMonitors()) {
        ZOL_LOG(LOG_ERROR, "pMonitor is NULL or failed to create");
    } else if (std::exchange(m_isFlagWaiting, false)) {
        m_SetCorvelPolicy(true);
    }
}

unsigned TCPolicyManager::m_RemoveInvalidVconfPolicy(std::vector<ZOLVconfMonitor> items) {
    return KeepValid(std::move(items), m_CheckThisVconfPolicy, __func__);
}

unsigned TCPolicyManager::m_RemoveInvalidMonitorPolicy(std::vector<ZOLPolicyMonitor> items) {
    return KeepValid(std::move(items), m_CheckThisMonitorPolicy, __func__);
}

bool TCPolicyManager::m_CheckThisVconfPolicy(const ZOLVconfMonitor& item) {
    if (CheckVconfPolicy(item, m_GetCondition(item.condition), m_GetValueType(item.type)) !=
        EPolicyFault::NONE) {
        return false;
    }
    ZOL_LOG(LOG_ERROR, "bye");
    return true;
}

bool TCPolicyManager::m_CheckThisMonitorPolicy(const ZOLPolicyMonitor& item) {
    switch (CheckMonitorPolicy(item)) {
        case EPolicyFault::NONE:
            break;
        case EPolicyFault::APP_INSTALL_METHOD:
            ZOL_LOG(LOG_ERROR, "APP_INSTALL, method is not valid [%d]", item.method);
            return false;
        case EPolicyFault::APP_LAUNCH_METHOD:
            ZOL_LOG(LOG_ERROR, "APP_LAUNCH, method is not valid [%d]", item.method);
            return false;
        case EPolicyFault::BT_PAIR_METHOD:
            ZOL_LOG(LOG_ERROR, "ZOL_BT_PAIR, method is not valid [%d]", item.method);
            return false;
        // Launch monitors are reported under the same words.
        case EPolicyFault::NO_ID:
            ZOL_LOG(LOG_ERROR, "APP_INSTALL, id is null or empty.");
            return false;
        case EPolicyFault::NO_NAME:
            ZOL_LOG(LOG_ERROR, "APP_INSTALL, name is null or empty.");
            return false;
        default:
            ZOL_LOG(LOG_ERROR, "MonitoringType is not valid [%d]", item.type);
            return false;
    }
    ZOL_LOG(LOG_INFO, "%s", "");
    ZOL_LOG(LOG_INFO, "type : %d", item.type);
    ZOL_LOG(LOG_INFO, "Id : %s", item.id.c_str());
    ZOL_LOG(LOG_INFO, "Name : %s", item.name.c_str());
    ZOL_LOG(LOG_INFO, "method : %d", item.method);
    ZOL_LOG(LOG_INFO, "duration : %d", item.duration);
    ZOL_LOG(LOG_INFO, "reptition : %d", item.repetition);
    ZOL_LOG(LOG_INFO, "%s", "");
    return true;
}

std::int32_t TCPolicyManager::m_GetCondition(const std::string& word) {
    return CodeOf(kConditionWords, word);
}

std::int32_t TCPolicyManager::m_GetValueType(const std::string& word) {
    return CodeOf(kValueTypeWords, word);
}

bool TCPolicyManager::m_GetCorvelPolicy() const {
    if (m_isFlagUnwritten) {
        return *m_meantRunning;
    }
    const std::optional<bool> isRunning = kMonitoringRuns.Get();
    if (!isRunning) {
        ZOL_LOG(LOG_ERROR, "vconf_get_bool(%s) failed", kMonitoringRuns.key);
    }
    return isRunning.value_or(m_meantRunning.value_or(true));
}

void TCPolicyManager::m_SetCorvelPolicy(bool isRunning) {
    m_meantRunning = isRunning;
    m_isFlagUnwritten = !kMonitoringRuns.Set(isRunning);
    if (m_isFlagUnwritten) {
        ZOL_LOG(LOG_ERROR, "vconf_set_bool(%s) failed\n", kMonitoringRuns.key);
        m_RetryLater();
    } else {
        ZOL_LOG(LOG_ERROR, "vconf_set_bool(%s) : %d sucessful\n", kMonitoringRuns.key, isRunning ? 1 : 0);
    }
}

void TCPolicyManager::m_RetryLater() {
    if (m_retry == nullptr) {
        m_retry = base::StartTimer(nullptr, m_backoff.Next(), [this] { m_Retry(); });
    }
}

void TCPolicyManager::m_Retry() {
    m_retry.reset();
    if (m_isFlagUnwritten) {
        m_SetCorvelPolicy(*m_meantRunning);
    }
    if (m_isReloadDue) {
        CatchAll(kLogModule, [this] { m_ReadAgain(); });
    }
    if (m_isReloadDue) {
        m_RetryLater();
    } else if (m_isSetUnfinished) {
        m_WatchPolicy();
        if (!m_isSetUnfinished) {
            ZOL_LOG(LOG_ERROR, "all of the policy is watched now");
        }
    }
    if (m_retry == nullptr) {
        m_backoff.Reset();
    }
    m_TellChange();
}

void TCPolicyManager::m_TellChange() {
    if (m_changed) {
        CatchAll(kLogModule, m_changed);
    }
}

void TCPolicyManager::m_LogCurrentPolicy() {
    ZOLPolicy policy;
    if (!LoadPolicy(policy)) {
        return;
    }
    ZOL_LOG(LOG_ERROR, "Current policy:");
    ZOL_LOG(LOG_ERROR, "monitorInfo cnt = %d", policy.numOfZol);
    for (const ZOLVconfMonitor& item : policy.vconfMonitors) {
        ZOL_LOG(LOG_ERROR,
                "key[%s], condition[%s], type[%s], intValue[%d], strValue[%s], greater[%d], less[%d]",
                item.key.c_str(), item.condition.c_str(), item.type.c_str(), item.intValue,
                item.strValue.c_str(), item.greater, item.less);
    }
}

bool TCPolicyManager::IsPolicyExists() {
    if (TSFileSystem::Exists(TCDirsManager::GetPolicyXmlPath())) {
        ZOL_LOG(LOG_ERROR, "policy file exists !!!");
        return true;
    }
    ZOL_LOG(LOG_DEBUG, "Policy files does not exists");
    return false;
}

void TCPolicyManager::RemovePolicy() {
    ZOL_LOG(LOG_ERROR, "Removing policy");
}

void TCPolicyManager::RemoveExpiredPolicy() {
    if (TSFileSystem::Exists(TCDirsManager::GetPolicyXmlPath())) {
        ZOL_LOG(LOG_ERROR, "need to check ExpiredPolicy !!!");
    }
}

TCScheduler& TCPolicyManager::GetScheduler() {
    return m_scheduler;
}

void TCPolicyManager::PreparePowerOn(bool check) {
    ZOL_LOG(LOG_DEBUG, "Preparing power on");
    // With `check` the line follows the write, without it precedes it.
    const bool wasPrepared = check && kPowerOnPrepared.Get().value_or(false);
    if (!check) {
        ZOL_LOG(LOG_DEBUG, "Power on prepared");
    }
    if (!kPowerOnPrepared.Set(!check)) {
        ZOL_LOG(LOG_ERROR, "Unable to set %s", kPowerOnPrepared.key);
    }
    if (wasPrepared) {
        ZOL_LOG(LOG_DEBUG, "Power on already prepared");
    } else if (check) {
        ZOL_LOG(LOG_DEBUG, "Power on prepared");
    }
}

bool TCPolicyManager::NotifyPowerOff() {
    if (m_server == nullptr) {
        ZOL_LOG(LOG_DEBUG, "Dbus server is null!");
        return false;
    }
    if (m_server->SendNotification(NOTIFICATION_POWER_OFF, kWaitForever) <= 0) {
        ZOL_LOG(LOG_DEBUG, "No application responded to power off notification!");
        return false;
    }
    return true;
}

}  // namespace zol

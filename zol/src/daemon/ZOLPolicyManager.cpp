#include "ZOLPolicyManager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <boost/filesystem/operations.hpp>
#include <boost/thread/exceptions.hpp>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <utility>

#include "IControl.h"
#include "IDbus.h"
#include "Log.h"
#include "PolicyValidation.h"
#include "PolicyWords.h"
#include "ReplacementFile.h"
#include "TCDirsManager.h"
#include "ZOLCVLogger.h"
#include "ZOLInformationStorage.h"
#include "ZOLMonitorManager.h"
#include "ZOLNotifyManager.h"
#include "ZOLPolicyParser.h"
#include "ZOLVconfChecker.h"
#include "device_path.h"
#include "vconf.h"

namespace zol {
namespace {

constexpr const char* kLogModule = "zol::TCPolicyManager";

// The account that the platform's policy service reads the file under.
constexpr uid_t kPolicyUser = 951;
constexpr gid_t kPolicyGroup = 951;
constexpr mode_t kPolicyMode = 0640;

constexpr int kNoTasks = 0;
constexpr int kStartTasks = 1;
constexpr int kWaitForever = -1;

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, CloseFile>;

std::string ErrorText(int error) {
    std::array<char, 256> buffer;
    return strerror_r(error, buffer.data(), buffer.size());
}

bool PolicyFileExists(const std::string& path) {
    boost::system::error_code error;
    return boost::filesystem::exists(DevicePath(path), error);
}

// A folder opens well for reading, and a pipe would block: only a regular file is a policy.
FilePtr OpenPolicy(const std::string& path) {
    FilePtr file;
    const int descriptor = open(DevicePath(path).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat status = {};
    if (descriptor >= 0 && fstat(descriptor, &status) == 0) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        file.reset(S_ISREG(status.st_mode) ? fdopen(descriptor, "r") : nullptr);
    }
    const int error = errno;
    if (file == nullptr) {
        ZOL_LOG(LOG_DEBUG, "Unable to open policy %s, errno: %d, message: %s", path.c_str(), error,
                ErrorText(error).c_str());
        if (descriptor >= 0) {
            close(descriptor);
        }
    }
    return file;
}

bool ReadPolicy(const std::string& path, std::string& text) {
    const FilePtr file = OpenPolicy(path);
    if (file == nullptr) {
        return false;
    }
    std::fseek(file.get(), 0, SEEK_END);
    const std::int64_t size = ftello(file.get());
    std::rewind(file.get());
    if (size < 0 || size > static_cast<std::int64_t>(kMaxPolicyBytes)) {
        ZOL_LOG(LOG_ERROR, "Policy %s of %" PRId64 " bytes refused, at most %zu are read", path.c_str(), size,
                kMaxPolicyBytes);
        return false;
    }
    text.resize(static_cast<std::size_t>(size));
    const std::size_t count = std::fread(text.data(), 1, text.size(), file.get());
    if (count < text.size()) {
        ZOL_LOG(LOG_DEBUG, "Read size %d expected size %zu", static_cast<int>(count), text.size());
        return false;
    }
    return true;
}

}  // namespace

/// What watches one policy. Those that report go before the one they report to.
struct TCPolicyManager::TSPolicyTasks {
    std::unique_ptr<TCNotifyManager> notify;
    std::unique_ptr<TCMonitorManager> monitors;
    std::unique_ptr<TCVconfChecker> checker;
};

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

TCPolicyManager::~TCPolicyManager() = default;

void TCPolicyManager::ReloadSchedule() {
    if (m_logger != nullptr) {
        m_logger->LogVolumeLevel();
    }
    ZOLPolicy policy;
    if (!LoadPolicy(policy)) {
        m_CreatePolicyThread(kNoTasks);
        m_SetCorvelPolicy(false);
        return;
    }
    m_UpdateScheduler(policy, false);
    ZOL_LOG(LOG_ERROR, "Set policy information.");
    if (m_GetCorvelPolicy()) {
        ZOL_LOG(LOG_ERROR, "Monitoring is already running.");
        return;
    }
    TCInformationStorage* storage = TCInformationStorage::Instance();
    const auto count = static_cast<unsigned>(policy.numOfZol);
    storage->SetZOLMonitorInformation(count, policy.vconfMonitors);
    storage->SetZOLMonitorInformation(count, policy.policyMonitors);
    m_CreatePolicyThread(kStartTasks);
}

bool TCPolicyManager::UpdatePolicy(const std::string& xml) {
    ZOL_LOG(LOG_ERROR, "Policy update");
    ZOLPolicy policy;
    bool isAccepted = false;
    if (!TCPolicyParser().Parse(xml, policy)) {
        ZOL_LOG(LOG_ERROR, "Error occurred while parsing policy, policy update failed");
    } else if (policy.vconfMonitors.empty()) {
        ZOL_LOG(LOG_DEBUG, "Policy contains commands only, old policy should be left intact");
        isAccepted = true;
    } else if (!m_Store(xml)) {
        ZOL_LOG(LOG_ERROR, "Something went wrong with storing of policy");
    } else {
        return m_ApplyUpdate(policy);
    }
    m_SetCorvelPolicy(false);
    m_SetPowerOnPrepared(false);
    return isAccepted;
}

bool TCPolicyManager::m_ApplyUpdate(const ZOLPolicy& policy) {
    ZOL_LOG(LOG_ERROR, "Update policy information.");
    if (m_GetCorvelPolicy()) {
        ZOL_LOG(LOG_ERROR, "Monitoring is already running.");
        return true;
    }
    m_UpdateScheduler(policy, true);
    TCInformationStorage* storage = TCInformationStorage::Instance();
    const auto count = static_cast<unsigned>(policy.numOfZol);
    storage->SetPolicyVersion(policy.version);
    storage->SetZOLMonitorInformation(count, policy.vconfMonitors);
    storage->SetZOLMonitorInformation(count, policy.policyMonitors);
    m_CreatePolicyThread(kStartTasks);
    m_SetPowerOnPrepared(false);
    return true;
}

bool TCPolicyManager::LoadPolicy(ZOLPolicy& policy) {
    const std::string path = TCDirsManager::GetPolicyXmlPath();
    if (!PolicyFileExists(path)) {
        ZOL_LOG(LOG_DEBUG, "Policy %s does not exist", path.c_str());
        return false;
    }
    std::string text;
    return ReadPolicy(path, text) && TCPolicyParser().Parse(text, policy);
}

bool TCPolicyManager::m_Store(const std::string& xml) {
    ZOL_LOG(LOG_DEBUG, "Storing policy");
    const std::string path = TCDirsManager::GetPolicyXmlPath();
    TCReplacementFile file(path);
    if (!file.Open(kPolicyMode)) {
        ZOL_LOG(LOG_ERROR, "Unable to create file %s, errno %d", path.c_str(), errno);
        return false;
    }
    bool isStored = true;
    const std::size_t written = file.Write(xml);
    file.SetOwner(kPolicyUser, kPolicyGroup);
    if (!file.Sync()) {
        ZOL_LOG(LOG_ERROR, "Could not sync file: %s", ErrorText(errno).c_str());
        isStored = false;
    }
    if (!file.Close()) {
        ZOL_LOG(LOG_ERROR, "Could not close file: %s", ErrorText(errno).c_str());
        isStored = false;
    }
    if (written != xml.size()) {
        ZOL_LOG(LOG_ERROR, "Written policy size differs from expected, written: %d, expected: %zu",
                static_cast<int>(written), xml.size());
        isStored = false;
    } else {
        ZOL_LOG(LOG_DEBUG, "Policy written, size: %d", static_cast<int>(written));
    }
    if (isStored && !file.Replace()) {
        ZOL_LOG(LOG_ERROR, "Unable to replace file %s, errno %d", path.c_str(), errno);
        isStored = false;
    }
    return isStored;
}

void TCPolicyManager::m_UpdateScheduler(const ZOLPolicy& policy, bool isNewPolicy) {
    const TSEventTime expiry{TIME_BASE_START, static_cast<std::int64_t>(policy.expiredTime)};
    m_scheduler.SetSchedule({{SCHEDULE_EVENT_DISABLE, expiry}}, isNewPolicy);
}

void TCPolicyManager::m_CreatePolicyThread(int start) {
    if (start != kStartTasks) {
        return;
    }
    TCInformationStorage* storage = TCInformationStorage::Instance();
    unsigned vconfCount = 0;
    unsigned monitorCount = 0;
    std::vector<ZOLVconfMonitor> vconfItems;
    std::vector<ZOLPolicyMonitor> monitorItems;
    storage->GetZOLMonitorInformation(vconfCount, vconfItems);
    storage->GetZOLMonitorInformation(monitorCount, monitorItems);
    m_RemoveInvalidVconfPolicy(vconfCount, vconfItems);
    m_RemoveInvalidMonitorPolicy(monitorCount, monitorItems);

    const unsigned totalCount = vconfCount + monitorCount;
    ZOL_LOG(LOG_ERROR, "vconfPolicyCount[%d]", static_cast<int>(vconfCount));
    ZOL_LOG(LOG_ERROR, "monitorList[%d]", static_cast<int>(monitorCount));
    ZOL_LOG(LOG_ERROR, "totalCount[%d]", static_cast<int>(totalCount));
    if (totalCount == 0) {
        ZOL_LOG(LOG_ERROR, "policy_monitorCnt is zero");
        m_SetCorvelPolicy(false);
        return;
    }
    if (m_CreateTasks(vconfItems, monitorCount > 0)) {
        m_SetCorvelPolicy(true);
    }
}

bool TCPolicyManager::m_CreateTasks(const std::vector<ZOLVconfMonitor>& vconfItems, bool hasMonitors) {
    auto notify = std::make_unique<TCNotifyManager>();
    if (!notify->Create()) {
        ZOL_LOG(LOG_ERROR, "pNotify is NULL or failed to create");
        return false;
    }
    m_tasks.push_back(std::make_unique<TSPolicyTasks>());
    TSPolicyTasks& tasks = *m_tasks.back();
    tasks.notify = std::move(notify);
    if (!vconfItems.empty()) {
        tasks.checker = std::make_unique<TCVconfChecker>(tasks.notify.get(), vconfItems);
        if (!tasks.checker->Create()) {
            ZOL_LOG(LOG_ERROR, "pVconfMonitor is NULL or failed to create");
            return false;
        }
        tasks.checker->CheckNow(vconfItems);
    }
    if (hasMonitors) {
        tasks.monitors = std::make_unique<TCMonitorManager>(tasks.notify.get());
        if (!tasks.monitors->Create()) {
            ZOL_LOG(LOG_ERROR, "pMonitor is NULL or failed to create");
            return false;
        }
        // What cannot start is logged; what started goes on.
        static_cast<void>(tasks.monitors->StartMonitoring());
    }
    return true;
}

void TCPolicyManager::m_RemoveInvalidVconfPolicy(unsigned& count, std::vector<ZOLVconfMonitor>& items) {
    std::vector<ZOLVconfMonitor> valid;
    for (ZOLVconfMonitor& item : items) {
        if (m_CheckThisVconfPolicy(item)) {
            valid.push_back(std::move(item));
        } else {
            ZOL_LOG(LOG_ERROR, "removed");
        }
    }
    items = std::move(valid);
    count = static_cast<unsigned>(items.size());
    TCInformationStorage::Instance()->SetZOLMonitorInformation(count, items);
}

void TCPolicyManager::m_RemoveInvalidMonitorPolicy(unsigned& count, std::vector<ZOLPolicyMonitor>& items) {
    std::vector<ZOLPolicyMonitor> valid;
    for (ZOLPolicyMonitor& item : items) {
        if (m_CheckThisMonitorPolicy(item)) {
            valid.push_back(std::move(item));
        } else {
            ZOL_LOG(LOG_ERROR, "removed");
        }
    }
    items = std::move(valid);
    count = static_cast<unsigned>(items.size());
    TCInformationStorage::Instance()->SetZOLMonitorInformation(count, items);
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

bool TCPolicyManager::m_GetCorvelPolicy() {
    int isRunning = 0;
    if (vconf_get_bool(KEY_MONITORING_RUNS, &isRunning) != 0) {
        ZOL_LOG(LOG_ERROR, "vconf_get_bool(%s) failed", KEY_MONITORING_RUNS);
        return true;
    }
    return isRunning != 0;
}

void TCPolicyManager::m_SetCorvelPolicy(bool isRunning) {
    if (vconf_set_bool(KEY_MONITORING_RUNS, isRunning ? 1 : 0) != 0) {
        ZOL_LOG(LOG_ERROR, "vconf_set_bool(%s) failed\n", KEY_MONITORING_RUNS);
    } else {
        ZOL_LOG(LOG_ERROR, "vconf_set_bool(%s) : %d sucessful\n", KEY_MONITORING_RUNS, isRunning ? 1 : 0);
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
    if (PolicyFileExists(TCDirsManager::GetPolicyXmlPath())) {
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
    if (PolicyFileExists(TCDirsManager::GetPolicyXmlPath())) {
        ZOL_LOG(LOG_ERROR, "need to check ExpiredPolicy !!!");
    }
}

TCScheduler& TCPolicyManager::GetScheduler() {
    return m_scheduler;
}

void TCPolicyManager::m_SetPowerOnPrepared(bool isPrepared) {
    if (vconf_set_bool(KEY_POWER_ON_PREPARED, isPrepared ? 1 : 0) != 0) {
        ZOL_LOG(LOG_ERROR, "Unable to set %s", KEY_POWER_ON_PREPARED);
    }
}

void TCPolicyManager::PreparePowerOn(bool check) {
    ZOL_LOG(LOG_DEBUG, "Preparing power on");
    if (!check) {
        ZOL_LOG(LOG_DEBUG, "Power on prepared");
        m_SetPowerOnPrepared(true);
        return;
    }
    int wasPrepared = 0;
    if (vconf_get_bool(KEY_POWER_ON_PREPARED, &wasPrepared) != 0) {
        wasPrepared = 0;
    }
    m_SetPowerOnPrepared(false);
    if (wasPrepared != 0) {
        ZOL_LOG(LOG_DEBUG, "Power on already prepared");
    } else {
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

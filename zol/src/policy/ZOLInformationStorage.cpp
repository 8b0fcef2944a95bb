#include "ZOLInformationStorage.h"

#include <utility>

#include "Log.h"
#include "vconf.h"

namespace zol {
namespace {

constexpr const char* kLogModule = "zol::TCInformationStorage";
constexpr const char* kPolicyVersionKey = "db/private/tvs-cv/policy_version";

using Lock = std::lock_guard<std::recursive_mutex>;

}  // namespace

std::recursive_mutex TCInformationStorage::m_mutex;
TCInformationStorage* TCInformationStorage::m_instance = nullptr;

TCInformationStorage* TCInformationStorage::Instance() {
    const Lock lock(m_mutex);
    if (m_instance == nullptr) {
        m_instance = new TCInformationStorage;
    }
    return m_instance;
}

void TCInformationStorage::Initialize(TCPolicyManager* manager, IDbusServer* server) {
    const Lock lock(m_mutex);
    m_policyManager = manager;
    m_server = server;
}

int TCInformationStorage::GetPolicyVersion() {
    const Lock lock(m_mutex);
    return m_policyVersion;
}

void TCInformationStorage::SetPolicyVersion(int version) {
    const Lock lock(m_mutex);
    m_policyVersion = version;
    if (vconf_set_int(kPolicyVersionKey, version) == -1) {
        ZOL_LOG(LOG_ERROR, "Unable to save policy version!");
    }
}

void TCInformationStorage::SetZOLMonitorInformation(unsigned count, std::vector<ZOLVconfMonitor> items) {
    const Lock lock(m_mutex);
    m_count = count;
    m_vconfMonitors = std::make_shared<const std::vector<ZOLVconfMonitor>>(std::move(items));
}

void TCInformationStorage::SetZOLMonitorInformation(unsigned count, std::vector<ZOLPolicyMonitor> items) {
    const Lock lock(m_mutex);
    m_count = count;
    m_policyMonitors = std::move(items);
}

void TCInformationStorage::GetZOLMonitorInformation(unsigned& count, std::vector<ZOLVconfMonitor>& items) {
    const Lock lock(m_mutex);
    count = m_count;
    items = *m_vconfMonitors;
}

SharedVconfItems TCInformationStorage::GetVconfItems() {
    const Lock lock(m_mutex);
    return m_vconfMonitors;
}

void TCInformationStorage::GetZOLMonitorInformation(unsigned& count, std::vector<ZOLPolicyMonitor>& items) {
    const Lock lock(m_mutex);
    count = m_count;
    items = m_policyMonitors;
}

void TCInformationStorage::GetZOLPolicyInformation(TSCurrentZOLPolicyInformation& out) {
    const Lock lock(m_mutex);
    out = {m_policyVersion, m_count, *m_vconfMonitors, m_policyMonitors};
}

void TCInformationStorage::ResetProcessInformation() {
    const Lock lock(m_mutex);
}

}  // namespace zol

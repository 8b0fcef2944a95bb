#pragma once
/// The current policy's item lists and version, for whoever in the process needs them.
#include <cstdint>
#include <mutex>
#include <vector>

#include "ZOLPolicy.h"

namespace zol {

class IDbusServer;
class TCPolicyManager;

/// A copy of the whole storage, taken at one moment.
struct TSCurrentZOLPolicyInformation {
    std::int32_t policyVersion = -1;
    std::uint32_t count = 0;  ///< as given with whichever list was set last
    std::vector<ZOLVconfMonitor> vconfMonitors;
    std::vector<ZOLPolicyMonitor> policyMonitors;
};

/// Process-wide holder of the current policy's validated items. Any thread: one recursive mutex makes every
/// operation atomic, and lists are copied in and out, so nobody ever holds a reference into the storage.
///
/// One count serves both lists: each setter overwrites it, and both getters return the one set last.
class TCInformationStorage {
public:
    /// The only instance, made on first use and never destroyed. Not null.
    static TCInformationStorage* Instance();

    TCInformationStorage(const TCInformationStorage&) = delete;
    TCInformationStorage& operator=(const TCInformationStorage&) = delete;

    /// Binds the storage to the running daemon. Neither is owned; null unbinds.
    void Initialize(TCPolicyManager* manager, IDbusServer* server);

    /// Keeps the version and writes it to "db/private/tvs-cv/policy_version". A failed write is logged; the
    /// version kept here is the new one all the same.
    void SetPolicyVersion(int version);
    [[nodiscard]] int GetPolicyVersion();

    /// Replaces the vconf items and the count. The count is kept as given, whatever the list's length.
    void SetZOLMonitorInformation(unsigned count, std::vector<ZOLVconfMonitor> items);
    /// Replaces the behaviour monitors and the count. The count is kept as given.
    void SetZOLMonitorInformation(unsigned count, std::vector<ZOLPolicyMonitor> items);

    /// Copies the count and the vconf items out.
    void GetZOLMonitorInformation(unsigned& count, std::vector<ZOLVconfMonitor>& items);
    /// The vconf items without a copy.
    [[nodiscard]] SharedVconfItems GetVconfItems();
    /// Copies the count and the behaviour monitors out.
    void GetZOLMonitorInformation(unsigned& count, std::vector<ZOLPolicyMonitor>& items);

    /// Copies everything out in one step.
    void GetZOLPolicyInformation(TSCurrentZOLPolicyInformation& out);

    /// Waits until no operation is under way; changes nothing.
    void ResetProcessInformation();

protected:
    TCInformationStorage() = default;
    ~TCInformationStorage() = default;

private:
    // Guards the instance pointer and every member.
    static std::recursive_mutex m_mutex;
    static TCInformationStorage* m_instance;

    TCPolicyManager* m_policyManager = nullptr;
    IDbusServer* m_server = nullptr;
    std::int32_t m_policyVersion = -1;
    std::uint32_t m_count = 0;
    SharedVconfItems m_vconfMonitors = std::make_shared<std::vector<ZOLVconfMonitor>>();
    std::vector<ZOLPolicyMonitor> m_policyMonitors;
};

}  // namespace zol

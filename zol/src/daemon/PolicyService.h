#pragma once
/// What the D-Bus interface org.zol.Policy1 shows and does, on top of the policy manager.
#include <cstdint>
#include <string>
#include <vector>

#include "IPolicyService.h"
#include "base/subscription.h"

namespace zol {

class TCPolicyManager;
class TCPolicyTasks;

/// Serves the interface for as long as it lives, and tells of changes and hits. On the thread that dispatches
/// calls, which is the one that makes and destroys it.
class PolicyService final : public IPolicyService {
public:
    /// Both must outlive this object.
    PolicyService(IPolicyServer& server, TCPolicyManager& manager);
    ~PolicyService() override;
    PolicyService(const PolicyService&) = delete;
    PolicyService& operator=(const PolicyService&) = delete;

    TSPolicyAnswer SetPolicy(const std::string& document) override;
    std::vector<TSPolicyRemark> Check(const std::string& document) override;
    std::vector<TSPolicyRule> Explain(const std::string& key) override;
    TSPolicyState State() override;
    TSPolicyDigests Digests() override;

private:
    void m_NoteChange();
    void m_TellTimes(TSPolicyState& state) const;
    void m_TellStatus() const;

    IPolicyServer& m_server;
    TCPolicyManager& m_manager;
    const TCPolicyTasks* m_running = nullptr;  ///< the set that was the last one at the last change
    std::string m_runningDigest;               ///< of its document
    std::int64_t m_since = 0;                  ///< when it became so, in policy time
    base::Subscription m_hits;
};

}  // namespace zol

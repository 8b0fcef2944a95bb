#pragma once
/// The hits of the daemon that is played, with all that it says of them.
#include <map>
#include <string>
#include <vector>

#include "IDbus.h"
#include "IPolicyService.h"

namespace policytest {

struct Hit {
    zol::TSPolicyHit told;
    std::string kpi;                            ///< description of the KPI event
    std::map<std::string, std::string> header;  ///< of the report
};

/// Keeps a hit, together with the KPI event and the report that came before it on this thread. Any thread.
void KeepHit(const zol::TSPolicyHit& hit);

/// The IPC server of a daemon that nobody but a scenario calls: it keeps the hits that it is told of.
class HitServer final : public zol::IDbusServer, public zol::IPolicyServer {
public:
    /// Nobody is there to answer.
    int SendNotification(int /*code*/, int /*timeoutMs*/) override { return 0; }
    void CancelNotifications() override {}
    void ServePolicy(zol::IPolicyService* /*service*/) override {}
    void TellPolicyChange() override {}
    void TellPolicyHit(const zol::TSPolicyHit& hit) override { KeepHit(hit); }
};

/// Those that were kept since the last call, in their order. Any thread.
[[nodiscard]] std::vector<Hit> TakeHits();

}  // namespace policytest

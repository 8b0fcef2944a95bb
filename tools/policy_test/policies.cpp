#include "policies.h"

#include <algorithm>
#include <set>
#include <string>

#include "PolicyCheck.h"
#include "findings.h"
#include "vconf.h"

namespace policytest {
namespace {

int TypeOf(const Keys& keys, const std::string& key) {
    const auto found =
        std::find_if(keys.rbegin(), keys.rend(), [&key](const auto& each) { return each.first == key; });
    if (found == keys.rend() || std::holds_alternative<std::monostate>(found->second)) {
        return VCONF_TYPE_NONE;
    }
    return std::holds_alternative<int>(found->second)    ? VCONF_TYPE_INT
           : std::holds_alternative<bool>(found->second) ? VCONF_TYPE_BOOL
                                                         : VCONF_TYPE_STRING;
}

void Check(const PolicyText& policy, const Keys& keys, PolicyRemarks& remarks) {
    const auto typeOf = [&keys](const std::string& key) { return TypeOf(keys, key); };
    for (zol::TSPolicyFinding& finding : zol::CheckPolicy(*policy.xml, typeOf)) {
        finding.line += static_cast<unsigned>(policy.lineOffset);
        finding.column += static_cast<unsigned>(policy.columnOffset);
        remarks.lines.push_back(zolctl::LineOf(policy.file, finding.isError ? "error" : "warning", finding));
        remarks.hasErrors = remarks.hasErrors || finding.isError;
    }
}

}  // namespace

PolicyRemarks CheckPolicies(const Scenario& scenario) {
    PolicyRemarks remarks;
    if (scenario.policy) {
        Check(*scenario.policy, scenario.keys, remarks);
    }
    std::set<const std::string*> known;
    for (const Step& step : scenario.steps) {
        const auto* handOver = std::get_if<HandOver>(&step.action);
        if (handOver != nullptr && known.insert(handOver->policy.xml.get()).second) {
            Check(handOver->policy, {}, remarks);
        }
    }
    return remarks;
}

}  // namespace policytest

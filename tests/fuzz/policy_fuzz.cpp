/// Checks a policy, gives it to the daemon, looks at what it stored and applied, and starts it again.
#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "PolicyCheck.h"
#include "ZOLInformationStorage.h"
#include "ZOLPolicyManager.h"
#include "ZOLPolicyParser.h"
#include "ZOLShiftedClock.h"
#include "device_paths.h"
#include "fake_vconf.h"
#include "fakes.h"
#include "fuzz_target.h"

namespace {

using fuzz::Require;
using zol::TSCurrentZOLPolicyInformation;
using zol::ZOLPolicyMonitor;
using zol::ZOLVconfMonitor;

/// The rules of docs/policy-reference.md.
bool IsFit(const ZOLVconfMonitor& item) {
    const std::string& condition = item.condition;
    const bool isEquality = condition == "IS" || condition == "NOT";
    if (item.type == "STRING") {
        return isEquality && item.strValue != "null";
    }
    if (item.type != "INT") {
        return false;
    }
    if (condition == "BETWEEN") {
        return item.greater != -1 || item.less != -1;
    }
    return (isEquality || condition == "GREATER" || condition == "LESS") && item.intValue != -1;
}

bool IsFit(const ZOLPolicyMonitor& item) {
    const bool isNamed = !item.id.empty() && !item.name.empty();
    switch (item.type) {
        case 1:
            return item.method == 11 && isNamed;
        case 2:
            return item.method == 21 && isNamed;
        case 3:
            return item.method == 31 || item.method == 32;
        default:
            return false;
    }
}

bool operator==(const ZOLVconfMonitor& left, const ZOLVconfMonitor& right) {
    return left.key == right.key && left.condition == right.condition && left.intValue == right.intValue &&
           left.greater == right.greater && left.less == right.less && left.strValue == right.strValue &&
           left.type == right.type;
}

bool operator==(const ZOLPolicyMonitor& left, const ZOLPolicyMonitor& right) {
    return left.type == right.type && left.id == right.id && left.name == right.name &&
           left.method == right.method && left.duration == right.duration &&
           left.repetition == right.repetition && left.reserve1 == right.reserve1;
}

template <class Item>
bool Equal(const std::vector<Item>& left, const std::vector<Item>& right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](const Item& a, const Item& b) { return a == b; });
}

/// How often a tag is opened at most; declared entities may open it more often.
std::size_t Count(const std::string& text, std::string_view tag) {
    std::size_t count = 0;
    const auto same = [](char a, char b) { return (a | 0x20) == (b | 0x20); };
    for (auto at = text.begin(); at != text.end(); ++at) {
        at = std::search(at, text.end(), tag.begin(), tag.end(), same);
        if (at == text.end()) {
            break;
        }
        ++count;
    }
    return count;
}

TSCurrentZOLPolicyInformation Applied() {
    TSCurrentZOLPolicyInformation information;
    zol::TCInformationStorage::Instance()->GetZOLPolicyInformation(information);
    return information;
}

void Forget() {
    zol::TCInformationStorage::Instance()->SetZOLMonitorInformation(0, std::vector<ZOLVconfMonitor>());
    zol::TCInformationStorage::Instance()->SetZOLMonitorInformation(0, std::vector<ZOLPolicyMonitor>());
}

void CheckApplied(const TSCurrentZOLPolicyInformation& applied, const std::string& text) {
    for (const ZOLVconfMonitor& item : applied.vconfMonitors) {
        Require(IsFit(item), "a key that is watched");
    }
    for (const ZOLPolicyMonitor& item : applied.policyMonitors) {
        Require(IsFit(item), "a monitor that runs");
    }
    if (text.find("<!") == std::string::npos && text.find('\0') == std::string::npos) {
        Require(applied.vconfMonitors.size() <= Count(text, "<zols"), "the number of keys");
        Require(applied.policyMonitors.size() <= Count(text, "<monitor"), "the number of monitors");
    }
}

/// Another process gives watched keys the values of their rules, so that most of these are hits.
void ChangeKeys(const std::vector<ZOLVconfMonitor>& items) {
    constexpr std::size_t kMostChanges = 4;
    for (std::size_t index = 0; index < std::min(items.size(), kMostChanges); ++index) {
        if (items[index].type == "STRING") {
            fakes::vconf::SetString(items[index].key, items[index].strValue);
        } else {
            fakes::vconf::SetInt(items[index].key, items[index].intValue);
        }
    }
}

bool HasKind(const std::vector<zol::TSPolicyFinding>& findings, zol::EPolicyFinding kind) {
    return std::any_of(findings.begin(), findings.end(),
                       [kind](const zol::TSPolicyFinding& finding) { return finding.kind == kind; });
}

/// The check and the daemon agree on what is taken, what is dropped and whether anything is watched.
void CheckFindings(const std::string& text) {
    zol::ZOLPolicy policy;
    const bool isTaken = zol::TCPolicyParser().Parse(text, policy);
    const std::vector<zol::TSPolicyFinding> findings = zol::CheckPolicy(text);
    Require(isTaken != HasKind(findings, zol::EPolicyFinding::REFUSED), "a refusal that is found");
    if (isTaken) {
        const auto isFit = [](const auto& item) { return IsFit(item); };
        const bool areAllFit = std::all_of(policy.vconfMonitors.begin(), policy.vconfMonitors.end(), isFit) &&
                               std::all_of(policy.policyMonitors.begin(), policy.policyMonitors.end(), isFit);
        Require(areAllFit != HasKind(findings, zol::EPolicyFinding::DROPPED), "a dropped item that is found");
    }
    for (const zol::TSPolicyFinding& finding : findings) {
        Require(finding.line > 0 && finding.column > 0 && !finding.text.empty(), "a finding with its place");
    }
}

/// What a daemon that starts makes of the stored policy.
TSCurrentZOLPolicyInformation Restart(zol::TCShiftedClock& clock) {
    Forget();
    const zol::TCPolicyManager manager(clock, nullptr, nullptr);
    return Applied();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(data, data + size);
    fakes::Reset();
    Forget();
    CheckFindings(text);
    zol::TCShiftedClock clock;
    bool isAccepted = false;
    TSCurrentZOLPolicyInformation applied;
    {
        zol::TCPolicyManager manager(clock, nullptr, nullptr);
        isAccepted = manager.UpdatePolicy(text);
        applied = Applied();
        ChangeKeys(applied.vconfMonitors);
    }
    CheckApplied(applied, text);
    const std::string stored = fakes::ReadDeviceFile(ZOL_PATH_POLICY);
    Require(stored.empty() || (isAccepted && stored == text),
            "only an accepted policy is stored, as it came");
    Require(!stored.empty() || (applied.vconfMonitors.empty() && applied.policyMonitors.empty()),
            "only a stored policy is applied");
    const TSCurrentZOLPolicyInformation again = Restart(clock);
    Require(Equal(again.vconfMonitors, applied.vconfMonitors) &&
                Equal(again.policyMonitors, applied.policyMonitors),
            "the next start applies the same");
    return 0;
}

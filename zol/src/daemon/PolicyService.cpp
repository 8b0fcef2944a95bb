#include "PolicyService.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <utility>

#include "ExceptionWall.h"
#include "HandOverQueue.h"
#include "HitNews.h"
#include "PolicyCheck.h"
#include "PolicyExplanation.h"
#include "PolicyFile.h"
#include "PolicyTasks.h"
#include "TCDirsManager.h"
#include "ZOLControl.h"
#include "ZOLInformationStorage.h"
#include "ZOLPolicyManager.h"
#include "ZOLScheduler.h"
#include "ZOLShiftedClock.h"
#include "platform_clock.h"
#include "platform_services.h"
#include "service_watchdog.h"

namespace zol {
namespace {

constexpr const char* kLogModule = "zol::PolicyService";
/// Keeps the sum with any clock within 64 bits: some 30,000 million years.
constexpr std::uint64_t kLongestSeconds = 1000000000000000000;

const char* WordOf(TCPolicyManager::EOutcome outcome) {
    switch (outcome) {
        case TCPolicyManager::EOutcome::STORED:
            return "stored";
        case TCPolicyManager::EOutcome::NOTHING:
            return "nothing to watch";
        case TCPolicyManager::EOutcome::RUNNING:
            return "running";
        case TCPolicyManager::EOutcome::REFUSED:
            break;
    }
    return "refused";
}

std::vector<std::string> MissingServices() {
    std::vector<std::string> names;
    platform_services_missing(
        [](const char* name, void* data) {
            static_cast<std::vector<std::string>*>(data)->emplace_back(name);
        },
        &names);
    return names;
}

}  // namespace

PolicyService::PolicyService(IPolicyServer& server, TCPolicyManager& manager)
    : m_server(server),
      m_manager(manager),
      m_hits(HitNews::Listen([&server](const TSPolicyHit& hit) { server.TellPolicyHit(hit); })) {
    m_manager.SetChangeListener([this] {
        m_NoteChange();
        m_server.TellPolicyChange();
    });
    m_server.ServePolicy(this);
    CatchAll(kLogModule, [this] { m_NoteChange(); });
}

PolicyService::~PolicyService() {
    m_server.ServePolicy(nullptr);
    m_manager.SetChangeListener({});
}

void PolicyService::m_NoteChange() {
    const TCPolicyTasks* const running = m_manager.Sets().empty() ? nullptr : m_manager.Sets().back().get();
    if (running != m_running || m_runningDigest != m_manager.RunningDigest()) {
        m_since = m_manager.GetScheduler().GetClock().GetCurrentTime();
        m_running = running;
        m_runningDigest = m_manager.RunningDigest();
    }
    m_TellStatus();
}

/// As the wall clock stands now, which may have been set meanwhile. Policy time goes as fast as it does, in
/// standby, too, from another moment.
void PolicyService::m_TellTimes(TSPolicyState& state) const {
    platform_time_t now{};
    if (platform_clock_realtime(&now) != 0) {
        return;
    }
    TCScheduler& scheduler = m_manager.GetScheduler();
    state.since = now.seconds - (scheduler.GetClock().GetCurrentTime() - m_since);
    if (const std::optional<std::uint64_t> left = scheduler.GetTimeLeft()) {
        state.expires = now.seconds + static_cast<std::int64_t>(std::min(*left, kLongestSeconds));
    }
}

void PolicyService::m_TellStatus() const {
    std::string line = "No policy runs";
    if (!m_manager.Sets().empty()) {
        line = std::to_string(m_manager.Sets().back()->CountWatched()) + " rules watched, " +
               std::to_string(m_manager.Dropped()) + " dropped";
    }
    service_watchdog_status(line.c_str());
}

TSPolicyAnswer PolicyService::SetPolicy(const std::string& document) {
    TSPolicyAnswer answer;
    answer.remarks = Check(document);
    answer.isAccepted = TCControl(m_manager).SetPolicy(document);
    answer.outcome = WordOf(m_manager.LastOutcome());
    return answer;
}

std::vector<TSPolicyRemark> PolicyService::Check(const std::string& document) {
    std::vector<TSPolicyRemark> remarks;
    // Without the keys' types: the main thread does not ask a store for each of thousands of keys.
    for (TSPolicyFinding& finding : CheckPolicy(document)) {
        remarks.push_back({finding.line, finding.column, finding.isError, NameOf(finding.kind),
                           std::move(finding.text), std::move(finding.hint)});
    }
    return remarks;
}

std::vector<TSPolicyRule> PolicyService::Explain(const std::string& key) {
    std::vector<TSPolicyRule> rules;
    std::uint32_t set = 0;
    for (const std::unique_ptr<TCPolicyTasks>& tasks : m_manager.Sets()) {
        ExplainRules(*tasks, ++set, key, rules);
    }
    return rules;
}

TSPolicyState PolicyService::State() {
    TSPolicyState state;
    state.version = ZOL_VERSION;
    state.policyVersion = TCInformationStorage::Instance()->GetPolicyVersion();
    state.isMonitoring = m_manager.IsMonitoring();
    state.rulesDropped = m_manager.Dropped();
    if (!m_manager.Sets().empty()) {
        state.rulesWatched = static_cast<std::uint32_t>(m_manager.Sets().back()->CountWatched());
        m_TellTimes(state);
    }
    state.pathsWaiting = static_cast<std::uint32_t>(HandOverQueue::WaitingInAll());
    state.lastHit = HitNews::Last();
    state.missingServices = MissingServices();
    return state;
}

TSPolicyDigests PolicyService::Digests() {
    const TSPolicyRead read = ReadPolicyFile(TCDirsManager::GetPolicyXmlPath());
    const bool isThere = !read.open && static_cast<std::int64_t>(read.text.size()) == read.size;
    return {isThere ? DigestOf(read.text) : "", m_manager.RunningDigest()};
}

}  // namespace zol

#include "player.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "explanation.h"
#include "matching.h"
#include "values.h"

namespace policytest {
namespace {

/// More is no explanation.
constexpr std::size_t kMaxNotes = 20;
constexpr std::size_t kMaxRules = 50;

struct Failed {
    Failure failure;
};

/// What the action of a step is about, for a line.
std::string ObjectOf(const Action& action) {
    if (const auto* set = std::get_if<SetKeys>(&action)) {
        std::string text;
        for (const auto& [key, value] : set->keys) {
            text.append(text.empty() ? "" : ", ").append(key).append(" = ").append(FormatKeyValue(value));
        }
        return text;
    }
    if (const auto* connect = std::get_if<ConnectRemote>(&action)) {
        return connect->address;
    }
    if (const auto* install = std::get_if<InstallApp>(&action)) {
        return install->id;
    }
    if (const auto* pass = std::get_if<PassTime>(&action)) {
        return FormatLength(pass->time);
    }
    if (const auto* clock = std::get_if<SetClock>(&action)) {
        return FormatMoment(clock->seconds);
    }
    if (const auto* standby = std::get_if<StandBy>(&action)) {
        return FormatLength(standby->time);
    }
    const auto* restart = std::get_if<Restart>(&action);
    return restart != nullptr && restart->timeOff ? FormatLength(*restart->timeOff) : "";
}

/// What an event did to a count.
std::string Compared(const Device::Count& before, const Device::Count& now) {
    const bool isOtherPeriod = before.periodStart != now.periodStart;
    if (before.counted == now.counted && !isOtherPeriod) {
        return "; not counted, still " + std::to_string(now.counted) + " of " +
               std::to_string(now.repetition);
    }
    // A hit begins from nothing.
    const int counted = now.counted == 0 ? std::max(1, now.repetition) : now.counted;
    return "; counted, " + std::to_string(counted) + " of " + std::to_string(now.repetition) +
           (isOtherPeriod && before.counted > 0 ? " of another period" : "");
}

/// How much is said of a hit.
std::size_t DetailOf(const ExpectedHit& hit) {
    return (hit.value ? 1U : 0U) + (hit.at ? 1U : 0U) + (hit.report ? 1U : 0U) + hit.kpi.size() +
           hit.header.size();
}

}  // namespace

Player::Player(const Scenario& scenario, std::function<void(const Place&)> told)
    : m_scenario(scenario), m_told(std::move(told)), m_device(scenario.start) {}

std::optional<Failure> Player::Play() {
    try {
        Begin();
        for (const Step& step : m_scenario.steps) {
            Run(step);
        }
        m_step = nullptr;
        if (!m_came.empty()) {
            const Came& first = m_came.front();
            Fail(first.step != nullptr ? first.step->place : m_scenario.place,
                 "nothing expects " + Describe(first.hit));
        }
    } catch (Failed& failed) {
        return std::move(failed.failure);
    }
    return std::nullopt;
}

void Player::Begin() {
    m_told(m_scenario.place);
    for (const auto& [key, value] : m_scenario.keys) {
        m_device.SetKey(key, value);
    }
    m_device.Start();
    if (m_scenario.policy) {
        HandOverPolicy(*m_scenario.policy);
    }
    Collect(nullptr);
}

void Player::Run(const Step& step) {
    m_told(step.place);
    m_step = &step;
    std::visit([this](const auto& action) { Do(action); }, step.action);
    Collect(&step);
}

void Player::Collect(const Step* step) {
    std::string effect = step != nullptr ? WhatCounted(step->action) : "";
    for (Hit& hit : TakeHits()) {
        effect.append("; ").append(Describe(hit));
        m_came.push_back({std::move(hit), step});
    }
    if (step == nullptr || std::holds_alternative<ExpectHits>(step->action)) {
        return;
    }
    const std::string object = ObjectOf(step->action);
    m_notes.push_back("line " + std::to_string(step->place.line) + ", " + FormatMoment(Device::Now()) + ": " +
                      step->word + (object.empty() ? "" : " " + object) + effect);
    if (m_notes.size() > kMaxNotes) {
        m_notes.pop_front();
    }
}

std::string Player::WhatCounted(const Action& action) {
    const auto* install = std::get_if<InstallApp>(&action);
    if (install == nullptr && !std::holds_alternative<ConnectRemote>(action)) {
        return {};
    }
    const std::string rule = install != nullptr ? install->id : kPairing;
    std::string text;
    const std::vector<Device::Count> before = std::exchange(m_counts, m_device.Counts());
    for (std::size_t at = 0; at < m_counts.size(); ++at) {
        if (m_counts[at].rule == rule) {
            const bool isKnown = at < before.size() && before[at].rule == rule;
            text += Compared(isKnown ? before[at] : Device::Count{rule, 0, 0, 0}, m_counts[at]);
        }
    }
    return text.empty() ? "; no rule counts it" : text;
}

void Player::HandOverPolicy(const PolicyText& policy) {
    const zol::TSPolicyAnswer answer = m_device.SetPolicy(*policy.xml);
    if (!answer.isAccepted && !m_scenario.isFaulty) {
        Fail(policy.place, "the daemon refuses the policy");
    }
}

void Player::Do(const SetKeys& action) {
    for (const auto& [key, value] : action.keys) {
        m_device.SetKey(key, value);
    }
}

void Player::Do(const ConnectRemote& action) {
    m_device.Connect(action.isConnected, action.address);
}

void Player::Do(const InstallApp& action) {
    m_device.Install(action.id, action.isInstalled);
}

void Player::Do(const PassTime& action) {
    m_device.Pass(action.time);
}

void Player::Do(const SetClock& action) {
    m_device.SetClock(action.seconds);
}

void Player::Do(const StandBy& action) {
    m_device.StandBy(action.time);
}

void Player::Do(const Restart& action) {
    if (action.timeOff) {
        m_device.SwitchOff(*action.timeOff);
    } else {
        m_device.Stop();
        m_device.Start();
    }
}

void Player::Do(const HandOver& action) {
    HandOverPolicy(action.policy);
}

void Player::Do(const ExpectHits& action) {
    // Who says more of a hit chooses first, so that a failure is told of who says less.
    std::vector<const ExpectedHit*> expected;
    for (const ExpectedHit& hit : action.hits) {
        expected.push_back(&hit);
    }
    std::stable_sort(expected.begin(), expected.end(), [](const ExpectedHit* left, const ExpectedHit* right) {
        return DetailOf(*left) > DetailOf(*right);
    });
    const std::vector<Came> came = std::exchange(m_came, {});
    Matching matching(expected.size(), came.size(), [&](std::size_t hit, std::size_t each) {
        return DifferenceOf(came[each].hit, *expected[hit]).empty();
    });
    std::vector<const ExpectedHit*> missing;
    for (std::size_t hit = 0; hit < expected.size(); ++hit) {
        if (!matching.Place(hit)) {
            missing.push_back(expected[hit]);
        }
    }
    std::vector<Came> unexpected;
    for (std::size_t each = 0; each < came.size(); ++each) {
        if (matching.IsFree(each)) {
            unexpected.push_back(came[each]);
        }
    }
    if (!missing.empty()) {
        FailMissing(*missing.front(), unexpected);
    }
    if (!unexpected.empty()) {
        FailUnexpected(unexpected);
    }
    m_notes.clear();
}

void Player::FailMissing(const ExpectedHit& expected, const std::vector<Came>& unexpected) {
    std::vector<std::string> reasons;
    std::transform(unexpected.begin(), unexpected.end(), std::back_inserter(reasons), [&](const Came& came) {
        return "what came instead: " + Describe(came.hit) + "; " + DifferenceOf(came.hit, expected);
    });
    Fail(expected.place, "expected " + Describe(expected) + (reasons.empty() ? ", and none came" : ""),
         std::move(reasons));
}

void Player::FailUnexpected(const std::vector<Came>& unexpected) {
    std::vector<std::string> reasons;
    std::transform(unexpected.begin() + 1, unexpected.end(), std::back_inserter(reasons),
                   [](const Came& came) { return "and " + Describe(came.hit); });
    Fail(m_step->place, "nothing expects " + Describe(unexpected.front().hit), std::move(reasons));
}

void Player::Do(const ExpectKeys& action) {
    for (const auto& [key, value] : action.keys) {
        if (const KeyValue there = Device::Key(key); there != value) {
            Fail(m_step->place, "expected " + key + " to be " + FormatKeyValue(value) + ", and it is " +
                                    FormatKeyValue(there));
        }
    }
}

void Player::Do(const ExpectState& action) {
    const zol::TSPolicyState state = m_device.State();
    const auto demand = [this](const std::string& what, const std::string& expected,
                               const std::string& there) {
        if (expected != there) {
            Fail(m_step->place, "expected " + what + " to be " + expected + ", and it is " + there);
        }
    };
    if (action.isMonitoring) {
        demand("monitoring", *action.isMonitoring ? "true" : "false", state.isMonitoring ? "true" : "false");
    }
    if (action.watched) {
        demand("watched", std::to_string(*action.watched), std::to_string(state.rulesWatched));
    }
    if (action.dropped) {
        demand("dropped", std::to_string(*action.dropped), std::to_string(state.rulesDropped));
    }
    if (action.expires) {
        demand("expires", *action.expires, state.expires == 0 ? "none" : FormatMoment(state.expires));
    }
}

void Player::Fail(const Place& place, const std::string& text, std::vector<std::string> reasons) {
    if (!m_notes.empty()) {
        reasons.emplace_back("since the last expect:");
    }
    for (const std::string& note : m_notes) {
        reasons.push_back("  " + note);
    }
    reasons.push_back("how the rules stand at " + FormatMoment(Device::Now()) + ":");
    const std::vector<zol::TSPolicyRule> rules = m_device.Explain();
    for (std::size_t rule = 0; rule < std::min(rules.size(), kMaxRules); ++rule) {
        reasons.push_back("  " + Describe(rules[rule]));
    }
    if (rules.size() > kMaxRules) {
        reasons.push_back("  and " + std::to_string(rules.size() - kMaxRules) + " more");
    }
    if (rules.empty()) {
        reasons.emplace_back("  no policy is watched");
    }
    throw Failed{{place, text, std::move(reasons)}};
}

}  // namespace policytest

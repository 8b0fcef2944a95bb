#include "scenario_reader.h"

#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "PolicyObserver.h"
#include "ZOLPolicyParser.h"
#include "device.h"
#include "document.h"
#include "expectation_reader.h"
#include "step_reader.h"
#include "values.h"
#include "yaml_value.h"

namespace policytest {
namespace {

/// The tree that the YAML library makes may take some hundred times as much memory.
constexpr std::size_t kMaxBytes = std::size_t{1024} * 1024;

constexpr const char* kDefaultStart = "2026-01-01 08:00:00";

void ReadEntry(Scenario& scenario, const YamlValue& name, const YamlValue& value, Reading& reading) {
    const std::string& word = name.Text("a name");
    if (word == "name") {
        scenario.name = value.Text("the scenario's name");
    } else if (word == "policy") {
        scenario.policy = ReadPolicy(value, reading);
    } else if (word == "faulty") {
        scenario.isFaulty = value.Flag("faulty");
    } else if (word == "start") {
        scenario.start = ReadMoment(value);
    } else if (word == "keys") {
        scenario.keys = ReadKeys(value, reading);
    } else if (word == "steps") {
        for (const YamlValue& step : value.Items("steps")) {
            scenario.steps.push_back(ReadStep(step, reading));
        }
    } else {
        RefuseWord(name.At(), "entry of a scenario", word,
                   {"name", "policy", "faulty", "start", "keys", "steps"});
    }
}

std::vector<const PolicyText*> PoliciesOf(const Scenario& scenario) {
    std::vector<const PolicyText*> policies;
    if (scenario.policy) {
        policies.push_back(&*scenario.policy);
    }
    for (const Step& step : scenario.steps) {
        if (const auto* handOver = std::get_if<HandOver>(&step.action)) {
            policies.push_back(&handOver->policy);
        }
    }
    return policies;
}

/// The rules that a hit may name.
std::set<std::string> RulesOf(const Scenario& scenario) {
    std::set<std::string> rules;
    std::set<const std::string*> known;
    zol::IPolicyObserver silent;
    for (const PolicyText* text : PoliciesOf(scenario)) {
        if (!known.insert(text->xml.get()).second) {
            continue;  // the same file once more
        }
        zol::ZOLPolicy policy;
        // What is read of one that is refused is as good: the findings say why it is.
        static_cast<void>(zol::TCPolicyParser().Parse(*text->xml, policy, &silent));
        for (const zol::ZOLVconfMonitor& item : policy.vconfMonitors) {
            rules.insert(item.key);
        }
        for (const zol::ZOLPolicyMonitor& monitor : policy.policyMonitors) {
            rules.insert(monitor.type == zol::ZOL_BT_PAIR ? kPairing : monitor.id);
        }
    }
    return rules;
}

/// Refuses a hit of a rule that no policy has: it could never come.
void CheckRules(const Scenario& scenario) {
    const std::set<std::string> rules = RulesOf(scenario);
    for (const Step& step : scenario.steps) {
        const auto* expected = std::get_if<ExpectHits>(&step.action);
        if (expected == nullptr) {
            continue;
        }
        for (const ExpectedHit& hit : expected->hits) {
            if (rules.count(*hit.rule) == 0) {
                RefuseWord(hit.place, "rule", *hit.rule, {rules.begin(), rules.end()});
            }
        }
    }
}

Scenario ReadScenario(const YamlValue& document, Reading& reading) {
    Scenario scenario;
    scenario.place = document.At();
    scenario.start = ParseMoment(kDefaultStart).value_or(0);
    for (const auto& [name, value] : document.Entries("a scenario")) {
        ReadEntry(scenario, name, value, reading);
    }
    if (scenario.name.empty()) {
        document.Refuse("a scenario has a name", "\"name: what it shows\"");
    }
    if (PoliciesOf(scenario).empty()) {
        document.Refuse("a scenario has a policy", "\"policy: FILE\"");
    }
    if (scenario.steps.empty()) {
        document.Refuse("a scenario has steps", "\"steps:\" and a list of them");
    }
    CheckRules(scenario);
    return scenario;
}

}  // namespace

std::vector<Scenario> ScenarioReader::Read(const std::string& file) {
    Reading reading;
    reading.policies = &m_policies;
    if (const zolctl::Unreadable why = zolctl::ReadDocument(file, reading.text); !why.empty()) {
        throw BadScenario({file, 0, 0}, why);
    }
    if (reading.text.size() > kMaxBytes) {
        throw BadScenario({file, 1, 1},
                          "a scenario file has at most " + std::to_string(kMaxBytes) + " bytes");
    }
    std::vector<Scenario> scenarios;
    for (const YamlValue& document : YamlValue::ReadAll(file, reading.text)) {
        scenarios.push_back(ReadScenario(document, reading));
    }
    if (scenarios.empty()) {
        throw BadScenario({file, 1, 1}, "no scenario in this file");
    }
    return scenarios;
}

}  // namespace policytest

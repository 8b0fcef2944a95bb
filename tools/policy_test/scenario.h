#pragma once
/// What a scenario says, as it is played.
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace policytest {

/// Where something stands in a scenario file. Both count from 1; a column is a byte.
struct Place {
    std::string file;
    int line = 1;
    int column = 1;
};

/// A scenario that cannot be played as it is written. One line each.
struct BadScenario : std::runtime_error {
    BadScenario(Place where, const std::string& text, std::string remedy = {})
        : std::runtime_error(text), place(std::move(where)), hint(std::move(remedy)) {}

    Place place;
    std::string hint;  ///< what to write instead; may be empty
};

/// What a key holds; monostate: there is no such key.
using KeyValue = std::variant<std::monostate, bool, int, std::string>;
using Keys = std::vector<std::pair<std::string, KeyValue>>;

/// A document for the daemon.
struct PolicyText {
    Place place;                             ///< where the scenario names it or holds it
    std::string file;                        ///< that it stands in
    std::shared_ptr<const std::string> xml;  ///< never null
    int lineOffset = 0;                      ///< of its first line in the file
    int columnOffset = 0;
};

struct SetKeys {
    Keys keys;
};
struct ConnectRemote {
    bool isConnected = true;
    std::string address;  ///< empty: the one that connected last
};
struct InstallApp {
    std::string id;
    bool isInstalled = true;
};
struct PassTime {
    std::chrono::nanoseconds time;
};
struct SetClock {
    std::int64_t seconds = 0;  ///< since 1970
};
struct StandBy {
    std::chrono::seconds time;
};
/// The process ends and is started again, at once or, with the device off meanwhile, later.
struct Restart {
    std::optional<std::chrono::seconds> timeOff;
};
struct HandOver {
    PolicyText policy;
};

/// What is said of one hit. What is not given may be anything.
struct ExpectedHit {
    Place place;
    std::optional<std::string> rule;
    std::optional<std::string> value;
    std::optional<std::string> at;  ///< "2026-01-01 08:00:00", or the time of day alone
    std::optional<std::string> report;
    std::map<std::string, std::string> kpi;     ///< items of the KPI event
    std::map<std::string, std::string> header;  ///< entries of header.json
};
struct ExpectHits {
    std::vector<ExpectedHit> hits;  ///< all that came since the last such step; none: none
};
struct ExpectKeys {
    Keys keys;
};
/// What is said of how the policy stands.
struct ExpectState {
    std::optional<bool> isMonitoring;
    std::optional<int> watched;
    std::optional<int> dropped;
    std::optional<std::string> expires;  ///< "none" or a moment
};

using Action = std::variant<SetKeys, ConnectRemote, InstallApp, PassTime, SetClock, StandBy, Restart,
                            HandOver, ExpectHits, ExpectKeys, ExpectState>;

struct Step {
    Place place;
    std::string word;  ///< as the scenario names it
    Action action;
};

struct Scenario {
    Place place;
    std::string name;
    std::optional<PolicyText> policy;  ///< handed over when the daemon has started
    bool isFaulty = false;             ///< its policies may have errors
    std::int64_t start = 0;            ///< wall clock, seconds since 1970
    Keys keys;                         ///< that are there before the daemon starts
    std::vector<Step> steps;
};

}  // namespace policytest

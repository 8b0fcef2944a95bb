#pragma once
/// Plays a scenario.
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "device.h"
#include "hits.h"
#include "scenario.h"

namespace policytest {

/// Why a scenario did not go as it says.
struct Failure {
    Place place;
    std::string text;                  ///< what was expected and what came
    std::vector<std::string> reasons;  ///< lines: what was counted, and how the rules stand
};

/// On the main thread of a process that plays nothing else.
class Player {
public:
    /// @param told is called before each step, with its place
    Player(const Scenario& scenario, std::function<void(const Place&)> told);

    /// Null when all went as the scenario says; else the first thing that did not.
    [[nodiscard]] std::optional<Failure> Play();

private:
    /// A hit, and the step during which it came.
    struct Came {
        Hit hit;
        const Step* step;  ///< null: before the first
    };

    void Begin();
    void Run(const Step& step);
    void Collect(const Step* step);
    /// What an event did to the count of its monitor, with "; " before it.
    std::string WhatCounted(const Action& action);
    void HandOverPolicy(const PolicyText& policy);

    void Do(const SetKeys& action);
    void Do(const ConnectRemote& action);
    void Do(const InstallApp& action);
    void Do(const PassTime& action);
    void Do(const SetClock& action);
    void Do(const StandBy& action);
    void Do(const Restart& action);
    void Do(const HandOver& action);
    void Do(const ExpectHits& action);
    void Do(const ExpectKeys& action);
    void Do(const ExpectState& action);

    [[noreturn]] void Fail(const Place& place, const std::string& text,
                           std::vector<std::string> reasons = {});
    [[noreturn]] void FailMissing(const ExpectedHit& expected, const std::vector<Came>& unexpected);
    [[noreturn]] void FailUnexpected(const std::vector<Came>& unexpected);

    const Scenario& m_scenario;
    const std::function<void(const Place&)> m_told;
    Device m_device;
    const Step* m_step = nullptr;         ///< that is played
    std::vector<Came> m_came;             ///< since the last time somebody asked
    std::deque<std::string> m_notes;      ///< of what was done since then
    std::vector<Device::Count> m_counts;  ///< after the last event that a monitor may count
};

}  // namespace policytest

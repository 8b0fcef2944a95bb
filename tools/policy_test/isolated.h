#pragma once
/// Each scenario in a process of its own: the daemon keeps a few things as long as its process lives, and
/// what ends it must not end the other scenarios.
#include <chrono>
#include <optional>
#include <string>

#include "player.h"
#include "scenario.h"

namespace policytest {

/// Where the processes keep their files: a folder in memory where there is one, which goes with this object,
/// also when a signal ends the program. One in a process.
class Scratch {
public:
    Scratch();
    ~Scratch();
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
};

/// Plays a scenario in a process of its own and waits for it. Only while the caller's process has one thread.
/// Null when all went as the scenario says. One that ends the process has failed, too.
[[nodiscard]] std::optional<Failure> PlayIsolated(const Scenario& scenario);

}  // namespace policytest

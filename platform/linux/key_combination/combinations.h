#pragma once
/// Which keys make which combination, and when a combination is complete.
#include <istream>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "key_combination.h"

namespace platform {

/// Keys that are held together for one id. One id may have several.
struct Combination {
    KeyComb id;
    std::vector<unsigned> keys;  ///< kernel key codes

    bool operator==(const Combination& other) const { return id == other.id && keys == other.keys; }
};

/// Reads a table: a line is "<id> = <KEY_NAME> + <KEY_NAME> ...", "#" begins a comment. A line that is wrong
/// is left out and named in `complaints` ("line 3: unknown key KEY_BLEU").
std::vector<Combination> ReadCombinations(std::istream& table, std::vector<std::string>& complaints);

/// The table that holds where there is no file.
std::vector<Combination> DefaultCombinations();

/// Follows which keys are held on any number of devices and tells which combinations become complete. A
/// remote may show its keys as several devices, so the keys of all devices count together.
class CombinationTracker {
public:
    explicit CombinationTracker(std::vector<Combination> combinations)
        : m_combinations(std::move(combinations)) {}

    /// @param device any number that stands for a device
    /// @return the ids that became complete by this, in the order of the table, each once
    std::vector<KeyComb> Set(int device, unsigned key, bool held);
    /// The device is gone; its keys are held no longer.
    void Forget(int device) { m_held.erase(device); }

private:
    bool IsHeld(unsigned key) const;
    bool IsComplete(const Combination& combination) const;

    const std::vector<Combination> m_combinations;
    std::map<int, std::set<unsigned>> m_held;  ///< by device
};

}  // namespace platform

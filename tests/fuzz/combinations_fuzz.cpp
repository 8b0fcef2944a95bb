/// Reads a table of key combinations, and up to its first zero byte; what follows are keys that are pressed
/// and released on two devices, followed a second time by what combinations are complete before and after.
#include <libevdev/libevdev.h>

#include <algorithm>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_target.h"
#include "key_combination/combinations.h"

namespace {

using fuzz::Input;
using fuzz::Require;
using platform::Combination;

std::string LineOf(const Combination& combination) {
    std::string line = std::to_string(combination.id) + " =";
    for (std::size_t index = 0; index < combination.keys.size(); ++index) {
        const char* const name = libevdev_event_code_get_name(EV_KEY, combination.keys[index]);
        Require(name != nullptr, "a key of the kernel's");
        line += (index == 0 ? " " : " + ") + std::string(name);
    }
    return line + "\n";
}

std::vector<Combination> Read(const std::string& text, std::size_t& complaints) {
    std::istringstream table(text);
    std::vector<std::string> lines;
    std::vector<Combination> combinations = platform::ReadCombinations(table, lines);
    complaints = lines.size();
    return combinations;
}

std::vector<Combination> CheckTable(const std::string& text) {
    std::size_t complaints = 0;
    std::vector<Combination> combinations = Read(text, complaints);
    const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    Require(combinations.size() + complaints <= lines, "the number of lines");
    std::string written;
    for (const Combination& combination : combinations) {
        Require(combination.id >= 0 && combination.id < KEY_COMBINATION_COUNT, "the range of ids");
        Require(!combination.keys.empty(), "a combination has keys");
        written += LineOf(combination);
    }
    Require(Read(written, complaints) == combinations && complaints == 0, "what was written down");
    return combinations;
}

/// What is held, and which combinations that completes.
class Model {
public:
    explicit Model(const std::vector<Combination>& combinations) : m_combinations(combinations) {}

    std::vector<KeyComb> Set(int device, unsigned key, bool held) {
        const std::vector<bool> before = Complete();
        if (held) {
            m_held.emplace(key, device);
        } else {
            m_held.erase({key, device});
        }
        const std::vector<bool> after = Complete();
        std::vector<KeyComb> ids;
        for (std::size_t index = 0; index < after.size(); ++index) {
            const KeyComb id = m_combinations[index].id;
            if (after[index] && !before[index] && std::find(ids.begin(), ids.end(), id) == ids.end()) {
                ids.push_back(id);
            }
        }
        return ids;
    }

    void Forget(int device) {
        for (auto held = m_held.begin(); held != m_held.end();) {
            held = held->second == device ? m_held.erase(held) : std::next(held);
        }
    }

private:
    bool IsHeld(unsigned key) const {
        const auto found = m_held.lower_bound({key, 0});
        return found != m_held.end() && found->first == key;
    }
    std::vector<bool> Complete() const {
        std::vector<bool> complete;
        for (const Combination& combination : m_combinations) {
            complete.push_back(std::all_of(combination.keys.begin(), combination.keys.end(),
                                           [&](unsigned key) { return IsHeld(key); }));
        }
        return complete;
    }

    const std::vector<Combination>& m_combinations;
    std::set<std::pair<unsigned, int>> m_held;  // key and device
};

void CheckTracker(const std::vector<Combination>& combinations, Input& input) {
    std::vector<unsigned> keys{KEY_A};
    for (const Combination& combination : combinations) {
        keys.insert(keys.end(), combination.keys.begin(), combination.keys.end());
    }
    platform::CombinationTracker tracker(combinations);
    Model model(combinations);
    while (!input.IsEmpty()) {
        const unsigned choice = input.Byte();
        const int device = static_cast<int>(choice & 1);
        if ((choice & 0xfe) == 0xfe) {
            tracker.Forget(device);
            model.Forget(device);
            continue;
        }
        const unsigned key = keys[input.Byte() % keys.size()];
        const bool held = (choice & 2) != 0;
        Require(tracker.Set(device, key, held) == model.Set(device, key, held), "what became complete");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::uint8_t* const end = std::find(data, data + size, 0);
    const std::vector<Combination> combinations = CheckTable(std::string(data, end));
    Input keys(end, static_cast<std::size_t>(data + size - end));
    CheckTracker(combinations, keys);
    return 0;
}

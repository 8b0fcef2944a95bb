#include "key_combination/combinations.h"

#include <libevdev/libevdev.h>

#include <algorithm>
#include <charconv>
#include <sstream>

namespace platform {

namespace {

// The colour keys for remote controls, and what an ordinary keyboard has.
constexpr const char* kDefaultTable =
    "95 = KEY_RED + KEY_GREEN\n"
    "95 = KEY_LEFTCTRL + KEY_LEFTALT + KEY_R\n"
    "96 = KEY_RED + KEY_BLUE\n"
    "96 = KEY_LEFTCTRL + KEY_LEFTALT + KEY_S\n";

std::string Trim(const std::string& text) {
    constexpr const char* kBlanks = " \t\r";
    const std::size_t begin = text.find_first_not_of(kBlanks);
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

bool ReadId(const std::string& text, KeyComb& id) {
    const char* end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, id);
    return error == std::errc() && stopped == end && id >= 0 && id < KEY_COMBINATION_COUNT;
}

/// Empty when the line is fine, else what is wrong with it.
std::string ReadLine(const std::string& line, Combination& combination) {
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) {
        return "no \"=\"";
    }
    const std::string id = Trim(line.substr(0, equals));
    if (!ReadId(id, combination.id)) {
        return "\"" + id + "\" is no id from 0 to " + std::to_string(KEY_COMBINATION_COUNT - 1);
    }
    std::istringstream keys(line.substr(equals + 1) + "+");
    for (std::string word; std::getline(keys, word, '+');) {
        const std::string name = Trim(word);
        const int code = libevdev_event_code_from_name(EV_KEY, name.c_str());
        if (code < 0) {
            return "unknown key " + name;
        }
        combination.keys.push_back(static_cast<unsigned>(code));
    }
    return {};
}

}  // namespace

std::vector<Combination> ReadCombinations(std::istream& table, std::vector<std::string>& complaints) {
    std::vector<Combination> combinations;
    int number = 0;
    for (std::string line; std::getline(table, line);) {
        ++number;
        line = Trim(line.substr(0, line.find('#')));
        if (line.empty()) {
            continue;
        }
        Combination combination{};
        const std::string complaint = ReadLine(line, combination);
        if (complaint.empty()) {
            combinations.push_back(combination);
        } else {
            complaints.push_back("line " + std::to_string(number) + ": " + complaint);
        }
    }
    return combinations;
}

std::vector<Combination> DefaultCombinations() {
    std::istringstream table(kDefaultTable);
    std::vector<std::string> complaints;
    return ReadCombinations(table, complaints);
}

std::vector<KeyComb> CombinationTracker::Set(int device, unsigned key, bool held) {
    std::vector<KeyComb> complete;
    if (!held) {
        m_held[device].erase(key);
        return complete;
    }
    if (IsHeld(key)) {
        m_held[device].insert(key);
        return complete;
    }
    m_held[device].insert(key);
    for (const Combination& combination : m_combinations) {
        const bool involved =
            std::find(combination.keys.begin(), combination.keys.end(), key) != combination.keys.end();
        const bool known = std::find(complete.begin(), complete.end(), combination.id) != complete.end();
        if (involved && !known && IsComplete(combination)) {
            complete.push_back(combination.id);
        }
    }
    return complete;
}

bool CombinationTracker::IsHeld(unsigned key) const {
    return std::any_of(m_held.begin(), m_held.end(),
                       [&](const auto& held) { return held.second.count(key) != 0; });
}

bool CombinationTracker::IsComplete(const Combination& combination) const {
    return std::all_of(combination.keys.begin(), combination.keys.end(),
                       [&](unsigned key) { return IsHeld(key); });
}

}  // namespace platform

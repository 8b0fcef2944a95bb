#pragma once
/// Finds the first item of a key without walking the list.
#include <cstddef>
#include <functional>
#include <string>
#include <unordered_map>

namespace zol {

/// Not thread-safe while it is being filled; any number of readers afterwards.
template <class Equal>
class TCBasicKeyIndex {
public:
    static constexpr std::size_t NOT_FOUND = static_cast<std::size_t>(-1);

    /// Remembers `position` for `key`, unless the key has one already.
    void Add(const std::string& key, std::size_t position) { m_positions.emplace(key, position); }

    /// The position that was added first for exactly this key, else NOT_FOUND.
    std::size_t Find(const std::string& key) const {
        const auto found = m_positions.find(key);
        return found == m_positions.end() ? NOT_FOUND : found->second;
    }

private:
    std::unordered_map<std::string, std::size_t, std::hash<std::string>, Equal> m_positions;
};

using TCKeyIndex = TCBasicKeyIndex<std::equal_to<std::string>>;

}  // namespace zol

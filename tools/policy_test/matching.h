#pragma once
#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

namespace policytest {

/// Gives each of some hits that are expected one of its own among those that came. An expectation may fit
/// several; one that has its hit already moves to another one where that makes room.
class Matching {
public:
    using Fits = std::function<bool(std::size_t expected, std::size_t came)>;

    Matching(std::size_t expected, std::size_t came, Fits fits)
        : m_fits(std::move(fits)), m_nobody(expected), m_owner(came, expected) {}

    /// False when there is none for it: what was placed before keeps one.
    [[nodiscard]] bool Place(std::size_t expected) {
        std::vector<bool> visited(m_owner.size());
        return Place(expected, visited);
    }
    [[nodiscard]] bool IsFree(std::size_t came) const { return m_owner[came] == m_nobody; }

private:
    bool Place(std::size_t expected, std::vector<bool>& visited) {
        for (std::size_t came = 0; came < m_owner.size(); ++came) {
            if (IsFree(came) && m_fits(expected, came)) {
                m_owner[came] = expected;
                return true;
            }
        }
        for (std::size_t came = 0; came < m_owner.size(); ++came) {
            if (IsFree(came) || visited[came] || !m_fits(expected, came)) {
                continue;
            }
            visited[came] = true;
            if (Place(m_owner[came], visited)) {
                m_owner[came] = expected;
                return true;
            }
        }
        return false;
    }

    const Fits m_fits;
    const std::size_t m_nobody;
    std::vector<std::size_t> m_owner;  ///< of each that came: who has it
};

}  // namespace policytest

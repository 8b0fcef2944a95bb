#pragma once
#include <algorithm>
#include <cstdint>
#include <functional>
#include <utility>

namespace collector {

/// The waits between attempts to reach a server that many devices want to reach: full jitter, a random part
/// of a time that begins with two seconds and doubles up to half an hour.
class RetryDelay {
public:
    static constexpr std::uint64_t kFirstMs = 2000;
    static constexpr std::uint64_t kLongestMs = 1800000;
    static constexpr std::uint64_t kLongestWishMs = 86400000;

    /// @param random gives a number from 0 to below 1 each time
    explicit RetryDelay(std::function<double()> random) : m_random(std::move(random)) {}

    /// The wait before the next attempt, in milliseconds; what the server wishes (0: nothing) is the least,
    /// up to a day.
    [[nodiscard]] std::uint64_t Next(std::uint64_t wishSeconds) {
        const auto wait = static_cast<std::uint64_t>(m_random() * static_cast<double>(m_windowMs));
        m_windowMs = std::min(2 * m_windowMs, kLongestMs);
        return std::max(wait, std::min(wishSeconds, kLongestWishMs / kMsPerSecond) * kMsPerSecond);
    }
    /// Call when an attempt succeeded.
    void Reset() { m_windowMs = kFirstMs; }

private:
    static constexpr std::uint64_t kMsPerSecond = 1000;

    std::function<double()> m_random;
    std::uint64_t m_windowMs = kFirstMs;
};

}  // namespace collector

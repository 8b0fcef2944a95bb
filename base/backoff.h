#pragma once
#include <algorithm>

namespace base {

/// The waits between attempts at something that fails: each twice as long as the one before.
class Backoff {
public:
    Backoff(unsigned firstMs, unsigned longestMs) : m_firstMs(firstMs), m_longestMs(longestMs) {}

    /// The wait before the next attempt, in milliseconds.
    [[nodiscard]] unsigned Next() {
        const unsigned now = m_nextMs;
        m_nextMs = std::min(2 * m_nextMs, m_longestMs);
        return now;
    }
    /// Call when an attempt succeeded.
    void Reset() { m_nextMs = m_firstMs; }

private:
    unsigned m_firstMs;
    unsigned m_longestMs;
    unsigned m_nextMs = m_firstMs;
};

}  // namespace base

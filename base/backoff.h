#pragma once
#include <algorithm>

namespace base {

/// The waits between attempts at something that fails: 100 ms, then doubling up to 30 s.
class Backoff {
public:
    /// The wait before the next attempt, in milliseconds.
    [[nodiscard]] unsigned Next() {
        const unsigned now = m_nextMs;
        m_nextMs = std::min(2 * m_nextMs, kLongestMs);
        return now;
    }
    /// Call when an attempt succeeded.
    void Reset() { m_nextMs = kFirstMs; }

private:
    static constexpr unsigned kFirstMs = 100;
    static constexpr unsigned kLongestMs = 30000;

    unsigned m_nextMs = kFirstMs;
};

}  // namespace base

#pragma once
/// One log line for a failure, however often it repeats, until the work succeeds again.
#include <atomic>

namespace platform {

/// Any thread.
class OnceLogged {
public:
    /// True for the first failure after a success.
    [[nodiscard]] bool Failed() { return !m_failing.exchange(true); }
    void Succeeded() { m_failing = false; }

private:
    std::atomic<bool> m_failing{false};
};

}  // namespace platform

#pragma once
/// Whether tracing is active, what it traps and what it has recorded.
#include <atomic>
#include <memory>

#include "cv/BoundedRing.h"
#include "cv/TSTrap.h"

namespace cv {

/// Process-wide. Any thread. As a ring it is the recording: the newest 1024 closed scopes.
class TCScopeHandler : public BoundedRing<TSEvent, 1024> {
public:
    /// The only instance; never freed. Made with the first question for it or for IsActive: the markers of
    /// the device are read then, and not again before Reload.
    static TCScopeHandler& Instance();

    /// One relaxed load once the markers have been read.
    [[nodiscard]] static bool IsActive() noexcept {
        const EState state = s_state.load(std::memory_order_relaxed);
        return state != EState::INACTIVE && (state == EState::ACTIVE || Resolve());
    }

    /// Switches tracing on or off, whatever the markers say. What is recorded stays.
    void SetActive(bool active) noexcept;

    /// Reads the trap conditions (ZOL_PATH_TRAP_CONF) anew and switches tracing on exactly when there are any
    /// or ZOL_PATH_DEBUG_MARKER exists. Lines that make no sense are logged with their number and skipped.
    /// @return the number of conditions, -1 when the file could not be read.
    int Reload() noexcept;

    /// The conditions of a call site, null when there are none. They stay valid as long as they are held.
    [[nodiscard]] std::shared_ptr<const TSTrapCondition> ConditionsOf(
        const TSSourceLocation& location) const noexcept;

private:
    enum class EState : int { UNKNOWN, INACTIVE, ACTIVE };

    TCScopeHandler() noexcept;
    static bool Resolve() noexcept;

    static std::atomic<EState> s_state;
};

}  // namespace cv

#pragma once
/// Whether tracing is active, what it traps and what it has recorded.
#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "cv/TSTrap.h"

namespace cv {

/// Process-wide. Any thread.
class TCScopeHandler {
public:
    static constexpr std::size_t MAX_EVENTS = 1024;

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

    /// Appends to the recording; a full one loses its oldest event and counts it.
    void Record(const TSEvent& event) noexcept;

    /// A copy of the recording, oldest first (may throw std::bad_alloc), and in `end`, unless it is null, the
    /// position behind its newest event.
    [[nodiscard]] std::vector<TSEvent> Events(std::uint64_t* end = nullptr) const;
    /// Removes the events before a position that Events gave.
    void DiscardBefore(std::uint64_t end) noexcept;
    void Clear() noexcept;
    /// Events lost to newer ones since the process began or Clear.
    [[nodiscard]] std::uint64_t Overwritten() const noexcept;

private:
    enum class EState : int { UNKNOWN, INACTIVE, ACTIVE };

    TCScopeHandler() noexcept;
    static bool Resolve() noexcept;

    static std::atomic<EState> s_state;
};

}  // namespace cv

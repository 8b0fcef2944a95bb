#pragma once
/// The queue of matched traps.
#include <cstdint>
#include <string>
#include <vector>

#include "cv/TSTrap.h"

namespace cv {

/// A condition that was met. Of fixed size.
struct TSTrapMatch {
    static constexpr std::size_t MAX_NAME = 31;   ///< bytes, a terminator follows
    static constexpr std::size_t MAX_VALUE = 63;  ///< bytes, a terminator follows

    const TSSourceLocation* site;
    std::uint64_t timeNs;  ///< steady clock
    std::int32_t thread;   ///< kernel thread id
    std::uint32_t itemIndex;
    char name[MAX_NAME + 1];
    char value[MAX_VALUE + 1];  ///< the value as text, cut when longer
};

/// Process-wide, bounded: a full queue loses its oldest match and counts it. Any thread; throws nothing but
/// std::bad_alloc, and that only where it says so.
class TCTrapPattern {
public:
    static constexpr std::size_t MAX_MATCHES = 256;

    /// The only instance; never freed.
    static TCTrapPattern& Instance();

    void AddItemToQueue(const TSTrapMatch& match) noexcept;

    /// A copy of the queue, oldest first (may throw std::bad_alloc), and in `end`, unless it is null, the
    /// position behind its newest match.
    [[nodiscard]] std::vector<TSTrapMatch> Items(std::uint64_t* end = nullptr) const;
    /// Removes the matches before a position that Items gave.
    void DiscardBefore(std::uint64_t end) noexcept;
    void Clear() noexcept;
    /// Matches lost to newer ones since the process began or Clear.
    [[nodiscard]] std::uint64_t Dropped() const noexcept;

private:
    TCTrapPattern() = default;
};

}  // namespace cv

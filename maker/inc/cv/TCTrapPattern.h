#pragma once
/// The queue of matched traps.
#include <cstddef>
#include <cstdint>

#include "cv/BoundedRing.h"
#include "cv/TSCallItem.h"

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

/// Process-wide: the newest 256 matches. Any thread.
class TCTrapPattern : public BoundedRing<TSTrapMatch, 256> {
public:
    /// The only instance; never freed.
    static TCTrapPattern& Instance();

    void AddItemToQueue(const TSTrapMatch& match) noexcept { Push(match); }

private:
    TCTrapPattern() = default;
};

}  // namespace cv

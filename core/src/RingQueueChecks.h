#pragma once
/// What the three queues share.
#include <cstdint>

#include "Logging.h"

namespace ring_queue {

/// One name for the assertions of all three.
constexpr const char* kSource = "core/src/RingQueue";
constexpr const char* kHeader = "core/inc/RingQueue";

inline bool Asserts(bool holds, const char* expression, int line, const char* source = kSource) {
    return AssertAtsc3(holds, expression, source, line);
}

/// A negative time is a very long one, the same on machines of any width.
inline unsigned long Milliseconds(int ms) {
    return static_cast<std::uint32_t>(ms);
}

}  // namespace ring_queue

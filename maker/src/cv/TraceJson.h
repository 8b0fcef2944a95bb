#pragma once
/// The recording as a Chrome trace-event document.
#include <cstdint>
#include <string>
#include <vector>

#include "cv/TCTrapPattern.h"
#include "cv/TSCallItem.h"

namespace cv {

/// What goes into one document.
struct TSDump {
    std::vector<TSEvent> events;
    std::uint64_t overwritten = 0;
    std::vector<TSTrapMatch> matches;
    std::uint64_t dropped = 0;
    std::int64_t wallSeconds = 0;  ///< wall clock when the dump was made, seconds since 1970 UTC
    std::uint64_t steadyNs = 0;    ///< steady clock at the same moment
};

/// UTF-8; bytes that are none become U+FFFD. May throw std::bad_alloc.
std::string TraceJson(const TSDump& dump);

}  // namespace cv

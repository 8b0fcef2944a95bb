#include "PolicyTimes.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace zol {
namespace {

using Limits = std::numeric_limits<std::int32_t>;

constexpr std::int64_t kSecondsPerMinute = 60;

std::int32_t Clamp(std::int64_t number) {
    return static_cast<std::int32_t>(std::clamp<std::int64_t>(number, Limits::min(), Limits::max()));
}

}  // namespace

// As a machine whose longs are 32 bits wide reads it.
std::int32_t ReadSeconds(const std::string& text) {
    return Clamp(std::strtol(text.c_str(), nullptr, 10));
}

std::int32_t ToSeconds(std::int32_t minutes) {
    return Clamp(minutes * kSecondsPerMinute);
}

}  // namespace zol

#pragma once
/// What the times of a monitor mean. Stateless; any thread. The same on machines of any width.
#include <cstdint>
#include <string>

namespace zol {

/// Ignore time of a pairing rule that gives none, seconds.
constexpr std::int32_t kDefaultIgnoreSeconds = 10;

/// The number at the beginning of the text, 0 when there is none. Held at the limits of 32 bits.
[[nodiscard]] std::int32_t ReadSeconds(const std::string& text);

/// Held at the limits of 32 bits.
[[nodiscard]] std::int32_t ToSeconds(std::int32_t minutes);

}  // namespace zol

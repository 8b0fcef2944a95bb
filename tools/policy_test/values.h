#pragma once
/// Times, lengths of time and values of keys, as a scenario writes them.
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "scenario.h"

namespace policytest {

/// Longer ones are refused.
constexpr std::chrono::hours kLongestTime(24 * 400);

/// "1 h 30 min": numbers with the units ms, s, min, h and d, or their English names. Null for anything else.
[[nodiscard]] std::optional<std::chrono::nanoseconds> ParseLength(const std::string& text);
/// As it is parsed.
[[nodiscard]] std::string FormatLength(std::chrono::nanoseconds length);

/// "2026-01-31 23:59:59", UTC, as seconds since 1970; the seconds may be missing. Null for anything else,
/// also for a date before 1970 and one that no calendar has.
[[nodiscard]] std::optional<std::int64_t> ParseMoment(const std::string& text);
[[nodiscard]] std::string FormatMoment(std::int64_t seconds);

/// Completes "23:59" and "2026-01-31 23:59" by the seconds. Null when it is neither moment nor time of day.
[[nodiscard]] std::optional<std::string> ParseTimeOrMoment(const std::string& text);
/// Whether `moment` is at `expected`, a result of ParseTimeOrMoment.
[[nodiscard]] bool IsAt(const std::string& moment, const std::string& expected);

/// Of a scalar without quotation marks: true, false, an integer, or the text. Null for an integer of more
/// than 32 bits.
[[nodiscard]] std::optional<KeyValue> ParseKeyValue(const std::string& text);
/// `"on"`, `3`, `true` or `nothing`.
[[nodiscard]] std::string FormatKeyValue(const KeyValue& value);

}  // namespace policytest

#pragma once
/// Moments as they are given on a command line.
#include <cstdint>
#include <optional>
#include <string>

namespace zolctl {

/// What MomentOf takes, for messages.
constexpr const char* kMomentForms = "90s, 10m, 2h or 3d ago, or 2026-01-31T23:59:59Z";

/// Seconds since 1970; none for a text of no such form.
[[nodiscard]] std::optional<std::int64_t> MomentOf(const std::string& text);

/// The moment that an option --since names; 0 when it was not given. None for a text of no such form, which
/// is told on standard error.
[[nodiscard]] std::optional<std::int64_t> SinceOf(const std::string& option);

}  // namespace zolctl

#pragma once
/// What a line of a log is made of.
#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>

namespace base {

/// What printf makes of the format and its arguments, cut to what the buffer holds with an ending zero. The
/// text of a bare "%s" is not copied. Valid as long as the buffer and that text are.
std::string_view FormatText(char* buffer, std::size_t size, const char* format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

/// Whether it holds a control character: any below the blank, or the one that deletes.
bool HasControls(std::string_view text);

/// Dates of log lines. The time zone is asked once for all lines of a second. Not thread-safe.
class LocalStamp {
public:
    /// "2026-01-31 23:59:59.123" in local time; valid until the next call.
    /// @param seconds since 1970, UTC
    std::string_view Of(std::int64_t seconds, std::int64_t nanoseconds);

private:
    std::int64_t m_second = std::numeric_limits<std::int64_t>::min();  // that m_text shows
    std::array<char, 48> m_text{};
    std::size_t m_length = 0;  // up to the seconds
};

}  // namespace base

#pragma once
/// Text for a line of output.
#include <cstdint>
#include <string>

namespace tools {

/// `text` as one field of one line, whatever it holds: tab, line feed, carriage return and backslash are
/// shown as in C.
std::string OneLine(const std::string& text);

/// The same for a line that people look at: control characters, which a terminal would obey, are shown as in
/// C, too ("\x1b").
std::string Printable(const std::string& text);

/// Seconds since 1970 as "2026-01-31T23:59:59Z".
std::string UtcTime(std::int64_t seconds);
/// The same for people: "2026-01-31 23:59", where the machine is.
std::string LocalTime(std::int64_t seconds);

}  // namespace tools

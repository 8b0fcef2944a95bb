#pragma once
/// The text of a policy, as it is given on the command line.
#include <string>

namespace zolctl {

/// Empty when it was read, else why not: one line.
using Unreadable = std::string;

/// As named: a pipe is waited for.
/// @param file "-" for standard input
[[nodiscard]] Unreadable ReadDocument(const std::string& file, std::string& text);

/// A regular file that may well be XML, and nothing else; never waits for one.
/// @param file "-" for standard input, which may be anything
[[nodiscard]] Unreadable ReadRegularDocument(const std::string& file, std::string& text);

}  // namespace zolctl

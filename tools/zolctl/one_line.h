#pragma once
/// Text of others, fit for a line of output.
#include <string>

namespace zolctl {

/// `text` as one field of one line, whatever it holds: tab, line feed, carriage return and backslash are
/// shown as in C.
std::string OneLine(const std::string& text);

}  // namespace zolctl

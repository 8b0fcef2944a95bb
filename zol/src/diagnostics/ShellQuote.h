#pragma once
/// Text on its way into a shell command.
#include <string>

namespace zol {

/// `text` as one word that the shell takes literally. Text of letters, digits and "_./-" alone, not beginning
/// with "-", comes back unchanged, so that ordinary paths read as they are in logs.
std::string ShellQuote(const std::string& text);

}  // namespace zol

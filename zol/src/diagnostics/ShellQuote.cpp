#include "ShellQuote.h"

namespace zol {
namespace {

constexpr const char* kPlain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_./-";

}  // namespace

std::string ShellQuote(const std::string& text) {
    if (!text.empty() && text[0] != '-' && text.find_first_not_of(kPlain) == std::string::npos) {
        return text;
    }
    std::string quoted = "'";
    for (const char c : text) {
        // Inside single quotes nothing is special but the quote itself, which has to leave them.
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

}  // namespace zol

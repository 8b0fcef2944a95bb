#include "progress.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>

namespace tools {
namespace {

constexpr const char* kClear = "\r\x1b[K";

}  // namespace

std::string Bar(std::size_t done, std::size_t total) {
    constexpr std::size_t kWidth = 20;
    const std::size_t filled = total > 0 ? std::min(done, total) * kWidth / total : kWidth;
    return "[" + std::string(filled, '#') + std::string(kWidth - filled, '.') + "] " + std::to_string(done) +
           " of " + std::to_string(total);
}

ProgressLine::ProgressLine() : m_isTerminal(isatty(STDERR_FILENO) == 1) {}

void ProgressLine::Show(const std::string& text) {
    if (m_isTerminal) {
        std::cerr << kClear << text << std::flush;
        m_isShown = true;
    }
}

void ProgressLine::Clear() {
    if (m_isShown) {
        std::cerr << kClear << std::flush;
        m_isShown = false;
    }
}

}  // namespace tools

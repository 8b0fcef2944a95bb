#pragma once
/// How far something that takes long has come.
#include <cstddef>
#include <string>

namespace tools {

/// "[#####...............] 3 of 12"
[[nodiscard]] std::string Bar(std::size_t done, std::size_t total);

/// One line on the standard error that is drawn again and again, and goes at the end; nothing where that is
/// no terminal. Whoever prints something else clears it before.
class ProgressLine {
public:
    ProgressLine();
    ~ProgressLine() { Clear(); }
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    /// @param text printable, and shorter than a terminal is wide
    void Show(const std::string& text);
    void Clear();

private:
    const bool m_isTerminal;
    bool m_isShown = false;
};

}  // namespace tools

#include "one_line.h"

#include <string_view>

namespace zolctl {

std::string OneLine(const std::string& text) {
    constexpr std::string_view kSpecial = "\t\n\r\\";
    constexpr std::string_view kShown = "tnr\\";
    std::string line;
    for (const char c : text) {
        if (const std::size_t at = kSpecial.find(c); at != std::string_view::npos) {
            line.append({'\\', kShown[at]});
        } else {
            line += c;
        }
    }
    return line;
}

}  // namespace zolctl

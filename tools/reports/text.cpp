#include "text.h"

#include <time.h>

#include <array>
#include <string_view>

namespace tools {

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

std::string UtcTime(std::int64_t seconds) {
    const auto time = static_cast<time_t>(seconds);
    tm parts{};
    gmtime_r(&time, &parts);
    std::array<char, 32> text{};
    strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text.data();
}

}  // namespace tools

#include "text.h"

#include <time.h>

#include <iomanip>
#include <sstream>
#include <string_view>

namespace tools {
namespace {

std::string Format(const char* format, const tm& parts) {
    std::ostringstream text;
    text << std::put_time(&parts, format);
    return text.str();
}

}  // namespace

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

std::string Printable(const std::string& text) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    const std::string line = OneLine(text);
    std::string shown;
    std::size_t toEscape = 0;
    for (std::size_t i = 0; i < line.size(); ++i) {
        const auto byte = static_cast<unsigned char>(line[i]);
        const auto next = static_cast<unsigned char>(i + 1 < line.size() ? line[i + 1] : 0);
        if (byte < 0x20 || byte == 0x7F) {
            toEscape = 1;
        } else if (byte == 0xC2 && next >= 0x80 && next < 0xA0) {
            toEscape = 2;  // U+0080 to U+009F
        }
        if (toEscape > 0) {
            --toEscape;
            shown += {'\\', 'x', kDigits[byte >> 4U], kDigits[byte & 0xFU]};
        } else {
            shown += line[i];
        }
    }
    return shown;
}

std::string UtcTime(std::int64_t seconds) {
    const auto time = static_cast<time_t>(seconds);
    tm parts{};
    gmtime_r(&time, &parts);
    return Format("%Y-%m-%dT%H:%M:%SZ", parts);
}

std::string LocalTime(std::int64_t seconds) {
    const auto time = static_cast<time_t>(seconds);
    tm parts{};
    localtime_r(&time, &parts);
    return Format("%Y-%m-%d %H:%M", parts);
}

}  // namespace tools

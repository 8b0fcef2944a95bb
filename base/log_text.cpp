#include "base/log_text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace base {
namespace {

constexpr std::size_t kMilliseconds = 4;  // bytes, with the point

}  // namespace

std::string_view FormatText(char* buffer, std::size_t size, const char* format, va_list arguments) {
    if (std::strcmp(format, "%s") == 0) {
        const char* text = va_arg(arguments, const char*);
        text = text != nullptr ? text : "(null)";
        return {text, strnlen(text, size - 1)};
    }
    // The analyzer loses track of a list that was begun by the caller's caller.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    const int length = std::vsnprintf(buffer, size, format, arguments);
    return {buffer, std::min(static_cast<std::size_t>(std::max(length, 0)), size - 1)};
}

bool HasControls(std::string_view text) {
    // No way out in the middle, and a number: so the compiler takes many characters at once.
    unsigned found = 0;
    for (const char character : text) {
        const auto code = static_cast<unsigned char>(character);
        found |= static_cast<unsigned>(code < 0x20) | static_cast<unsigned>(code == 0x7f);
    }
    return found != 0;
}

std::string_view LocalStamp::Of(std::int64_t seconds, std::int64_t nanoseconds) {
    if (seconds != m_second) {
        const auto moment = static_cast<std::time_t>(seconds);
        std::tm local{};
        localtime_r(&moment, &local);
        m_length = std::strftime(m_text.data(), m_text.size() - kMilliseconds, "%Y-%m-%d %H:%M:%S", &local);
        m_second = seconds;
    }
    const auto milliseconds = static_cast<int>(nanoseconds / 1000000);
    char* end = m_text.data() + m_length;
    end[0] = '.';
    end[1] = static_cast<char>('0' + milliseconds / 100);
    end[2] = static_cast<char>('0' + milliseconds / 10 % 10);
    end[3] = static_cast<char>('0' + milliseconds % 10);
    return {m_text.data(), m_length + kMilliseconds};
}

}  // namespace base

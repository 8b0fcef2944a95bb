#include "base/log_text.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <string>

namespace {

constexpr std::size_t kSize = 8;
std::array<char, kSize> g_buffer;

__attribute__((format(printf, 1, 2))) std::string_view Format(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string_view text = base::FormatText(g_buffer.data(), kSize, format, arguments);
    va_end(arguments);
    return text;
}

TEST(FormatText, DoesWhatPrintfDoesAndCutsIt) {
    EXPECT_EQ(Format("%d %s", 5, "x"), "5 x");
    EXPECT_EQ(Format("%s%d", "1234567", 8), "1234567");
    EXPECT_EQ(Format("%s", ""), "");
}

TEST(FormatText, TakesABareTextAsItIsAndCutsItToo) {
    const char* text = "123456789";
    EXPECT_EQ(Format("%s", text), "1234567");
    EXPECT_EQ(Format("%s", text).data(), text);
    const char* volatile none = nullptr;  // not known to the compiler
    EXPECT_EQ(Format("%s", none), "(null)");
}

TEST(HasControls, KnowsThemWhereverTheyStand) {
    for (int code = 1; code < 256; ++code) {
        std::string text(100, 'x');
        text[static_cast<std::size_t>(code) % text.size()] = static_cast<char>(code);
        EXPECT_EQ(base::HasControls(text), code < 0x20 || code == 0x7f) << code;
    }
    EXPECT_FALSE(base::HasControls(""));
}

TEST(LocalStamp, ShowsLocalTimeWithMilliseconds) {
    base::LocalStamp stamp;
    const auto expected = [](std::time_t seconds) {
        std::tm local{};
        localtime_r(&seconds, &local);
        std::array<char, 32> text;
        return std::string(text.data(), std::strftime(text.data(), text.size(), "%F %T", &local));
    };
    EXPECT_EQ(stamp.Of(1700000000, 7999999), expected(1700000000) + ".007");
    EXPECT_EQ(stamp.Of(1700000000, 999999999), expected(1700000000) + ".999");
    EXPECT_EQ(stamp.Of(1700000001, 120000000), expected(1700000001) + ".120");
    EXPECT_EQ(stamp.Of(-1, 0), expected(-1) + ".000");
}

}  // namespace

#include "values.h"

#include <time.h>

#include <array>
#include <cctype>
#include <charconv>
#include <cstddef>
#include <string_view>

namespace policytest {
namespace {

using std::chrono::nanoseconds;

struct Unit {
    std::string_view name;
    nanoseconds length;
};

constexpr nanoseconds kMs = std::chrono::milliseconds(1);
constexpr nanoseconds kSecond = std::chrono::seconds(1);
constexpr nanoseconds kMinute = std::chrono::minutes(1);
constexpr nanoseconds kHour = std::chrono::hours(1);
constexpr nanoseconds kDay = std::chrono::hours(24);

/// The first of each length is what is printed.
constexpr std::array<Unit, 14> kUnits{{{"d", kDay},
                                       {"day", kDay},
                                       {"days", kDay},
                                       {"h", kHour},
                                       {"hour", kHour},
                                       {"hours", kHour},
                                       {"min", kMinute},
                                       {"minute", kMinute},
                                       {"minutes", kMinute},
                                       {"s", kSecond},
                                       {"sec", kSecond},
                                       {"second", kSecond},
                                       {"seconds", kSecond},
                                       {"ms", kMs}}};

constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kDigits = "0123456789";

/// Takes what consists of these characters off the beginning.
std::string_view TakeWhile(std::string_view& text, std::string_view characters) {
    const std::string_view taken = text.substr(0, text.find_first_not_of(characters));
    text.remove_prefix(taken.size());
    return taken;
}

std::string_view TakeWord(std::string_view& text) {
    std::size_t length = 0;
    while (length < text.size() && std::isalpha(static_cast<unsigned char>(text[length])) != 0) {
        ++length;
    }
    const std::string_view taken = text.substr(0, length);
    text.remove_prefix(length);
    return taken;
}

/// The whole text is this number.
template <typename Number>
std::optional<Number> ToNumber(std::string_view text) {
    Number number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isWhole = error == std::errc() && end == text.data() + text.size();
    return isWhole ? std::optional<Number>(number) : std::nullopt;
}

std::optional<nanoseconds> LengthOf(std::string_view count, std::string_view unit) {
    const auto number = ToNumber<std::int64_t>(count);
    for (const Unit& known : kUnits) {
        if (number && known.name == unit && *number <= nanoseconds(kLongestTime) / known.length) {
            return *number * known.length;
        }
    }
    return std::nullopt;
}

/// Digits as `pattern` has them: "99:99" is two, a colon, two.
bool Fits(std::string_view text, std::string_view pattern) {
    if (text.size() != pattern.size()) {
        return false;
    }
    for (std::size_t at = 0; at < text.size(); ++at) {
        const bool isDigit = kDigits.find(text[at]) != std::string_view::npos;
        if (pattern[at] == '9' ? !isDigit : text[at] != pattern[at]) {
            return false;
        }
    }
    return true;
}

int Field(const std::string& text, std::size_t at, std::size_t length) {
    return ToNumber<int>(std::string_view(text).substr(at, length)).value_or(0);
}

constexpr std::size_t kDateLength = sizeof("2026-01-31 ") - 1;

}  // namespace

std::optional<nanoseconds> ParseLength(const std::string& text) {
    std::string_view rest = text;
    nanoseconds sum(0);
    do {
        TakeWhile(rest, kBlanks);
        const std::string_view count = TakeWhile(rest, kDigits);
        TakeWhile(rest, kBlanks);
        const std::optional<nanoseconds> length = LengthOf(count, TakeWord(rest));
        if (!length || sum + *length > nanoseconds(kLongestTime)) {
            return std::nullopt;
        }
        sum += *length;
        TakeWhile(rest, kBlanks);
    } while (!rest.empty());
    return sum;
}

std::string FormatLength(nanoseconds length) {
    std::string text;
    nanoseconds last(0);
    for (const Unit& unit : kUnits) {
        if (unit.length != last && length >= unit.length) {
            text.append(text.empty() ? "" : " ").append(std::to_string(length / unit.length));
            text.append(" ").append(unit.name);
            length %= unit.length;
        }
        last = unit.length;
    }
    return text.empty() ? "0 s" : text;
}

std::optional<std::int64_t> ParseMoment(const std::string& text) {
    const std::string whole = Fits(text, "9999-99-99 99:99") ? text + ":00" : text;
    if (!Fits(whole, "9999-99-99 99:99:99")) {
        return std::nullopt;
    }
    tm parts{};
    parts.tm_year = Field(whole, 0, 4) - 1900;
    parts.tm_mon = Field(whole, 5, 2) - 1;
    parts.tm_mday = Field(whole, 8, 2);
    parts.tm_hour = Field(whole, 11, 2);
    parts.tm_min = Field(whole, 14, 2);
    parts.tm_sec = Field(whole, 17, 2);
    const std::int64_t seconds = timegm(&parts);
    // What no calendar has comes back as another moment.
    return seconds >= 0 && FormatMoment(seconds) == whole ? std::optional<std::int64_t>(seconds)
                                                          : std::nullopt;
}

std::string FormatMoment(std::int64_t seconds) {
    const auto time = static_cast<time_t>(seconds);
    tm parts{};
    gmtime_r(&time, &parts);
    std::array<char, 64> text{};
    strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
    return text.data();
}

std::optional<std::string> ParseTimeOrMoment(const std::string& text) {
    const bool isTime = Fits(text, "99:99") || Fits(text, "99:99:99");
    const std::string day = "2000-01-01 ";
    const std::optional<std::int64_t> moment = ParseMoment(isTime ? day + text : text);
    if (!moment) {
        return std::nullopt;
    }
    return FormatMoment(*moment).substr(isTime ? kDateLength : 0);
}

bool IsAt(const std::string& moment, const std::string& expected) {
    const bool isTime = expected.size() < kDateLength;
    return (isTime ? moment.substr(kDateLength) : moment) == expected;
}

std::optional<KeyValue> ParseKeyValue(const std::string& text) {
    if (text == "true" || text == "false") {
        return KeyValue(text == "true");
    }
    std::string_view digits = text;
    digits.remove_prefix(digits.substr(0, 1) == "-" ? 1 : 0);
    if (digits.empty() || digits.find_first_not_of(kDigits) != std::string_view::npos) {
        return KeyValue(text);
    }
    const auto number = ToNumber<int>(text);
    return number ? std::optional<KeyValue>(KeyValue(*number)) : std::nullopt;
}

std::string FormatKeyValue(const KeyValue& value) {
    if (const auto* flag = std::get_if<bool>(&value)) {
        return *flag ? "true" : "false";
    }
    if (const auto* number = std::get_if<int>(&value)) {
        return std::to_string(*number);
    }
    const auto* text = std::get_if<std::string>(&value);
    return text != nullptr ? '"' + *text + '"' : "nothing";
}

}  // namespace policytest

#include "record.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <ctime>

namespace dlogutil {
namespace {

constexpr std::string_view kLetters = "VDIWEF";
constexpr std::size_t kSecondsLength = std::string_view("2026-01-31 23:59:59").size();
constexpr std::size_t kDateTimeLength = kSecondsLength + std::string_view(".123").size();

/// -1 when the text is no time. The last answer is kept, as many lines share their second.
std::int64_t ParseSeconds(const std::string& text) {
    thread_local std::string known;
    thread_local std::int64_t seconds = -1;
    if (text != known) {
        tm local{};
        local.tm_isdst = -1;
        const char* end = strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &local);
        seconds = end != nullptr && *end == '\0' ? static_cast<std::int64_t>(mktime(&local)) : -1;
        known = text;
    }
    return seconds;
}

/// The text up to the separator, which is taken away with it. False when there is none.
bool TakeUntil(std::string_view separator, std::string_view* rest, std::string* out) {
    const std::size_t at = rest->find(separator);
    if (at == std::string_view::npos) {
        return false;
    }
    *out = rest->substr(0, at);
    rest->remove_prefix(at + separator.size());
    return true;
}

bool AreDigits(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

bool ParseLine(std::string_view line, Record* out) {
    // After the date: blank, letter, slash.
    if (line.size() < kDateTimeLength + 3 || line[kSecondsLength] != '.' || line[kDateTimeLength] != ' ' ||
        line[kDateTimeLength + 2] != '/') {
        return false;
    }
    out->dateTime = line.substr(0, kDateTimeLength);
    out->priority = line[kDateTimeLength + 1];
    const std::int64_t seconds = ParseSeconds(out->dateTime.substr(0, kSecondsLength));
    const std::string milliseconds = out->dateTime.substr(kSecondsLength + 1);
    line.remove_prefix(kDateTimeLength + 3);
    if (seconds < 0 || !AreDigits(milliseconds) || kLetters.find(out->priority) == std::string_view::npos ||
        !TakeUntil("(", &line, &out->tag) || !TakeUntil(":", &line, &out->pid) ||
        !TakeUntil("): ", &line, &out->tid) || !AreDigits(out->pid) || !AreDigits(out->tid)) {
        return false;
    }
    out->wallUs = (seconds * 1000 + std::stoi(milliseconds)) * 1000;
    out->message = line;
    return true;
}

std::string Print(const Record& record, Format format) {
    const std::string head = std::string(1, record.priority) + "/" + record.tag + "(" + record.pid;
    if (format == Format::Brief) {
        return head + "): " + record.message + "\n";
    }
    std::string stamp = record.dateTime;
    if (format == Format::KernelTime) {
        std::array<char, 48> text;
        const std::int64_t us = record.steadyUs;
        const std::int64_t size = us < 0 ? -us : us;
        std::snprintf(text.data(), text.size(), "%s%" PRId64 ".%06" PRId64, us < 0 ? "-" : "", size / 1000000,
                      size % 1000000);
        stamp = text.data();
    }
    return stamp + " " + head + ":" + record.tid + "): " + record.message + "\n";
}

std::string DateTime(std::int64_t wallUs) {
    const auto seconds = static_cast<time_t>(wallUs / 1000000);
    tm local{};
    localtime_r(&seconds, &local);
    std::array<char, 48> text;
    const std::size_t length = strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(text.data() + length, text.size() - length, ".%03d",
                  static_cast<int>(wallUs / 1000 % 1000));
    return text.data();
}

std::string Visible(std::string_view text) {
    std::string visible;
    for (const char character : text) {
        const auto code = static_cast<unsigned char>(character);
        if (code == '\n') {
            visible += "\\n";
        } else if ((code < ' ' && code != '\t') || code == 0x7f) {
            std::array<char, 8> escape;
            std::snprintf(escape.data(), escape.size(), "\\x%02x", static_cast<unsigned>(code));
            visible += escape.data();
        } else {
            visible += character;
        }
    }
    return visible;
}

bool Filters::Add(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    Filter filter{text, 0};
    if (colon != std::string::npos) {
        filter.tag = text.substr(0, colon);
        filter.lowest = text.size() == colon + 2 ? kLetters.find(text[colon + 1]) : std::string_view::npos;
    }
    if (filter.lowest == std::string_view::npos) {
        return false;
    }
    m_filters.push_back(filter);
    return true;
}

bool Filters::Wants(char priority, std::string_view tag) const {
    const std::size_t rank = kLetters.find(priority);
    return m_filters.empty() || std::any_of(m_filters.begin(), m_filters.end(), [&](const Filter& filter) {
               return rank >= filter.lowest && (filter.tag == "*" || filter.tag == tag);
           });
}

std::vector<std::string> Filters::Tags() const {
    std::vector<std::string> tags;
    for (const Filter& filter : m_filters) {
        if (filter.tag == "*") {
            return {};
        }
        tags.push_back(filter.tag);
    }
    return tags;
}

}  // namespace dlogutil

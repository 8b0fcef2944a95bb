#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace dlogutil {

/// One line of the log.
struct Record {
    char priority = 'I';  ///< V D I W E F
    std::string tag;
    std::string pid;
    std::string tid;
    std::string message;        ///< without control characters
    std::string dateTime;       ///< local time with milliseconds
    std::int64_t wallUs = 0;    ///< microseconds since 1970
    std::int64_t steadyUs = 0;  ///< microseconds on the monotonic clock
};

enum class Format { Time, KernelTime, Brief };

/// Reads "<date time> <P>/<TAG>(<pid>:<tid>): <message>". The monotonic time is left alone. False when the
/// line has another form.
[[nodiscard]] bool ParseLine(std::string_view line, Record* out);

/// The record as a line with its end.
std::string Print(const Record& record, Format format);

/// "2026-01-31 23:59:59.123" in local time.
std::string DateTime(std::int64_t wallUs);

/// Makes control characters visible, so that a message stays on its line.
std::string Visible(std::string_view text);

/// Which records are wanted: all, when there is no filter, else those that one of the filters lets through.
class Filters {
public:
    /// @param text "TAG" or "TAG:P" with the lowest priority wanted; the tag "*" stands for every tag.
    /// @return false when P is no priority's letter
    [[nodiscard]] bool Add(const std::string& text);

    bool Wants(char priority, std::string_view tag) const;

    /// The tags asked for; empty when every tag may be wanted.
    std::vector<std::string> Tags() const;

private:
    struct Filter {
        std::string tag;
        std::size_t lowest = 0;
    };
    std::vector<Filter> m_filters;
};

}  // namespace dlogutil

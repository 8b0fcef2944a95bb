#include "moment.h"

#include <glib.h>

#include <algorithm>
#include <charconv>
#include <iostream>
#include <map>

#include "base/handles.h"
#include "platform_clock.h"
#include "text.h"

namespace zolctl {
namespace {

using DateTimePtr = std::unique_ptr<GDateTime, base::FreeWith<g_date_time_unref>>;

/// "10m" in seconds.
std::optional<std::int64_t> DurationOf(const std::string& text) {
    static const std::map<std::string, std::int64_t> units{{"s", 1}, {"m", 60}, {"h", 3600}, {"d", 86400}};
    std::int64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    const auto unit = units.find(std::string(stop, end));
    constexpr std::int64_t kLongest = 1000000000;
    if (error != std::errc() || unit == units.end() || number < 0 || number > kLongest) {
        return std::nullopt;
    }
    return number * unit->second;
}

}  // namespace

std::optional<std::int64_t> MomentOf(const std::string& text) {
    if (const std::optional<std::int64_t> ago = DurationOf(text)) {
        platform_time_t now{};
        return platform_clock_realtime(&now) == 0
                   ? std::optional(std::max(now.seconds - *ago, std::int64_t{0}))
                   : std::nullopt;
    }
    const DateTimePtr moment(g_date_time_new_from_iso8601(text.c_str(), nullptr));
    return moment != nullptr ? std::optional<std::int64_t>(g_date_time_to_unix(moment.get())) : std::nullopt;
}

std::optional<std::int64_t> SinceOf(const std::string& option) {
    const std::optional<std::int64_t> moment =
        option.empty() ? std::optional<std::int64_t>(0) : MomentOf(option);
    if (!moment) {
        std::cerr << "zolctl: --since " << tools::OneLine(option) << " is no time: " << kMomentForms << '\n';
    }
    return moment;
}

}  // namespace zolctl

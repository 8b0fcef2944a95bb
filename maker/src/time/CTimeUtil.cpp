#include "CTimeUtil.h"

#include <algorithm>
#include <cstdint>

#include "platform_clock.h"

namespace {

// The calendar of the policy clock ends here, and moments outside it end in an exception.
constexpr std::int64_t kFirstSecond = -17987443200;  // 1400-01-01 00:00:00 UTC
constexpr std::int64_t kLastSecond = 253402300799;   // 9999-12-31 23:59:59 UTC

}  // namespace

time_t CTimeUtil::GetCurrentTime() {
    platform_time_t now{};
    if (platform_clock_realtime(&now) != 0) {
        return 0;
    }
    return static_cast<time_t>(std::clamp<std::int64_t>(now.seconds, kFirstSecond, kLastSecond));
}

tm CTimeUtil::ConvertToUTCTime(const tm& local) {
    // The offset that localtime_r found for this very moment is the only thing that tells the two passes of
    // the doubled hour apart; mktime would have to guess.
    constexpr int kUnset = -1;
    tm fields = local;
    fields.tm_wday = kUnset;
    const time_t asIfUtc = timegm(&fields);
    tm utc{};
    time_t moment = 0;
    // timegm's -1 is also a moment; the weekday is filled in only when it succeeds.
    const bool valid = (asIfUtc != -1 || fields.tm_wday != kUnset) &&
                       !__builtin_sub_overflow(asIfUtc, static_cast<time_t>(local.tm_gmtoff), &moment);
    if (!valid || gmtime_r(&moment, &utc) == nullptr) {
        return tm{};
    }
    return utc;
}

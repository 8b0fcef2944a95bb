#include "CTimeUtil.h"

#include "platform_clock.h"

time_t CTimeUtil::GetCurrentTime() {
    platform_time_t now{};
    return platform_clock_realtime(&now) == 0 ? static_cast<time_t>(now.seconds) : 0;
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

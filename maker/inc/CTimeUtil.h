#pragma once
/// The maker's time utility. time_t and tm may stand here: this library is always built with its callers,
/// never taken from the device.
#include <ctime>

struct CTimeUtil {
    /// Platform time: whole seconds since 1970-01-01 00:00:00 UTC by the wall clock; 0 when it
    /// cannot be read. A clock outside the years 1400 to 9999 stands at their first or last second.
    static time_t GetCurrentTime();

    /// Local broken-down time to UTC broken-down time. Exact in every zone and through both changes of
    /// daylight-saving time: `local` comes from localtime_r, whose tm_gmtoff tells the two passes of the
    /// doubled hour apart. Fields may be out of range; the result is normalised, tm_isdst 0, tm_gmtoff 0.
    /// A moment that time_t cannot hold gives a record that is zero in every field, which is no date.
    static tm ConvertToUTCTime(const tm& local);
};

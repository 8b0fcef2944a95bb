#include "ZOLShiftedClock.h"

#include <boost/date_time/gregorian/gregorian_types.hpp>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <ctime>

#include "CTimeUtil.h"
#include "Log.h"
#include "StoredNumber.h"

namespace zol {
namespace {

constexpr const char* kLogModule = "zol::TCRelativeTime";

std::int64_t SecondsSince1970(const tm& utc) {
    const boost::posix_time::ptime epoch(boost::gregorian::date(1970, 1, 1));
    const boost::posix_time::time_duration since = boost::posix_time::ptime_from_tm(utc) - epoch;
    // total_seconds() is 32 bits wide on some builds of the library; ticks never are.
    return static_cast<std::int64_t>(since.ticks()) / boost::posix_time::time_duration::ticks_per_second();
}

/// A shift that was stored wrongly may be anything: the sum wraps instead of being undefined.
std::int64_t WrappingSum(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

}  // namespace

std::int64_t TCShiftedClock::GetCurrentTime() const {
    ZOL_LOG(LOG_DEBUG, "Getting current time");
    const time_t now = CTimeUtil::GetCurrentTime();
    tm local{};
    // A moment without a calendar date stays a record of zeros, which the date library refuses with its
    // exception. The conversion would make it a day of 1899.
    const bool hasDate = localtime_r(&now, &local) != nullptr;
    const tm utc = hasDate ? CTimeUtil::ConvertToUTCTime(local) : tm{};
    return WrappingSum(SecondsSince1970(utc), m_timeShift);
}

void TCShiftedClock::AccumulateTimeShift(long long seconds) {
    m_timeShift += seconds;
}

void TCShiftedClock::StoreTimeShift() const {
    WriteStoredNumber(KEY_CLOCK_DIFF, m_timeShift);
}

void TCShiftedClock::LoadTimeShift() {
    std::int64_t shift = 0;
    const EStoredNumber result = ReadStoredNumber(KEY_CLOCK_DIFF, shift);
    if (result == EStoredNumber::LOADED) {
        m_timeShift = shift;
    } else if (result == EStoredNumber::STREAM_FAILED) {
        ZOL_LOG(LOG_ERROR, "Could not stream time shift from string");
    } else if (result == EStoredNumber::CONVERT_FAILED) {
        ZOL_LOG(LOG_ERROR, "Could not convert time shift");
    }
}

void TCShiftedClock::ResetTimeShift() {
    m_timeShift = 0;
    StoreTimeShift();
}

}  // namespace zol

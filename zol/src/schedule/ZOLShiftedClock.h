#pragma once
/// Policy time: the wall clock in UTC seconds plus a shift that takes the clock's jumps out.
#include <atomic>
#include <cstdint>

namespace zol {

/// Any thread: a reader sees the shift before or after a change, never half of it.
class TCShiftedClock {
public:
    /// vconf string key that holds the last shift that was reset, decimal seconds.
    static constexpr const char* KEY_CLOCK_DIFF = "db/private/zol/clock_diff";

    TCShiftedClock() = default;
    virtual ~TCShiftedClock() = default;
    TCShiftedClock(const TCShiftedClock&) = delete;
    TCShiftedClock& operator=(const TCShiftedClock&) = delete;

    /// Policy time in seconds since 1970-01-01 00:00:00 UTC. It does not jump at a change of daylight-saving
    /// time, whatever the zone. A wall clock outside the years 1400 to 9999 counts as one that stands still
    /// at their edge. Throws the date library's exception (a std::out_of_range) for a moment that has no
    /// date.
    virtual std::int64_t GetCurrentTime() const;

    /// Moves policy time by `seconds`. Lost at the end of the process: only a reset is stored.
    void AccumulateTimeShift(long long seconds);
    /// Writes the shift to KEY_CLOCK_DIFF. A failed write is ignored.
    void StoreTimeShift() const;
    /// Takes the shift from KEY_CLOCK_DIFF. A missing key leaves it as it is; so does a text that is no
    /// signed 64-bit number, which is logged.
    void LoadTimeShift();
    /// Shift 0, stored.
    void ResetTimeShift();

private:
    std::atomic<std::int64_t> m_timeShift{0};  ///< seconds
};

}  // namespace zol

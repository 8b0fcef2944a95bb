#pragma once
/// Clocks, sleeping and waiting. The one seam for time: tests link an implementation whose time stands
/// still until they move it.
#include <semaphore.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// A moment of the wall clock: UTC since 1970. The same bytes whatever width the includer's time_t has.
typedef struct platform_time_s {
    int64_t seconds;
    int64_t nanoseconds;  ///< 0 to 999,999,999
} platform_time_t;

/// The wall clock, which may be set forward or back at any time. 0 on success, else -1 (then *out is
/// untouched).
int platform_clock_realtime(platform_time_t* out);

/// Nanoseconds on a clock that never jumps and starts anywhere.
uint64_t platform_clock_steady_ns(void);

/// Sleeps the calling thread for at least this long.
void platform_sleep_us(uint64_t microseconds);

/// Waits until `sem` can be taken or the wall clock reaches `deadline`. 0 when it was taken, else -1
/// with errno (ETIMEDOUT; EINVAL at once when `nanoseconds` is out of range).
int platform_sem_wait_until(sem_t* sem, const platform_time_t* deadline);

/// One waiter, any number of ringers. A ring while nobody waits ends the next wait at once; several such
/// rings count as one.
typedef struct platform_alarm_s platform_alarm_t;

/// Null when there is no memory. Owned by the caller, freed with platform_alarm_free.
platform_alarm_t* platform_alarm_new(void);
/// Nobody may wait or ring any more. Null is allowed.
void platform_alarm_free(platform_alarm_t* alarm);
/// Waits for a ring or for `nanoseconds` of steady time. 1 when rung, 0 when the time is over.
int platform_alarm_wait(platform_alarm_t* alarm, uint64_t nanoseconds);
/// Waits for a ring or until the wall clock is at `moment` or past it, also when it is set there; null: for a
/// ring only. Costs nothing meanwhile. 1 when rung, 0 when the moment has come.
int platform_alarm_wait_until(platform_alarm_t* alarm, const platform_time_t* moment);
/// Any thread; never blocks for long; allocates nothing.
void platform_alarm_ring(platform_alarm_t* alarm);

#ifdef __cplusplus
}
#endif

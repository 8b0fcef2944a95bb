#pragma once
/// Whoever supervises the daemon and starts it anew when it shows no life. One thread.
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Microseconds within which the supervisor wants each next sign of life, from the start of the process on;
/// 0 when nobody supervises.
uint64_t service_watchdog_interval_us(void);

/// Says that the daemon is built and serves: what waits for it may go on.
void service_watchdog_ready(void);

/// Says in a line what goes on, for whoever looks at the service.
void service_watchdog_status(const char* line);

/// Shows life. It cannot fail for the caller: a sign that gets lost is one that was not given.
void service_watchdog_alive(void);

#ifdef __cplusplus
}
#endif

#include "service_watchdog.h"

#include <systemd/sd-daemon.h>

extern "C" {

uint64_t service_watchdog_interval_us(void) {
    uint64_t interval = 0;
    return sd_watchdog_enabled(0, &interval) > 0 ? interval : 0;
}

void service_watchdog_ready(void) {
    static_cast<void>(sd_notify(0, "READY=1"));  // the supervisor waits for it no longer than it wants to
}

void service_watchdog_status(const char* line) {
    static_cast<void>(sd_notifyf(0, "STATUS=%s", line));  // nobody depends on it
}

void service_watchdog_alive(void) {
    // Nobody could do more about a failure than the supervisor does.
    static_cast<void>(sd_notify(0, "WATCHDOG=1"));
}
}

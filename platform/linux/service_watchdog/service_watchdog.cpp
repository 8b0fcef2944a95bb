#include "service_watchdog.h"

#include <string>

#include "guarded.h"
#include "supervisor.h"

extern "C" {

uint64_t service_watchdog_interval_us(void) {
    return platform::WatchdogIntervalUs();
}

void service_watchdog_ready(void) {
    platform::TellSupervisor("READY=1");
}

void service_watchdog_status(const char* line) {
    platform::Guarded("status line", [line] { platform::TellSupervisor(std::string("STATUS=") + line); });
}

void service_watchdog_alive(void) {
    platform::TellSupervisor("WATCHDOG=1");
}
}

#include "fake_service_watchdog.h"

#include "fake_internal.h"
#include "service_watchdog.h"

namespace fakes {
namespace {

std::uint64_t g_interval = 0;
int g_signs = 0;
bool g_isReady = false;
std::string g_status;

}  // namespace

void ResetServiceWatchdog() {
    g_interval = 0;
    g_signs = 0;
    g_isReady = false;
    g_status.clear();
}

namespace service_watchdog {

void SetInterval(std::uint64_t microseconds) {
    g_interval = microseconds;
}

int SignsOfLife() {
    return g_signs;
}

bool IsReady() {
    return g_isReady;
}

std::string Status() {
    return g_status;
}

}  // namespace service_watchdog
}  // namespace fakes

extern "C" {

uint64_t service_watchdog_interval_us(void) {
    return fakes::g_interval;
}

void service_watchdog_ready(void) {
    fakes::g_isReady = true;
}

void service_watchdog_status(const char* line) {
    fakes::g_status = line;
}

void service_watchdog_alive(void) {
    ++fakes::g_signs;
}
}

#pragma once
/// Which services of the machine are missing.

#ifdef __cplusplus
extern "C" {
#endif

/// Calls `each` for each service that the platform uses for somebody in this process and that is not there
/// now, on the calling thread, before it returns. The name is for people ("BlueZ") and valid during the
/// callback only; no function of platform/inc may be called from inside it. Any thread; never waits.
void platform_services_missing(void (*each)(const char* name, void* user_data), void* user_data);

#ifdef __cplusplus
}
#endif

#pragma once
/// The web-app service: what happens to installed web applications.

#ifdef __cplusplus
extern "C" {
#endif

typedef enum was_notify_event_e {
    WAS_NOTIFY_INSTALL_COMPLETED = 100,  ///< an installation is complete, a re-installation included
    WAS_NOTIFY_UNINSTALLED = 200         ///< the application is gone
} was_notify_event_e;

/// Runs on a thread of the service's own, one call at a time. The two integers are 0 on this platform.
typedef void (*was_install_status_cb)(const char* app_id, was_notify_event_e event, int value1, int value2,
                                      void* user_data);

/// One registration, given by value.
typedef struct was_install_status_request {
    int reserved;      ///< 0
    char app_id[128];  ///< NUL-terminated
    was_install_status_cb callback;
    void* user_data;
} was_install_status_request;

/// Reports the installs of `request.app_id` from now on. 0 on success; negative when the id is empty, could
/// leave the applications folders ("/", ".", ".."), or the service has no resources.
int was_monitor_webapp_install_status(was_install_status_request request);

/// Withdraws every registration with this callback and user data. When this returns the callback is not
/// running for them and never runs again. Not from inside the callback. 0 on success, -1 when there is none.
int was_unmonitor_webapp_install_status(was_install_status_cb callback, void* user_data);

#ifdef __cplusplus
}
#endif

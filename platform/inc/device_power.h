#pragma once
/// Power state notifications of the device.

#ifdef __cplusplus
extern "C" {
#endif

/// `reason` is one of enum device_power_reason. The return value is ignored by the platform.
typedef int (*device_power_callback_fn)(int reason, void* user_data);

enum device_power_reason {
    DEVICE_POWER_STANDBY = 0,  ///< going to sleep, or back from it
    DEVICE_POWER_SHUTDOWN = 1  ///< the machine goes off (power-off callback only)
};

/// Callbacks run on the thread-default GLib main context of the subscribing thread, before the device goes
/// to standby or off, and after it woke up. One subscription per callback: subscribing it again on the same
/// context replaces the user data, on another one it is refused. 0 on success, negative on failure. Where the
/// power service is missing the subscription succeeds and comes alive when the service appears.
int device_power_subscribe_poweroff(device_power_callback_fn callback, void* user_data);
int device_power_subscribe_wakeup(device_power_callback_fn callback, void* user_data);

/// Called on the subscribing thread; the callback never runs again once this returns. 0 on success, -1 when
/// it was not subscribed.
int device_power_unsubscribe_poweroff(device_power_callback_fn callback);
int device_power_unsubscribe_wakeup(device_power_callback_fn callback);

/// Keeps the device from going for work that outlives its power-off callback.
typedef struct device_power_hold_s device_power_hold_t;

/// Inside a power-off callback. The device goes when all callbacks have returned and all holds are released,
/// or shortly before the power service stops waiting by itself. Owned by the caller. Null outside such a
/// callback, when the service does not wait at all and when there is no memory.
device_power_hold_t* device_power_hold(void);
/// Any thread. Null is allowed.
void device_power_release(device_power_hold_t* hold);

#ifdef __cplusplus
}
#endif

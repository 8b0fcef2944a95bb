#pragma once
/// Connections of the Bluetooth smart remote.
#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/// A remote control as the platform knows it. Owned by the platform, valid during the callback only.
typedef struct bt_device_info_s {
    const char* remote_address;  ///< "AA:BB:CC:DD:EE:FF"
    const char* remote_name;     ///< may be empty, never null
} bt_device_info_s;

/// Runs on a thread of the platform's own, one call at a time.
typedef void (*bt_hid_smart_rc_connection_cb)(bool connected, bt_device_info_s* device, void* user_data);

/// There is one callback slot in the process: setting it replaces an earlier callback. 0 on success, else
/// negative. Where the Bluetooth service is missing the call succeeds and comes alive when it appears.
int bt_hid_set_smart_rc_connection_cb(bt_hid_smart_rc_connection_cb callback, void* user_data);

/// Empties the slot if it holds this callback and user data. When this returns the callback is not running
/// and never runs again. Not from inside the callback. 0 on success, -1 when the slot holds something else.
int bt_hid_unset_smart_rc_connection_cb(bt_hid_smart_rc_connection_cb callback, void* user_data);

#ifdef __cplusplus
}
#endif

#pragma once
/// Run-time information of the device.

#ifdef __cplusplus
extern "C" {
#endif

enum runtime_info_key { RUNTIME_INFO_SHOP_MODE = 10010 };  ///< 0 or 1

/// 0 on success; negative when there is no such integer (then *value is untouched). Any thread.
int runtime_info_get_value_int(int key, int* value);

#ifdef __cplusplus
}
#endif

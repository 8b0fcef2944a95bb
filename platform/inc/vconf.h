#pragma once
/// The configuration store: typed keys that every process may read, set and watch.
///
/// Keys are paths without a leading slash. Those under "db/" and "file/" survive a power cut as soon as
/// the set has returned; those under "memory/" last until power-off. A key holds one value of one type;
/// setting it with another type changes its type. All functions may be called from any thread.
///
/// A get, a set or a watch that fails says why in errno: ENOENT no such key, EINVAL a key of another type or
/// not a valid key or value, EACCES the caller is not allowed to use the store, EDQUOT the caller has as much
/// in it as it may have, EIO anything else. A call that finds the store out of order fails within seconds.

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Value types of a key.
enum vconf_type { VCONF_TYPE_NONE = 0, VCONF_TYPE_INT = 1, VCONF_TYPE_STRING = 2, VCONF_TYPE_BOOL = 3 };

/// A change as it is told to a watcher. Owned by the store and valid during the callback only.
typedef struct keynode_s {
    const char* keyname;    ///< the key that changed
    int type;               ///< enum vconf_type; VCONF_TYPE_NONE when the key was removed
    int int_value;          ///< value of an int or bool (0 or 1) key at the time of the notification
    const char* str_value;  ///< value of a string key, else null
} keynode_t;

/// Runs on the thread that runs GLib's default main context; a set on that thread may call it before it
/// returns. It may call all functions here, and gets and sets of other threads do not wait for it.
typedef void (*vconf_callback_fn)(keynode_t* node, void* user_data);

/// 1 when somebody serves the store that this process may use, else 0. Starts nothing and does not wait,
/// unlike a get, which brings up a store that nobody serves.
int vconf_is_served(void);

/// 0 on success; -1 when the key is missing, holds another type or cannot be read (then *out is untouched).
int vconf_get_int(const char* key, int* out);
int vconf_get_bool(const char* key, int* out);
/// The caller frees the result with free(). Null when the key is missing, no string, or cannot be read.
char* vconf_get_str(const char* key);

/// 0 on success, else -1. The value is durable and every watcher in every process will be told.
int vconf_set_int(const char* key, int value);
int vconf_set_bool(const char* key, int value);
int vconf_set_str(const char* key, const char* value);

/// Removes a key. 0 on success, also when there was none; else -1.
int vconf_unset(const char* key);

/// The first key behind `key` in the order of their bytes; an empty one begins the list.
/// @param next receives the name, cut to fit
/// @return 0; -1 when there is none (errno ENOENT) or the store cannot be read
int vconf_next_key(const char* key, char* next, size_t size);

/// Calls `callback` after every change of `key`, whoever made it, also when the same value is set again.
/// Several changes may arrive as one call; the last one is never lost, also when the store was out of order
/// for a while: then a change may be told that was known. The same (key, callback, user_data) may be
/// registered several times: it is called once per change and must be withdrawn as often. 0 on success,
/// negative on failure.
int vconf_notify_key_changed(const char* key, vconf_callback_fn callback, void* user_data);

/// Withdraws one registration. When it was the last of its kind the callback is not running and never runs
/// again once this returns (called from inside the callback itself: it is not called again).
/// 0 on success, -1 when there is no such registration.
int vconf_withdraw_key_changed(const char* key, vconf_callback_fn callback, void* user_data);

/// enum vconf_type of the changed key; VCONF_TYPE_NONE for a null node.
int vconf_keynode_get_type(const keynode_t* node);

#ifdef __cplusplus
}
#endif

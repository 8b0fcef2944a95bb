#include "vconf.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "device_path.h"
#include "device_paths.h"
#include "guarded.h"
#include "vconf/key_store.h"

namespace {

using keystore::KeyStore;
using keystore::Value;

/// Never destroyed: threads of the process may use it until the very end.
KeyStore& The() {
    static auto* store = new KeyStore(DevicePath(ZOL_PATH_VCONF_DIR), DevicePath(ZOL_PATH_VCONF_MEMORY_DIR));
    return *store;
}

/// `operation` answers whether it succeeded, and leaves the reason in errno if not.
template <typename Operation>
int Guarded(Operation operation) {
    errno = EIO;  // the reason of an exception
    return platform::Guarded("key store", operation) ? 0 : -1;
}

bool Get(const char* key, int type, Value* out) {
    if (!The().Get(key, out)) {
        return false;
    }
    errno = EINVAL;
    return out->type == type;
}

int GetNumber(const char* key, int type, int* out) {
    return Guarded([&] {
        Value value;
        errno = EINVAL;
        if (out == nullptr || !Get(key, type, &value)) {
            return false;
        }
        *out = value.number;
        return true;
    });
}

}  // namespace

extern "C" {

int vconf_get_int(const char* key, int* out) {
    return GetNumber(key, VCONF_TYPE_INT, out);
}

int vconf_get_bool(const char* key, int* out) {
    return GetNumber(key, VCONF_TYPE_BOOL, out);
}

char* vconf_get_str(const char* key) {
    char* text = nullptr;
    Guarded([&] {
        Value value;
        if (Get(key, VCONF_TYPE_STRING, &value)) {
            text = strdup(value.text.c_str());
        }
        return text != nullptr;
    });
    return text;
}

int vconf_set_int(const char* key, int value) {
    return Guarded([&] { return The().Set(key, {VCONF_TYPE_INT, value, {}}); });
}

int vconf_set_bool(const char* key, int value) {
    return Guarded([&] { return The().Set(key, {VCONF_TYPE_BOOL, value != 0 ? 1 : 0, {}}); });
}

int vconf_set_str(const char* key, const char* value) {
    errno = EINVAL;
    return Guarded([&] { return value != nullptr && The().Set(key, {VCONF_TYPE_STRING, 0, value}); });
}

int vconf_unset(const char* key) {
    return Guarded([&] { return The().Remove(key); });
}

int vconf_notify_key_changed(const char* key, vconf_callback_fn callback, void* user_data) {
    return Guarded([&] { return The().Watch(key, callback, user_data); });
}

int vconf_withdraw_key_changed(const char* key, vconf_callback_fn callback, void* user_data) {
    return Guarded([&] { return The().Withdraw(key, callback, user_data); });
}

int vconf_keynode_get_type(const keynode_t* node) {
    return node != nullptr ? node->type : VCONF_TYPE_NONE;
}
}

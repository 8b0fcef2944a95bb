#include "vconf.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "guarded.h"
#include "vconf/key_watcher.h"
#include "vconf/protocol.h"
#include "vconf/service_link.h"
#include "vconf/service_socket.h"

namespace {

using keystore::Message;
using keystore::Operation;

// Never destroyed: threads of the process may use them until the very end.
keystore::ServiceLink& Link() {
    static auto* link = new keystore::ServiceLink;
    return *link;
}

keystore::KeyWatcher& Watcher() {
    static auto* watcher = new keystore::KeyWatcher;
    return *watcher;
}

bool IsKey(const char* key) {
    errno = EINVAL;
    if (key == nullptr) {
        return false;
    }
    const std::size_t length = strnlen(key, keystore::kMaxKeyBytes + 1);
    return length > 0 && length <= keystore::kMaxKeyBytes;
}

/// `operation` answers whether it succeeded, and leaves the reason in errno if not.
template <typename Work>
int Guarded(Work operation) {
    errno = EIO;  // the reason of an exception
    return platform::Guarded("key store", operation) ? 0 : -1;
}

bool Call(Operation operation, const char* key, keystore::Value value, Message* answer) {
    if (!IsKey(key)) {
        return false;
    }
    Message request;
    request.operation = operation;
    request.key = key;
    request.value = std::move(value);
    return Link().Call(request, answer);
}

bool Get(const char* key, int type, Message* answer) {
    if (!Call(Operation::Get, key, {}, answer)) {
        return false;
    }
    errno = EINVAL;
    return answer->value.type == type;
}

int GetNumber(const char* key, int type, int* out) {
    return Guarded([&] {
        Message answer;
        if (out == nullptr) {
            errno = EINVAL;
            return false;
        }
        if (!Get(key, type, &answer)) {
            return false;
        }
        *out = answer.value.number;
        return true;
    });
}

int Set(const char* key, keystore::Value value) {
    return Guarded([&] {
        Message answer;
        return Call(Operation::Set, key, std::move(value), &answer);
    });
}

}  // namespace

extern "C" {

int vconf_is_served(void) {
    return Guarded(keystore::IsServed) == 0 ? 1 : 0;
}

int vconf_get_int(const char* key, int* out) {
    return GetNumber(key, VCONF_TYPE_INT, out);
}

int vconf_get_bool(const char* key, int* out) {
    return GetNumber(key, VCONF_TYPE_BOOL, out);
}

char* vconf_get_str(const char* key) {
    char* text = nullptr;
    Guarded([&] {
        Message answer;
        if (Get(key, VCONF_TYPE_STRING, &answer)) {
            text = strdup(answer.value.text.c_str());
        }
        return text != nullptr;
    });
    return text;
}

int vconf_set_int(const char* key, int value) {
    return Set(key, {VCONF_TYPE_INT, value, {}});
}

int vconf_set_bool(const char* key, int value) {
    return Set(key, {VCONF_TYPE_BOOL, value != 0 ? 1 : 0, {}});
}

int vconf_set_str(const char* key, const char* value) {
    if (value == nullptr || strnlen(value, keystore::kMaxTextBytes + 1) > keystore::kMaxTextBytes) {
        errno = EINVAL;
        return -1;
    }
    return Guarded([&] {
        Message answer;
        return Call(Operation::Set, key, {VCONF_TYPE_STRING, 0, value}, &answer);
    });
}

int vconf_unset(const char* key) {
    return Set(key, {});
}

int vconf_next_key(const char* key, char* next, size_t size) {
    return Guarded([&] {
        Message request;
        Message answer;
        errno = EINVAL;
        if (key == nullptr || next == nullptr || size == 0 || (*key != '\0' && !IsKey(key))) {
            return false;
        }
        request.operation = Operation::Next;
        request.key = key;
        if (!Link().Call(request, &answer)) {
            return false;
        }
        next[answer.key.copy(next, size - 1)] = '\0';
        return true;
    });
}

int vconf_notify_key_changed(const char* key, vconf_callback_fn callback, void* user_data) {
    return Guarded(
        [&] { return IsKey(key) && callback != nullptr && Watcher().Add(key, callback, user_data); });
}

int vconf_withdraw_key_changed(const char* key, vconf_callback_fn callback, void* user_data) {
    return Guarded([&] { return IsKey(key) && Watcher().Withdraw(key, callback, user_data); });
}

int vconf_keynode_get_type(const keynode_t* node) {
    return node != nullptr ? node->type : VCONF_TYPE_NONE;
}
}

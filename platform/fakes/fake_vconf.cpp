#include "fake_vconf.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include "fake_internal.h"
#include "vconf.h"

namespace fakes {
namespace {

struct Value {
    int type = VCONF_TYPE_NONE;
    int number = 0;
    std::string text;
};

struct Watch {
    vconf_callback_fn callback;
    void* userData;
    int count;
};

struct Store {
    std::mutex mutex;
    std::map<std::string, Value> values;
    std::map<std::string, std::vector<Watch>> watches;
    std::map<std::string, Value> beforeWatched;
    std::map<std::string, int> failures;
    std::vector<std::string> changed;
    bool deliverInsideSets = false;
    // Held while callbacks run, so that a withdrawal from another thread waits for them.
    std::recursive_mutex delivery;
};

Store& The() {
    static auto* store = new Store;
    return *store;
}

bool Fails(Store& store, const char* key, int failure) {
    const auto found = store.failures.find(key);
    return found != store.failures.end() && (found->second & failure) != 0;
}

/// Null, with errno, when there is nothing to read.
const Value* Find(Store& store, const char* key, int type) {
    const auto found = store.values.find(key);
    if (Fails(store, key, vconf::FAIL_GET)) {
        errno = EIO;
    } else if (found == store.values.end()) {
        errno = ENOENT;
    } else if (found->second.type != type) {
        errno = EINVAL;
    } else {
        return &found->second;
    }
    return nullptr;
}

int GetNumber(const char* key, int type, int* out) {
    Store& store = The();
    const std::lock_guard<std::mutex> lock(store.mutex);
    const Value* const found = Find(store, key, type);
    if (found == nullptr) {
        return -1;
    }
    *out = found->number;
    return 0;
}

void DeliverOne(const std::string& key) {
    Store& store = The();
    Value value;
    std::vector<Watch> watches;
    {
        const std::lock_guard<std::mutex> lock(store.mutex);
        value = store.values[key];
        if (value.type == VCONF_TYPE_NONE) {
            store.values.erase(key);
        }
        watches = store.watches[key];
    }
    keynode_t node{key.c_str(), value.type, value.number,
                   value.type == VCONF_TYPE_STRING ? value.text.c_str() : nullptr};
    for (const Watch& watch : watches) {
        watch.callback(&node, watch.userData);
    }
}

bool DeliverChanges() {
    Store& store = The();
    for (bool wereAny = false;; wereAny = true) {
        std::vector<std::string> changed;
        {
            const std::lock_guard<std::mutex> lock(store.mutex);
            changed.swap(store.changed);
        }
        if (changed.empty()) {
            return wereAny;
        }
        for (const std::string& key : changed) {
            DeliverOne(key);
        }
    }
}

int SetValue(const char* key, const Value& value) {
    Store& store = The();
    std::unique_lock<std::mutex> lock(store.mutex);
    if (Fails(store, key, vconf::FAIL_SET)) {
        return -1;
    }
    store.values[key] = value;
    store.changed.emplace_back(key);
    if (store.deliverInsideSets) {
        lock.unlock();
        DeliverChanges();
    }
    return 0;
}

void SetAndDeliver(const std::string& key, const Value& value) {
    {
        const std::lock_guard<std::mutex> lock(The().mutex);
        The().values[key] = value;
        The().changed.push_back(key);
    }
    vconf::Deliver();
}

}  // namespace

void ResetVconf() {
    Store& store = The();
    const std::lock_guard<std::mutex> lock(store.mutex);
    store.values.clear();
    store.watches.clear();
    store.beforeWatched.clear();
    store.failures.clear();
    store.changed.clear();
    store.deliverInsideSets = false;
}

namespace vconf {

void SetInt(const std::string& key, int value) {
    SetAndDeliver(key, {VCONF_TYPE_INT, value, ""});
}
void SetIntBeforeWatched(const std::string& key, int value) {
    const std::lock_guard<std::mutex> lock(The().mutex);
    The().beforeWatched[key] = {VCONF_TYPE_INT, value, ""};
}
void SetBool(const std::string& key, bool value) {
    SetAndDeliver(key, {VCONF_TYPE_BOOL, value ? 1 : 0, ""});
}
void SetString(const std::string& key, const std::string& value) {
    SetAndDeliver(key, {VCONF_TYPE_STRING, 0, value});
}
void Unset(const std::string& key) {
    SetAndDeliver(key, {});
}

bool Deliver() {
    const std::lock_guard<std::recursive_mutex> delivery(The().delivery);
    return DeliverChanges();
}

void DeliverInsideSets() {
    const std::lock_guard<std::mutex> lock(The().mutex);
    The().deliverInsideSets = true;
}

int GetInt(const std::string& key, int missing) {
    const std::lock_guard<std::mutex> lock(The().mutex);
    const auto found = The().values.find(key);
    return found == The().values.end() || found->second.type == VCONF_TYPE_STRING ? missing
                                                                                  : found->second.number;
}

std::string GetString(const std::string& key, const std::string& missing) {
    const std::lock_guard<std::mutex> lock(The().mutex);
    const auto found = The().values.find(key);
    return found == The().values.end() || found->second.type != VCONF_TYPE_STRING ? missing
                                                                                  : found->second.text;
}

bool Exists(const std::string& key) {
    const std::lock_guard<std::mutex> lock(The().mutex);
    return The().values.count(key) > 0;
}

void Fail(const std::string& key, int failures) {
    const std::lock_guard<std::mutex> lock(The().mutex);
    The().failures[key] = failures;
}

int Registrations(const std::string& key) {
    const std::lock_guard<std::mutex> lock(The().mutex);
    int count = 0;
    for (const auto& [watched, watches] : The().watches) {
        for (const Watch& watch : watches) {
            count += key.empty() || key == watched ? watch.count : 0;
        }
    }
    return count;
}

}  // namespace vconf
}  // namespace fakes

extern "C" {

int vconf_is_served(void) {
    return 1;
}
int vconf_get_int(const char* key, int* out) {
    return fakes::GetNumber(key, VCONF_TYPE_INT, out);
}
int vconf_get_bool(const char* key, int* out) {
    return fakes::GetNumber(key, VCONF_TYPE_BOOL, out);
}

char* vconf_get_str(const char* key) {
    fakes::Store& store = fakes::The();
    const std::lock_guard<std::mutex> lock(store.mutex);
    const fakes::Value* const found = fakes::Find(store, key, VCONF_TYPE_STRING);
    return found != nullptr ? strdup(found->text.c_str()) : nullptr;
}

int vconf_set_int(const char* key, int value) {
    return fakes::SetValue(key, {VCONF_TYPE_INT, value, ""});
}
int vconf_set_bool(const char* key, int value) {
    return fakes::SetValue(key, {VCONF_TYPE_BOOL, value != 0 ? 1 : 0, ""});
}
int vconf_set_str(const char* key, const char* value) {
    return fakes::SetValue(key, {VCONF_TYPE_STRING, 0, value});
}
int vconf_unset(const char* key) {
    return fakes::SetValue(key, {});
}

int vconf_next_key(const char* key, char* next, size_t size) {
    fakes::Store& store = fakes::The();
    const std::lock_guard<std::mutex> lock(store.mutex);
    const auto found = std::find_if(store.values.upper_bound(key), store.values.end(),
                                    [](const auto& each) { return each.second.type != VCONF_TYPE_NONE; });
    if (found == store.values.end()) {
        errno = ENOENT;
        return -1;
    }
    next[found->first.copy(next, size - 1)] = '\0';
    return 0;
}

int vconf_notify_key_changed(const char* key, vconf_callback_fn callback, void* userData) {
    fakes::Store& store = fakes::The();
    const std::lock_guard<std::mutex> lock(store.mutex);
    if (fakes::Fails(store, key, fakes::vconf::FAIL_NOTIFY)) {
        errno = EIO;
        return -1;
    }
    if (*key == '\0') {
        errno = EINVAL;
        return -1;
    }
    if (const auto before = store.beforeWatched.extract(key)) {
        store.values[key] = before.mapped();
    }
    for (fakes::Watch& watch : store.watches[key]) {
        if (watch.callback == callback && watch.userData == userData) {
            ++watch.count;
            return 0;
        }
    }
    store.watches[key].push_back({callback, userData, 1});
    return 0;
}

int vconf_withdraw_key_changed(const char* key, vconf_callback_fn callback, void* userData) {
    fakes::Store& store = fakes::The();
    const std::lock_guard<std::recursive_mutex> delivery(store.delivery);
    const std::lock_guard<std::mutex> lock(store.mutex);
    std::vector<fakes::Watch>& watches = store.watches[key];
    for (auto watch = watches.begin(); watch != watches.end(); ++watch) {
        if (watch->callback == callback && watch->userData == userData) {
            if (--watch->count == 0) {
                watches.erase(watch);
            }
            return 0;
        }
    }
    return -1;
}

int vconf_keynode_get_type(const keynode_t* node) {
    return node != nullptr ? node->type : VCONF_TYPE_NONE;
}
}

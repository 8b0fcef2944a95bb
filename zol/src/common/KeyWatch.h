#pragma once
/// Watching a vconf key for as long as an object lives.
#include <functional>
#include <string>
#include <utility>

#include "base/subscription.h"
#include "vconf.h"

namespace zol {

/// One registration for the changes of a key. Once it is gone the callback is not running and never runs
/// again; a callback that drops its own watch is not called again.
using KeyWatch = base::Subscription;

/// Watches `key` from now on; false when vconf refuses, which is for the caller to log.
[[nodiscard]] inline KeyWatch WatchKey(const std::string& key, vconf_callback_fn callback, void* userData) {
    // Made before the registration: once that is there nothing may throw.
    std::function<void()> withdraw = [key, callback, userData] {
        vconf_withdraw_key_changed(key.c_str(), callback, userData);
    };
    if (vconf_notify_key_changed(key.c_str(), callback, userData) < 0) {
        return {};
    }
    return KeyWatch(std::move(withdraw));
}

}  // namespace zol

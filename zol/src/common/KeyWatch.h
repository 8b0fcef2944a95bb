#pragma once
/// Watching a vconf key for as long as an object lives.
#include <string>
#include <utility>

#include "vconf.h"

namespace zol {

/// One registration for the changes of a key, which withdraws itself when it goes. From then on the callback
/// is not running and never runs again; a callback that drops its own watch is not called again. False: it
/// watches nothing.
class KeyWatch {
public:
    KeyWatch() = default;
    KeyWatch(KeyWatch&& other) noexcept { *this = std::move(other); }
    KeyWatch& operator=(KeyWatch&& other) noexcept {
        if (this != &other) {
            Reset();
            m_key = std::move(other.m_key);
            m_callback = std::exchange(other.m_callback, nullptr);
            m_userData = other.m_userData;
        }
        return *this;
    }
    ~KeyWatch() { Reset(); }

    explicit operator bool() const { return m_callback != nullptr; }
    void Reset() {
        if (const vconf_callback_fn callback = std::exchange(m_callback, nullptr)) {
            vconf_withdraw_key_changed(m_key.c_str(), callback, m_userData);
        }
    }

private:
    friend KeyWatch WatchKey(std::string key, vconf_callback_fn callback, void* userData);

    std::string m_key;
    vconf_callback_fn m_callback = nullptr;
    void* m_userData = nullptr;
};

/// Watches `key` from now on; false when vconf refuses, which is for the caller to log.
[[nodiscard]] inline KeyWatch WatchKey(std::string key, vconf_callback_fn callback, void* userData) {
    KeyWatch watch;
    if (vconf_notify_key_changed(key.c_str(), callback, userData) >= 0) {
        watch.m_key = std::move(key);
        watch.m_callback = callback;
        watch.m_userData = userData;
    }
    return watch;
}

}  // namespace zol

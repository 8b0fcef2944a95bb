#pragma once
#include <glib.h>

#include <cstddef>
#include <string>

#include "vconf/key_database.h"
#include "vconf/key_watcher.h"

namespace keystore {

constexpr std::size_t kMaxKeyBytes = 255;
constexpr std::size_t kMaxTextBytes = std::size_t{1024} * 1024;

/// The keys of this machine: those that begin with "memory/" in one folder, all others in the durable one.
/// Operations refuse keys that are null, empty or longer than kMaxKeyBytes, and strings longer than
/// kMaxTextBytes. Get, Set and Remove leave the reason of a failure in errno, as vconf.h has it. Any thread.
class KeyStore {
public:
    /// Touches nothing until the first operation. @param context tells the watchers; null: the default one
    KeyStore(const std::string& durableFolder, const std::string& memoryFolder,
             GMainContext* context = nullptr);

    [[nodiscard]] bool Get(const char* key, Value* out);
    [[nodiscard]] bool Set(const char* key, const Value& value);
    [[nodiscard]] bool Remove(const char* key);
    [[nodiscard]] bool Watch(const char* key, vconf_callback_fn callback, void* userData);
    [[nodiscard]] bool Withdraw(const char* key, vconf_callback_fn callback, void* userData);

private:
    KeyDatabase& DatabaseOf(const char* key);

    KeyDatabase m_durable;
    KeyDatabase m_memory;
    KeyWatcher m_watcher;
};

}  // namespace keystore

#include "vconf/key_store.h"

#include <cerrno>
#include <cstring>

namespace keystore {
namespace {

constexpr const char* kMemoryPrefix = "memory/";
constexpr std::size_t kDurableIndex = 0;
constexpr std::size_t kMemoryIndex = 1;

bool IsKey(const char* key) {
    errno = EINVAL;
    if (key == nullptr) {
        return false;
    }
    const std::size_t length = strnlen(key, kMaxKeyBytes + 1);
    return length > 0 && length <= kMaxKeyBytes;
}

bool IsMemoryKey(const char* key) {
    return std::strncmp(key, kMemoryPrefix, std::strlen(kMemoryPrefix)) == 0;
}

}  // namespace

KeyStore::KeyStore(const std::string& durableFolder, const std::string& memoryFolder, GMainContext* context)
    : m_durable(durableFolder, KeyDatabase::Durability::PowerCut),
      m_memory(memoryFolder, KeyDatabase::Durability::Process),
      m_watcher({&m_durable, &m_memory}, context) {}

KeyDatabase& KeyStore::DatabaseOf(const char* key) {
    return IsMemoryKey(key) ? m_memory : m_durable;
}

bool KeyStore::Get(const char* key, Value* out) {
    return IsKey(key) && DatabaseOf(key).Get(key, out);
}

bool KeyStore::Set(const char* key, const Value& value) {
    return IsKey(key) && value.text.size() <= kMaxTextBytes && DatabaseOf(key).Set(key, value);
}

bool KeyStore::Remove(const char* key) {
    return IsKey(key) && DatabaseOf(key).Remove(key);
}

bool KeyStore::Watch(const char* key, vconf_callback_fn callback, void* userData) {
    return IsKey(key) && callback != nullptr &&
           m_watcher.Add(IsMemoryKey(key) ? kMemoryIndex : kDurableIndex, key, callback, userData);
}

bool KeyStore::Withdraw(const char* key, vconf_callback_fn callback, void* userData) {
    return IsKey(key) && m_watcher.Withdraw(key, callback, userData);
}

}  // namespace keystore

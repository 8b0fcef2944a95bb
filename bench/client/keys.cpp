#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <system_error>

#include "client/client.h"
#include "device_path.h"
#include "samples.h"
#include "vconf.h"

namespace bench {
namespace {

constexpr const char* kHandOverKey = "db/zol/send_zol_files_path";

base::Subscription Watch(const std::string& key, vconf_callback_fn callback, void* data) {
    if (vconf_notify_key_changed(key.c_str(), callback, data) != 0) {
        std::cerr << "bench_client: cannot watch " << key << std::endl;
        std::exit(1);
    }
    return base::Subscription([=] { vconf_withdraw_key_changed(key.c_str(), callback, data); });
}

}  // namespace

Collector::Collector() {
    const auto changed = [](keynode_t* node, void* data) {
        auto* self = static_cast<Collector*>(data);
        const std::int64_t now = NowNs();
        const std::lock_guard<std::mutex> lock(self->m_mutex);
        self->m_path = node->str_value != nullptr ? node->str_value : "";
        self->m_published = now;
        ++self->m_changes;
        self->m_changed.notify_one();
    };
    m_watch = Watch(kHandOverKey, changed, this);
}

std::int64_t Collector::AwaitPath() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_path.empty(); });
    return m_published;
}

void Collector::Take() {
    std::unique_lock<std::mutex> lock(m_mutex);
    const std::string taken = m_path;
    const int changes = m_changes;
    lock.unlock();
    std::error_code ignored;  // the next report may have the same name, and be there already
    std::filesystem::remove_all(DevicePath(taken), ignored);
    if (vconf_set_str(kHandOverKey, "") != 0) {
        std::abort();
    }
    lock.lock();
    // Not by the path: reports of one second have one name.
    m_changed.wait(lock, [&] { return m_changes != changes; });
}

base::Subscription WatchNumber(const std::string& key, void (*callback)(int value)) {
    const auto changed = [](keynode_t* node, void* data) {
        (*reinterpret_cast<void (*)(int)>(data))(node->int_value);
    };
    return Watch(key, changed, reinterpret_cast<void*>(callback));
}

void SetKey(const std::string& key, int value) {
    if (vconf_set_int(key.c_str(), value) != 0) {
        std::cerr << "bench_client: cannot set " << key << std::endl;
        std::exit(1);
    }
}

}  // namespace bench

#include "vconf/watch_registry.h"

#include <algorithm>

#include "guarded.h"

namespace keystore {

void WatchRegistry::Add(const std::string& key, vconf_callback_fn callback, void* userData,
                        const Position& start) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<RegistrationPtr>& watches = m_watches[key];
    for (const RegistrationPtr& watch : watches) {
        if (watch->callback == callback && watch->userData == userData) {
            ++watch->count;
            return;
        }
    }
    watches.push_back(std::make_shared<Registration>(Registration{callback, userData, start, 1}));
}

bool WatchRegistry::Withdraw(const std::string& key, vconf_callback_fn callback, void* userData) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto found = m_watches.find(key);
    if (found == m_watches.end()) {
        return false;
    }
    std::vector<RegistrationPtr>& watches = found->second;
    const auto place = std::find_if(watches.begin(), watches.end(), [&](const RegistrationPtr& watch) {
        return watch->callback == callback && watch->userData == userData;
    });
    if (place == watches.end()) {
        return false;
    }
    const RegistrationPtr withdrawn = *place;
    if (--withdrawn->count > 0) {
        return true;
    }
    watches.erase(place);
    if (watches.empty()) {
        m_watches.erase(found);
    }
    if (m_runner != std::this_thread::get_id()) {
        m_returned.wait(lock, [&] { return m_running != withdrawn.get(); });
    }
    return true;
}

bool WatchRegistry::Has(const std::string& key) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_watches.count(key) > 0;
}

void WatchRegistry::Deliver(const Change& change) {
    std::vector<RegistrationPtr> watches;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_watches.find(change.key);
        if (found == m_watches.end()) {
            return;
        }
        watches = found->second;
    }
    const Value& value = change.value;
    for (const RegistrationPtr& watch : watches) {
        keynode_t node{change.key.c_str(), value.type, value.number,
                       value.type == VCONF_TYPE_STRING ? value.text.c_str() : nullptr};
        Call(*watch, node, change.position);
    }
}

void WatchRegistry::Call(Registration& registration, keynode_t& node, const Position& position) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (registration.count == 0 || !registration.start.Before(position)) {
            return;
        }
        m_running = &registration;
        m_runner = std::this_thread::get_id();
    }
    platform::Guarded(node.keyname, [&] { registration.callback(&node, registration.userData); });
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_running = nullptr;
    m_runner = std::thread::id();
    m_returned.notify_all();
}

}  // namespace keystore

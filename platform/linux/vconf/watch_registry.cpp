#include "vconf/watch_registry.h"

#include <algorithm>
#include <vector>

#include "guarded.h"

namespace keystore {

template <typename Matches>
WatchRegistry::Watches::iterator WatchRegistry::Find(const std::string& key, Matches matches) {
    const auto [begin, end] = m_watches.equal_range(key);
    const auto found = std::find_if(begin, end, [&](const auto& each) { return matches(each.second); });
    return found != end ? found : m_watches.end();
}

void WatchRegistry::Add(const std::string& key, vconf_callback_fn callback, void* userData,
                        const Position& start, std::int64_t change) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto known = Find(key, [&](const Registration& each) {
        return each.callback == callback && each.userData == userData;
    });
    if (known != m_watches.end()) {
        ++known->second.count;
        return;
    }
    m_lastId += m_lastId == UINT32_MAX ? 2 : 1;
    m_watches.emplace(key, Registration{callback, userData, start, 1, m_lastId, {change, 0}});
}

bool WatchRegistry::Withdraw(const std::string& key, vconf_callback_fn callback, void* userData) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto known = Find(key, [&](const Registration& each) {
        return each.callback == callback && each.userData == userData;
    });
    if (known == m_watches.end()) {
        return false;
    }
    if (--known->second.count > 0) {
        return true;
    }
    const std::uint32_t withdrawn = known->second.id;
    const Arrived arrived = known->second.arrived;
    const bool wasFirst = known == m_watches.lower_bound(key);
    const auto next = m_watches.erase(known);
    if (wasFirst && next != m_watches.end() && next->first == key) {
        next->second.arrived = arrived;
    }
    if (m_runner != std::this_thread::get_id()) {
        m_returned.wait(lock, [&] { return m_running != withdrawn; });
    }
    return true;
}

bool WatchRegistry::Has(const std::string& key) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_watches.count(key) > 0;
}

bool WatchRegistry::IsEmpty() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_watches.empty();
}

std::optional<std::pair<std::string, std::int64_t>> WatchRegistry::Next(const std::string& key) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto next = m_watches.upper_bound(key);
    return next != m_watches.end() ? std::optional(std::pair(next->first, next->second.arrived.change))
                                   : std::nullopt;
}

bool WatchRegistry::Update(const std::string& key, const std::function<void(Arrived*)>& update) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto first = m_watches.lower_bound(key);
    if (first == m_watches.end() || first->first != key) {
        return false;
    }
    update(&first->second.arrived);
    return true;
}

void WatchRegistry::Deliver(const Change& change) {
    // Those that are there now; a callback may add and withdraw.
    std::vector<std::uint32_t> ids;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto [begin, end] = m_watches.equal_range(change.key);
        std::for_each(begin, end, [&](const auto& each) { ids.push_back(each.second.id); });
    }
    const Value& value = change.value;
    for (const std::uint32_t id : ids) {
        keynode_t node{change.key.c_str(), value.type, value.number,
                       value.type == VCONF_TYPE_STRING ? value.text.c_str() : nullptr};
        Call(id, node, change.position);
    }
}

void WatchRegistry::Call(std::uint32_t id, keynode_t& node, const Position& position) {
    Registration registration{};
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = Find(node.keyname, [id](const Registration& each) { return each.id == id; });
        if (found == m_watches.end() || !found->second.start.Before(position)) {
            return;
        }
        registration = found->second;
        m_running = id;
        m_runner = std::this_thread::get_id();
    }
    platform::Guarded(node.keyname, [&] { registration.callback(&node, registration.userData); });
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_running = 0;
    m_runner = std::thread::id();
    m_returned.notify_all();
}

}  // namespace keystore

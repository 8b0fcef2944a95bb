#include "Subscribers.h"

#include <algorithm>

namespace zol::ipc {

bool Subscribers::Add(GDBusConnection* connection, const std::string& name, const std::string& path) {
    const auto known = m_clients.find(name);
    const std::size_t own = known != m_clients.end() ? known->second.paths.size() : 0;
    if (own > 0) {
        const auto& paths = known->second.paths;
        if (std::find(paths.begin(), paths.end(), path) != paths.end()) {
            return true;
        }
    }
    if (m_count >= kMaxSubscribers || own >= kMaxSubscribersPerConnection) {
        return false;
    }
    Client& client = m_clients[name];
    client.paths.push_back(path);
    ++m_count;
    if (!client.watch) {
        // Also tells of a client that left between its call and this line.
        const guint watch = g_bus_watch_name_on_connection(
            connection, name.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE, nullptr, VanishedCb, this, nullptr);
        client.watch = base::Subscription([watch] { g_bus_unwatch_name(watch); });
    }
    return true;
}

void Subscribers::Remove(const std::string& name) {
    const auto found = m_clients.find(name);
    if (found != m_clients.end()) {
        m_count -= found->second.paths.size();
        m_clients.erase(found);
    }
}

void Subscribers::Clear() {
    m_clients.clear();
    m_count = 0;
}

std::vector<Subscriber> Subscribers::All() const {
    std::vector<Subscriber> all;
    all.reserve(m_count);
    for (const auto& [name, client] : m_clients) {
        for (const std::string& path : client.paths) {
            all.push_back({name, path});
        }
    }
    return all;
}

void Subscribers::VanishedCb(GDBusConnection* /*connection*/, const gchar* name, gpointer data) {
    AtBoundary("the end of a subscriber", [&] { static_cast<Subscribers*>(data)->Remove(name); });
}

}  // namespace zol::ipc

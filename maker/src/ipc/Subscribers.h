#pragma once
/// Who gets notifications.
#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "Gio.h"
#include "base/subscription.h"

namespace zol::ipc {

struct Subscriber {
    std::string name;  ///< unique name of the connection
    std::string path;  ///< its object that takes notifications
};

/// The subscribers of one connection to the bus. One that leaves the bus drops out. Lives on the thread that
/// dispatches GLib's default main context.
class Subscribers {
public:
    Subscribers() = default;
    Subscribers(const Subscribers&) = delete;
    Subscribers& operator=(const Subscribers&) = delete;

    /// The same name and path again changes nothing. False when a limit is reached.
    [[nodiscard]] bool Add(GDBusConnection* connection, const std::string& name, const std::string& path);
    /// Removes all paths of a connection.
    void Remove(const std::string& name);
    void Clear();
    [[nodiscard]] std::vector<Subscriber> All() const;

private:
    struct Client {
        base::Subscription watch;  // on the bus name
        std::vector<std::string> paths;
    };

    static void VanishedCb(GDBusConnection* connection, const gchar* name, gpointer data);

    std::map<std::string, Client> m_clients;
    std::size_t m_count = 0;
};

}  // namespace zol::ipc

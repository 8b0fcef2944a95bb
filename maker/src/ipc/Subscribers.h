#pragma once
/// Who gets notifications.
#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Gio.h"

namespace zol::ipc {

struct Subscriber {
    std::string name;  ///< unique name of the connection
    std::string path;  ///< its object that takes notifications
};

/// The subscribers of one connection to the bus. One that leaves the bus drops out. Lives on the thread that
/// dispatches GLib's default main context.
class IpcSubscribers {
public:
    IpcSubscribers() : m_handle(this) {}
    IpcSubscribers(const IpcSubscribers&) = delete;
    IpcSubscribers& operator=(const IpcSubscribers&) = delete;

    /// The same name and path again changes nothing. False when a limit is reached.
    bool Add(GDBusConnection* connection, const std::string& name, const std::string& path);
    /// Removes all paths of a connection.
    void Remove(const std::string& name);
    void Clear();
    std::vector<Subscriber> All() const;

private:
    /// Owner of a watch on a bus name.
    class Watch {
    public:
        explicit Watch(guint id) : m_id(id) {}
        ~Watch() { g_bus_unwatch_name(m_id); }
        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;

    private:
        const guint m_id;
    };
    struct Client {
        std::unique_ptr<Watch> watch;
        std::vector<std::string> paths;
    };

    static void VanishedCb(GDBusConnection* connection, const gchar* name, gpointer data);

    std::map<std::string, Client> m_clients;
    std::size_t m_count = 0;
    const Handle<IpcSubscribers> m_handle;
};

}  // namespace zol::ipc

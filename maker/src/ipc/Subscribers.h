#pragma once
/// Who gets notifications.
#include <sys/types.h>

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
    /// What is not carried out by then is not answered.
    ~Subscribers();
    Subscribers(const Subscribers&) = delete;
    Subscribers& operator=(const Subscribers&) = delete;

    /// Carries out and answers a call of Subscribe or Unsubscribe, once the bus has told whose it is. So
    /// calls of one connection take effect in the order they came in. Takes the reference of `invocation`
    /// over.
    void Serve(GDBusMethodInvocation* invocation);
    /// The connection to the bus is lost, and with it all subscribers and the calls not yet carried out.
    void Clear();
    [[nodiscard]] std::vector<Subscriber> All() const;

private:
    struct Client {
        uid_t account = 0;
        base::Subscription watch;  // on the bus name
        std::vector<std::string> paths;
    };

    struct Asked;

    static void AccountCb(GObject* source, GAsyncResult* result, gpointer data);
    /// The same name and path again changes nothing. False when a limit is reached.
    [[nodiscard]] bool Add(GDBusConnection* connection, const std::string& name, const std::string& path,
                           uid_t account);
    [[nodiscard]] std::size_t CountOf(uid_t account) const;
    /// Removes all paths of a connection.
    void Remove(const std::string& name);
    static void VanishedCb(GDBusConnection* connection, const gchar* name, gpointer data);

    std::map<std::string, Client> m_clients;
    std::size_t m_count = 0;
    base::GObjectPtr<GCancellable> m_questions{g_cancellable_new()};
};

}  // namespace zol::ipc

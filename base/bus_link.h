#pragma once
/// Connections to a message bus.
#include <gio/gio.h>

#include <functional>

#include "base/backoff.h"
#include "base/glib_handles.h"

namespace base {

/// What GDBus wants to know for a connection to a bus of its own; the process's shared one may be tied to a
/// bus that is gone.
constexpr auto kBusConnectionFlags = static_cast<GDBusConnectionFlags>(
    G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);

/// The address of a bus (DBUS_SYSTEM_BUS_ADDRESS and its like are honoured); null with `error` set when there
/// is none.
[[nodiscard]] GStringPtr BusAddress(GBusType bus, GErrorPtr& error);

/// One connection to a bus that comes back by itself. Connects without blocking; while there is no bus it
/// tries again after 100 ms, then doubling up to 30 s. The end of the bus does not end the process.
///
/// Lives on one thread: made, used and destroyed on the thread that runs its thread-default main context;
/// everything is delivered there. No function it was given runs after its destruction.
class BusLink {
public:
    /// An exception from any of these ends the process.
    struct Callbacks {
        /// There is a new connection, for example to offer an object or to watch a name on.
        std::function<void()> connected;
        /// The connection is gone; Connection() is still it, to take leave of, and null afterwards.
        std::function<void(const char* reason)> lost;
        /// An attempt to connect failed. Another one follows.
        std::function<void(const char* reason)> failed;
    };

    /// @param bus G_BUS_TYPE_SYSTEM or G_BUS_TYPE_SESSION
    /// Callbacks may run before this returns only as `failed`, when there is not even an address.
    BusLink(GBusType bus, Callbacks callbacks);
    /// Lets go of the connection without `lost`.
    ~BusLink();
    BusLink(const BusLink&) = delete;
    BusLink& operator=(const BusLink&) = delete;

    /// Null while there is none.
    [[nodiscard]] GDBusConnection* Connection() const { return m_connection.get(); }
    /// Call when the bus has proved to work: the waits begin at 100 ms again. One that takes connections and
    /// drops them is not tried without pause.
    void Confirm() { m_backoff.Reset(); }

private:
    /// An attempt to connect. It may outlive the link, which is null then.
    struct Attempt {
        BusLink* link;
    };

    static void ConnectedCb(GObject* source, GAsyncResult* result, gpointer data) noexcept;
    static void ClosedCb(GDBusConnection* connection, gboolean vanished, GError* error,
                         gpointer data) noexcept;

    void Connect();
    void OnConnected(GObjectPtr<GDBusConnection> connection, const GError* error);
    void OnFailed(const char* reason);
    void RetryLater();
    void Drop();

    const GBusType m_bus;
    const Callbacks m_callbacks;
    const GMainContextPtr m_context;
    const GObjectPtr<GCancellable> m_cancellable;
    Backoff m_backoff;
    GObjectPtr<GDBusConnection> m_connection;
    gulong m_closedHandler = 0;
    GSourcePtr m_retry;
    Attempt* m_attempt = nullptr;  // the one under way
};

}  // namespace base

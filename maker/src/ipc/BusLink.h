#pragma once
/// The server's place on the bus.
#include <functional>

#include "Gio.h"

namespace zol::ipc {

/// Connects to the bus, offers the native interface there and owns the name; does all of it again whenever
/// the bus went away. Each change for the worse and for the better is logged once. Lives on the thread that
/// dispatches GLib's default main context.
class IpcBusLink {
public:
    struct Callbacks {
        /// A call of the native interface; must answer `invocation`, which takes its reference over.
        std::function<void(GDBusMethodInvocation* invocation)> onCall;
        /// The connection is gone or about to go, and with it everything that hung on it.
        std::function<void()> onLost;
    };

    /// Starts to connect and returns without waiting for it.
    IpcBusLink(bool sessionBus, Callbacks callbacks);
    /// Leaves the bus; answers that are still to be written get a moment for it.
    ~IpcBusLink();
    IpcBusLink(const IpcBusLink&) = delete;
    IpcBusLink& operator=(const IpcBusLink&) = delete;

    /// Null while there is no bus.
    GDBusConnection* Connection() const { return m_connection.get(); }

private:
    enum class EState { STARTING, NO_BUS, NO_NAME, QUEUED, SERVING };

    static void ConnectedCb(GObject* source, GAsyncResult* result, gpointer data);
    static void NameReplyCb(GObject* source, GAsyncResult* result, gpointer data);
    static void NameSignalCb(GDBusConnection* connection, const gchar* sender, const gchar* path,
                             const gchar* interface, const gchar* signal, GVariant* parameters,
                             gpointer data);
    static void ClosedCb(GDBusConnection* connection, gboolean vanished, GError* error, gpointer data);
    static void CallCb(GDBusConnection* connection, const gchar* sender, const gchar* path,
                       const gchar* interface, const gchar* method, GVariant* parameters,
                       GDBusMethodInvocation* invocation, gpointer data);
    static gboolean RetryCb(gpointer data);

    void Connect();
    void OnConnected(GConnectionPtr connection, const GError* error);
    bool Offer();
    void RequestName();
    void OnNameReply(guint32 answer, const GError* error);
    void Forget();
    void RetryLater();
    void Enter(EState state, int priority, const char* what, const char* why);

    const bool m_sessionBus;
    const Callbacks m_callbacks;
    const GNodeInfoPtr m_introspection;
    const GCancellablePtr m_cancellable;
    EState m_state = EState::STARTING;
    RetryDelay m_delay;
    GConnectionPtr m_connection;
    gulong m_closedHandler = 0;
    guint m_registration = 0;
    guint m_acquiredSignal = 0;
    guint m_lostSignal = 0;
    GSourcePtr m_retry;
    const Handle<IpcBusLink> m_handle;
};

}  // namespace zol::ipc

#pragma once
/// The server's place on the bus.
#include <atomic>
#include <functional>
#include <memory>

#include "Backlog.h"
#include "Gio.h"
#include "base/backoff.h"
#include "base/bus_link.h"

namespace zol::ipc {

/// Offers the native interface on the bus and owns the name; does it again whenever the bus went away. Each
/// change for the worse and for the better is logged once. Lives on the thread that dispatches GLib's default
/// main context.
class ServedName {
public:
    struct Callbacks {
        /// A call of the native interface; must answer `invocation`, which takes its reference over.
        std::function<void(GDBusMethodInvocation* invocation)> onCall;
        /// There is a new connection, on which the name is asked for as soon as this returns.
        std::function<void(GDBusConnection* connection)> onOffer;
        /// The connection is gone or about to go, and with it everything that hung on it.
        std::function<void()> onLost;
    };

    /// Starts to connect and returns without waiting for it. Throws std::runtime_error when the embedded
    /// introspection data is not valid.
    ServedName(bool sessionBus, Callbacks callbacks);
    /// Leaves the bus; answers that are still to be written get a moment for it.
    ~ServedName();
    ServedName(const ServedName&) = delete;
    ServedName& operator=(const ServedName&) = delete;

    /// Null while there is no bus.
    [[nodiscard]] GDBusConnection* Connection() const { return m_link.Connection(); }

    /// Whether the name is ours now. Any thread.
    [[nodiscard]] bool IsServing() const { return m_state == EState::SERVING; }

private:
    enum class EState { STARTING, NO_BUS, NO_NAME, QUEUED, SERVING };

    static void NameReplyCb(GObject* source, GAsyncResult* result, gpointer data);
    static void NameSignalCb(GDBusConnection* connection, const gchar* sender, const gchar* path,
                             const gchar* interface, const gchar* signal, GVariant* parameters,
                             gpointer data);
    static void CallCb(GDBusConnection* connection, const gchar* sender, const gchar* path,
                       const gchar* interface, const gchar* method, GVariant* parameters,
                       GDBusMethodInvocation* invocation, gpointer data);

    void Offer();
    void Withdraw();
    void RequestName();
    void OnNameReply(guint32 answer, const GError* error);
    void OnNameKnown(EState state, int priority, const char* what);
    void Enter(EState state, int priority, const char* what, const char* why);

    const Callbacks m_callbacks;
    const std::unique_ptr<GDBusNodeInfo, base::FreeWith<g_dbus_node_info_unref>> m_introspection;
    const base::GObjectPtr<GCancellable> m_cancellable;  // of requests for the name
    std::atomic<EState> m_state{EState::STARTING};
    base::Backoff m_backoff;  // of requests for the name
    base::GSourcePtr m_retry;
    const Backlog m_backlog;
    guint m_registration = 0;
    guint m_acquiredSignal = 0;
    guint m_lostSignal = 0;
    base::BusLink m_link;  // the last member: it calls back as soon as it is made
};

}  // namespace zol::ipc

#include "BusLink.h"

#include <cstring>
#include <string>
#include <utility>

#include "Bounded.h"

namespace zol::ipc {
namespace {

constexpr const char* kBusDaemon = "org.freedesktop.DBus";
constexpr const char* kBusDaemonPath = "/org/freedesktop/DBus";

// Answers of the bus to RequestName.
constexpr guint32 kPrimaryOwner = 1;
constexpr guint32 kInQueue = 2;
constexpr guint32 kAlreadyOwner = 4;

/// How long a bus that does not read may hold the daemon's end up, in milliseconds.
constexpr unsigned kFlushMs = 500;

const char* Text(const GError* error) {
    return error != nullptr ? error->message : "no reason given";
}

}  // namespace

IpcBusLink::IpcBusLink(bool sessionBus, Callbacks callbacks)
    : m_sessionBus(sessionBus),
      m_callbacks(std::move(callbacks)),
      m_introspection(LoadIntrospection()),
      m_cancellable(g_cancellable_new()),
      m_handle(this) {
    Connect();
}

IpcBusLink::~IpcBusLink() {
    g_cancellable_cancel(m_cancellable.get());
    if (m_connection == nullptr) {
        return;
    }
    m_callbacks.onLost();
    const GConnectionPtr connection(G_DBUS_CONNECTION(g_object_ref(m_connection.get())));
    Forget();
    FlushWithin(connection.get(), kFlushMs);
    g_dbus_connection_close(connection.get(), nullptr, nullptr, nullptr);
}

void IpcBusLink::Connect() {
    GErrorPtr error;
    const std::string address = BusAddress(m_sessionBus, error);
    if (address.empty()) {
        OnConnected(nullptr, error.get());
        return;
    }
    const auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                         G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    g_dbus_connection_new_for_address(address.c_str(), flags, nullptr, m_cancellable.get(), ConnectedCb,
                                      m_handle.Data());
}

void IpcBusLink::ConnectedCb(GObject* /*source*/, GAsyncResult* result, gpointer data) {
    AtBoundary("connecting", [&] {
        GErrorPtr error;
        GConnectionPtr connection(g_dbus_connection_new_for_address_finish(result, ErrorOut(error)));
        if (IpcBusLink* self = Handle<IpcBusLink>::Find(data)) {
            self->OnConnected(std::move(connection), error.get());
        }
    });
}

void IpcBusLink::OnConnected(GConnectionPtr connection, const GError* error) {
    if (connection == nullptr) {
        Enter(EState::NO_BUS, DLOG_PRIORITY_ERROR, "cannot reach the bus, trying on", Text(error));
        RetryLater();
        return;
    }
    m_connection = std::move(connection);
    g_dbus_connection_set_exit_on_close(m_connection.get(), FALSE);
    m_closedHandler = g_signal_connect(m_connection.get(), "closed", G_CALLBACK(ClosedCb), m_handle.Data());
    if (g_dbus_connection_is_closed(m_connection.get())) {
        ClosedCb(m_connection.get(), TRUE, nullptr, m_handle.Data());
    } else if (Offer()) {
        RequestName();
    }
}

// The object stands before the name is ours: whoever waits for the name may call at once.
bool IpcBusLink::Offer() {
    static const GDBusInterfaceVTable vtable = {CallCb, nullptr, nullptr, {}};
    GErrorPtr error;
    m_registration = g_dbus_connection_register_object(
        m_connection.get(), kObjectPath,
        g_dbus_node_info_lookup_interface(m_introspection.get(), kNativeInterface), &vtable, m_handle.Data(),
        nullptr, ErrorOut(error));
    if (m_registration == 0) {
        Enter(EState::NO_NAME, DLOG_PRIORITY_ERROR, "cannot offer the object", Text(error.get()));
        return false;
    }
    const auto subscribe = [this](const char* signal) {
        // The bus sends these two to the connection they concern without being asked.
        return g_dbus_connection_signal_subscribe(m_connection.get(), kBusDaemon, kBusDaemon, signal,
                                                  kBusDaemonPath, kBusName, G_DBUS_SIGNAL_FLAGS_NO_MATCH_RULE,
                                                  NameSignalCb, m_handle.Data(), nullptr);
    };
    m_acquiredSignal = subscribe("NameAcquired");
    m_lostSignal = subscribe("NameLost");
    return true;
}

void IpcBusLink::RequestName() {
    constexpr guint32 kStayInQueue = 0;
    g_dbus_connection_call(m_connection.get(), kBusDaemon, kBusDaemonPath, kBusDaemon, "RequestName",
                           g_variant_new("(su)", kBusName, kStayInQueue), G_VARIANT_TYPE("(u)"),
                           G_DBUS_CALL_FLAGS_NONE, -1, m_cancellable.get(), NameReplyCb, m_handle.Data());
}

void IpcBusLink::NameReplyCb(GObject* source, GAsyncResult* result, gpointer data) {
    AtBoundary("owning the name", [&] {
        GErrorPtr error;
        const GVariantPtr reply(
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, ErrorOut(error)));
        guint32 answer = 0;
        if (reply != nullptr) {
            g_variant_get(reply.get(), "(u)", &answer);
        }
        IpcBusLink* self = Handle<IpcBusLink>::Find(data);
        // What a closed connection cannot do any more is ClosedCb's to tell, once.
        if (self != nullptr && self->m_connection.get() == G_DBUS_CONNECTION(source) &&
            !g_dbus_connection_is_closed(self->m_connection.get())) {
            self->OnNameReply(answer, error.get());
        }
    });
}

void IpcBusLink::OnNameReply(guint32 answer, const GError* error) {
    switch (answer) {
        case kPrimaryOwner:
        case kAlreadyOwner:
            m_delay.Reset();
            Enter(EState::SERVING, DLOG_PRIORITY_INFO, "serving", kBusName);
            break;
        case kInQueue:
            m_delay.Reset();
            Enter(EState::QUEUED, DLOG_PRIORITY_ERROR, "the name is taken, waiting for it", kBusName);
            break;
        default:
            Enter(EState::NO_NAME, DLOG_PRIORITY_ERROR, "cannot own the name, trying on", Text(error));
            RetryLater();
    }
}

void IpcBusLink::NameSignalCb(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
                              const gchar* /*interface*/, const gchar* signal, GVariant* /*parameters*/,
                              gpointer data) {
    AtBoundary("a change of the name", [&] {
        IpcBusLink* self = Handle<IpcBusLink>::Find(data);
        if (self == nullptr) {
            return;
        }
        if (std::strcmp(signal, "NameAcquired") == 0) {
            self->Enter(EState::SERVING, DLOG_PRIORITY_INFO, "serving", kBusName);
        } else {
            self->Enter(EState::QUEUED, DLOG_PRIORITY_ERROR, "lost the name, waiting for it", kBusName);
        }
    });
}

void IpcBusLink::ClosedCb(GDBusConnection* /*connection*/, gboolean /*vanished*/, GError* error,
                          gpointer data) {
    AtBoundary("the end of the connection", [&] {
        if (IpcBusLink* self = Handle<IpcBusLink>::Find(data)) {
            self->Enter(EState::NO_BUS, DLOG_PRIORITY_ERROR, "lost the bus, trying to get it back",
                        Text(error));
            self->Forget();
            self->m_callbacks.onLost();
            self->RetryLater();
        }
    });
}

void IpcBusLink::CallCb(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
                        const gchar* /*interface*/, const gchar* /*method*/, GVariant* /*parameters*/,
                        GDBusMethodInvocation* invocation, gpointer data) {
    AtBoundary("a call", [&] {
        if (IpcBusLink* self = Handle<IpcBusLink>::Find(data)) {
            self->m_callbacks.onCall(invocation);
        } else {
            ReturnError(invocation, kErrorFailed, "the daemon is going down");
        }
    });
}

void IpcBusLink::Forget() {
    m_retry.reset();
    if (m_connection == nullptr) {
        return;
    }
    if (m_registration != 0) {
        g_dbus_connection_unregister_object(m_connection.get(), std::exchange(m_registration, 0));
        g_dbus_connection_signal_unsubscribe(m_connection.get(), std::exchange(m_acquiredSignal, 0));
        g_dbus_connection_signal_unsubscribe(m_connection.get(), std::exchange(m_lostSignal, 0));
    }
    g_signal_handler_disconnect(m_connection.get(), std::exchange(m_closedHandler, 0));
    m_connection.reset();
}

void IpcBusLink::RetryLater() {
    m_retry = StartTimer(nullptr, m_delay.Next(), RetryCb, m_handle.Data());
}

gboolean IpcBusLink::RetryCb(gpointer data) {
    AtBoundary("trying again", [&] {
        if (IpcBusLink* self = Handle<IpcBusLink>::Find(data)) {
            self->m_retry.reset();
            if (self->m_connection != nullptr) {
                self->RequestName();
            } else {
                self->Connect();
            }
        }
    });
    return G_SOURCE_REMOVE;
}

// One line for each change of state: attempts that fail like the one before stay silent.
void IpcBusLink::Enter(EState state, int priority, const char* what, const char* why) {
    if (m_state != state) {
        m_state = state;
        MAKER_LOG(priority, "IPC: %s: %s", what, why);
    }
}

}  // namespace zol::ipc

#include "ServedName.h"

#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include "Introspection.h"
#include "base/bounded_bus.h"

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

GDBusNodeInfo* LoadIntrospection() {
    base::GErrorPtr error;
    GDBusNodeInfo* info = g_dbus_node_info_new_for_xml(kIntrospectionXml, base::OutError(error));
    if (info == nullptr) {
        throw std::runtime_error(std::string("IPC introspection data: ") + error->message);
    }
    return info;
}

}  // namespace

ServedName::ServedName(bool sessionBus, Callbacks callbacks)
    : m_callbacks(std::move(callbacks)),
      m_introspection(LoadIntrospection()),
      m_cancellable(g_cancellable_new()),
      m_link(sessionBus ? G_BUS_TYPE_SESSION : G_BUS_TYPE_SYSTEM,
             {[this] { AtBoundary("connecting", [this] { Offer(); }); },
              [this](const char* reason) {
                  AtBoundary("the end of the connection", [&] {
                      Enter(EState::NO_BUS, DLOG_PRIORITY_ERROR, "lost the bus, trying to get it back",
                            reason);
                      Withdraw();
                      m_callbacks.onLost();
                  });
              },
              [this](const char* reason) {
                  Enter(EState::NO_BUS, DLOG_PRIORITY_ERROR, "cannot reach the bus, trying on", reason);
              }}) {}

ServedName::~ServedName() {
    g_cancellable_cancel(m_cancellable.get());
    if (Connection() == nullptr) {
        return;
    }
    m_callbacks.onLost();
    Withdraw();
    base::FlushWithin(Connection(), kFlushMs);
    g_dbus_connection_close(Connection(), nullptr, nullptr, nullptr);
}

// The object stands before the name is ours: whoever waits for the name may call at once.
void ServedName::Offer() {
    static const GDBusInterfaceVTable vtable = {CallCb, nullptr, nullptr, {}};
    m_backlog.Guard(Connection());
    base::GErrorPtr error;
    m_registration = g_dbus_connection_register_object(
        Connection(), kObjectPath, g_dbus_node_info_lookup_interface(m_introspection.get(), kNativeInterface),
        &vtable, this, nullptr, base::OutError(error));
    if (m_registration == 0) {
        Enter(EState::NO_NAME, DLOG_PRIORITY_ERROR, "cannot offer the object", base::ErrorText(error.get()));
        return;
    }
    const auto subscribe = [this](const char* signal) {
        // The bus sends these two to the connection they concern without being asked.
        return g_dbus_connection_signal_subscribe(Connection(), kBusDaemon, kBusDaemon, signal,
                                                  kBusDaemonPath, kBusName, G_DBUS_SIGNAL_FLAGS_NO_MATCH_RULE,
                                                  NameSignalCb, this, nullptr);
    };
    m_callbacks.onOffer(Connection());
    m_acquiredSignal = subscribe("NameAcquired");
    m_lostSignal = subscribe("NameLost");
    RequestName();
}

void ServedName::Withdraw() {
    m_retry.reset();
    if (m_registration != 0) {
        g_dbus_connection_unregister_object(Connection(), std::exchange(m_registration, 0));
        g_dbus_connection_signal_unsubscribe(Connection(), std::exchange(m_acquiredSignal, 0));
        g_dbus_connection_signal_unsubscribe(Connection(), std::exchange(m_lostSignal, 0));
    }
}

void ServedName::RequestName() {
    constexpr guint32 kStayInQueue = 0;
    g_dbus_connection_call(Connection(), kBusDaemon, kBusDaemonPath, kBusDaemon, "RequestName",
                           g_variant_new("(su)", kBusName, kStayInQueue), G_VARIANT_TYPE("(u)"),
                           G_DBUS_CALL_FLAGS_NONE, -1, m_cancellable.get(), NameReplyCb, this);
}

void ServedName::NameReplyCb(GObject* source, GAsyncResult* result, gpointer data) {
    AtBoundary("owning the name", [&] {
        base::GErrorPtr error;
        const base::GVariantPtr reply(
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, base::OutError(error)));
        if (g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CANCELLED) != FALSE) {
            return;  // there is no object any more
        }
        guint32 answer = 0;
        if (reply != nullptr) {
            g_variant_get(reply.get(), "(u)", &answer);
        }
        auto* self = static_cast<ServedName*>(data);
        // What a closed connection cannot do any more is told once, as its end.
        if (self->Connection() == G_DBUS_CONNECTION(source) &&
            g_dbus_connection_is_closed(self->Connection()) == FALSE) {
            self->OnNameReply(answer, error.get());
        }
    });
}

void ServedName::OnNameReply(guint32 answer, const GError* error) {
    switch (answer) {
        case kPrimaryOwner:
        case kAlreadyOwner:
            OnNameKnown(EState::SERVING, DLOG_PRIORITY_INFO, "serving");
            break;
        case kInQueue:
            OnNameKnown(EState::QUEUED, DLOG_PRIORITY_ERROR, "the name is taken, waiting for it");
            break;
        default:
            Enter(EState::NO_NAME, DLOG_PRIORITY_ERROR, "cannot own the name, trying on",
                  base::ErrorText(error));
            m_retry = base::StartTimer(nullptr, m_backoff.Next(), [this] { RequestName(); });
    }
}

void ServedName::OnNameKnown(EState state, int priority, const char* what) {
    m_link.Confirm();
    m_backoff.Reset();
    Enter(state, priority, what, kBusName);
}

void ServedName::NameSignalCb(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
                              const gchar* /*interface*/, const gchar* signal, GVariant* /*parameters*/,
                              gpointer data) {
    AtBoundary("a change of the name", [&] {
        auto* self = static_cast<ServedName*>(data);
        if (std::strcmp(signal, "NameAcquired") == 0) {
            self->Enter(EState::SERVING, DLOG_PRIORITY_INFO, "serving", kBusName);
        } else {
            self->Enter(EState::QUEUED, DLOG_PRIORITY_ERROR, "lost the name, waiting for it", kBusName);
        }
    });
}

void ServedName::CallCb(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
                        const gchar* /*interface*/, const gchar* /*method*/, GVariant* /*parameters*/,
                        GDBusMethodInvocation* invocation, gpointer data) {
    AtBoundary("a call", [&] { static_cast<ServedName*>(data)->m_callbacks.onCall(invocation); });
}

// One line for each change of state: attempts that fail like the one before stay silent.
void ServedName::Enter(EState state, int priority, const char* what, const char* why) {
    if (m_state != state) {
        m_state = state;
        MAKER_LOG(priority, "IPC: %s: %s", what, why);
    }
}

}  // namespace zol::ipc

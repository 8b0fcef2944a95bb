#include "base/bus_link.h"

#include <memory>
#include <utility>

namespace base {

GStringPtr BusAddress(GBusType bus, GErrorPtr& error) {
    return GStringPtr(g_dbus_address_get_for_bus_sync(bus, nullptr, OutError(error)));
}

BusLink::BusLink(GBusType bus, Callbacks callbacks)
    : m_bus(bus),
      m_callbacks(std::move(callbacks)),
      m_context(g_main_context_ref_thread_default()),
      m_cancellable(g_cancellable_new()) {
    Connect();
}

BusLink::~BusLink() {
    g_cancellable_cancel(m_cancellable.get());
    // A context that ends with its thread must not be left with an operation under way: each would keep the
    // other alive. The default context outlives everybody, and its other work is not this destructor's to
    // run.
    while (m_attempt != nullptr && m_context.get() != g_main_context_default()) {
        g_main_context_iteration(m_context.get(), TRUE);
    }
    if (m_attempt != nullptr) {
        m_attempt->link = nullptr;
    }
    Drop();
}

void BusLink::Connect() {
    GErrorPtr error;
    const GStringPtr address = BusAddress(m_bus, error);
    if (address == nullptr) {
        OnFailed(ErrorText(error.get()));
        return;
    }
    m_attempt = new Attempt{this};
    g_dbus_connection_new_for_address(address.get(), kBusConnectionFlags, nullptr, m_cancellable.get(),
                                      ConnectedCb, m_attempt);
}

void BusLink::ConnectedCb(GObject* /*source*/, GAsyncResult* result, gpointer data) noexcept {
    const std::unique_ptr<Attempt> attempt(static_cast<Attempt*>(data));
    GErrorPtr error;
    GObjectPtr<GDBusConnection> connection(g_dbus_connection_new_for_address_finish(result, OutError(error)));
    if (BusLink* self = attempt->link) {
        self->m_attempt = nullptr;
        if (g_cancellable_is_cancelled(self->m_cancellable.get()) == FALSE) {
            self->OnConnected(std::move(connection), error.get());
        }
    }
}

void BusLink::OnConnected(GObjectPtr<GDBusConnection> connection, const GError* error) {
    if (connection == nullptr) {
        OnFailed(ErrorText(error));
        return;
    }
    if (g_dbus_connection_is_closed(connection.get()) != FALSE) {
        OnFailed("closed while connecting");
        return;
    }
    m_connection = std::move(connection);
    m_closedHandler = g_signal_connect(m_connection.get(), "closed", G_CALLBACK(ClosedCb), this);
    m_callbacks.connected();
}

void BusLink::OnFailed(const char* reason) {
    RetryLater();
    m_callbacks.failed(reason);
}

void BusLink::ClosedCb(GDBusConnection* /*connection*/, gboolean /*vanished*/, GError* error,
                       gpointer data) noexcept {
    auto* self = static_cast<BusLink*>(data);
    self->m_callbacks.lost(error != nullptr ? error->message : "connection closed");
    self->Drop();
    self->RetryLater();
}

void BusLink::RetryLater() {
    m_retry = StartTimer(m_context.get(), m_backoff.Next(), [this] { Connect(); });
}

void BusLink::Drop() {
    if (m_connection != nullptr) {
        g_signal_handler_disconnect(m_connection.get(), m_closedHandler);
        m_connection.reset();
    }
}

}  // namespace base

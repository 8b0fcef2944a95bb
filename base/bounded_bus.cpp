#include "base/bounded_bus.h"

#include "base/bus_link.h"

namespace base {
namespace {

/// Waits for one asynchronous operation on a main context of its own, so that nothing else runs meanwhile.
/// Once it is over nobody iterates that context: an operation that never ended cannot call back.
class BoundedWait {
public:
    BoundedWait() : m_context(g_main_context_new()) { g_main_context_push_thread_default(m_context.get()); }
    ~BoundedWait() { g_main_context_pop_thread_default(m_context.get()); }
    BoundedWait(const BoundedWait&) = delete;
    BoundedWait& operator=(const BoundedWait&) = delete;

    /// Callback of the operation; its user data is this object.
    static void ReadyCb(GObject* /*source*/, GAsyncResult* result, gpointer data) {
        static_cast<BoundedWait*>(data)->m_result.reset(G_ASYNC_RESULT(g_object_ref(result)));
    }

    /// What the operation ended with; null when the time is over first.
    GAsyncResult* Wait(unsigned milliseconds) {
        // Without an allocation that could fail: destructors wait here.
        gboolean expired = FALSE;
        const GSourcePtr timer(g_timeout_source_new(milliseconds));
        g_source_set_callback(timer.get(), ExpiredCb, &expired, nullptr);
        g_source_attach(timer.get(), m_context.get());
        while (m_result == nullptr && expired == FALSE) {
            g_main_context_iteration(m_context.get(), TRUE);
        }
        return m_result.get();
    }

private:
    static gboolean ExpiredCb(gpointer expired) {
        *static_cast<gboolean*>(expired) = TRUE;
        return G_SOURCE_REMOVE;
    }

    const GMainContextPtr m_context;
    GObjectPtr<GAsyncResult> m_result;
};

}  // namespace

void FlushWithin(GDBusConnection* connection, unsigned milliseconds) {
    BoundedWait wait;
    g_dbus_connection_flush(connection, nullptr, BoundedWait::ReadyCb, &wait);
    wait.Wait(milliseconds);
}

GObjectPtr<GDBusConnection> ConnectWithin(GBusType bus, unsigned milliseconds, GErrorPtr& error) {
    const GStringPtr address = BusAddress(bus, error);
    if (address == nullptr) {
        return nullptr;
    }
    // Made before the wait's own context is pushed: a connection calls back where it was made.
    GObjectPtr<GDBusConnection> connection(G_DBUS_CONNECTION(g_object_new(
        G_TYPE_DBUS_CONNECTION, "address", address.get(), "flags", kBusConnectionFlags, nullptr)));
    const GObjectPtr<GCancellable> cancellable(g_cancellable_new());
    BoundedWait wait;
    g_async_initable_init_async(G_ASYNC_INITABLE(connection.get()), G_PRIORITY_DEFAULT, cancellable.get(),
                                BoundedWait::ReadyCb, &wait);
    GAsyncResult* result = wait.Wait(milliseconds);
    if (result == nullptr) {
        g_cancellable_cancel(cancellable.get());
        result = wait.Wait(milliseconds);
    }
    if (result == nullptr) {
        // GIO may get no thread for the operation: then cancelling does not complete it either.
        error.reset(g_error_new_literal(G_IO_ERROR, G_IO_ERROR_TIMED_OUT, "the bus did not answer in time"));
        return nullptr;
    }
    if (g_async_initable_init_finish(G_ASYNC_INITABLE(connection.get()), result, OutError(error)) == FALSE) {
        return nullptr;
    }
    g_dbus_connection_set_exit_on_close(connection.get(), FALSE);
    return connection;
}

}  // namespace base

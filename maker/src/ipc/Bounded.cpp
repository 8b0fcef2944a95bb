#include "Bounded.h"

#include <functional>
#include <utility>

#include "base/bus_link.h"

namespace zol::ipc {
namespace {

/// Waits for one asynchronous operation on a main context of its own, so that nothing else runs meanwhile.
/// Once it is over nobody iterates that context: an operation that never ended cannot call back.
class BoundedWait {
public:
    using Finish = std::function<void(GObject* source, GAsyncResult* result)>;

    explicit BoundedWait(Finish finish) : m_context(g_main_context_new()), m_finish(std::move(finish)) {
        g_main_context_push_thread_default(m_context.get());
    }
    ~BoundedWait() { g_main_context_pop_thread_default(m_context.get()); }
    BoundedWait(const BoundedWait&) = delete;
    BoundedWait& operator=(const BoundedWait&) = delete;

    /// Callback and user data of the operation.
    static void ReadyCb(GObject* source, GAsyncResult* result, gpointer data) {
        auto* self = static_cast<BoundedWait*>(data);
        AtBoundary("an operation of the bus", [&] { self->m_finish(source, result); });
        self->m_done = true;
    }

    /// False when the time is over first.
    bool Wait(unsigned milliseconds) {
        bool expired = false;
        const base::GSourcePtr timer = base::StartTimer(m_context.get(), milliseconds, ExpiredCb, &expired);
        while (!m_done && !expired) {
            g_main_context_iteration(m_context.get(), TRUE);
        }
        return m_done;
    }

    /// For operations that end soon by themselves, like cancelled ones.
    void WaitForEnd() {
        while (!m_done) {
            g_main_context_iteration(m_context.get(), TRUE);
        }
    }

private:
    static gboolean ExpiredCb(gpointer data) {
        *static_cast<bool*>(data) = true;
        return G_SOURCE_REMOVE;
    }

    const base::GMainContextPtr m_context;
    const Finish m_finish;
    bool m_done = false;
};

}  // namespace

void FlushWithin(GDBusConnection* connection, unsigned milliseconds) {
    BoundedWait wait([](GObject* source, GAsyncResult* result) {
        base::GErrorPtr error;
        g_dbus_connection_flush_finish(G_DBUS_CONNECTION(source), result, base::OutError(error));
    });
    g_dbus_connection_flush(connection, nullptr, BoundedWait::ReadyCb, &wait);
    wait.Wait(milliseconds);
}

GConnectionPtr ConnectWithin(bool sessionBus, unsigned milliseconds, base::GErrorPtr& error) {
    const GBusType bus = sessionBus ? G_BUS_TYPE_SESSION : G_BUS_TYPE_SYSTEM;
    const base::GStringPtr address = base::BusAddress(bus, error);
    if (address == nullptr) {
        return nullptr;
    }
    // Made before the wait's own context is pushed: a connection calls back where it was made.
    GConnectionPtr connection(G_DBUS_CONNECTION(g_object_new(G_TYPE_DBUS_CONNECTION, "address", address.get(),
                                                             "flags", base::kBusConnectionFlags, nullptr)));
    const base::GObjectPtr<GCancellable> cancellable(g_cancellable_new());
    bool connected = false;
    BoundedWait wait([&](GObject* source, GAsyncResult* result) {
        connected =
            g_async_initable_init_finish(G_ASYNC_INITABLE(source), result, base::OutError(error)) == TRUE;
    });
    g_async_initable_init_async(G_ASYNC_INITABLE(connection.get()), G_PRIORITY_DEFAULT, cancellable.get(),
                                BoundedWait::ReadyCb, &wait);
    if (!wait.Wait(milliseconds)) {
        g_cancellable_cancel(cancellable.get());
        wait.WaitForEnd();
    }
    if (!connected) {
        return nullptr;
    }
    g_dbus_connection_set_exit_on_close(connection.get(), FALSE);
    return connection;
}

}  // namespace zol::ipc

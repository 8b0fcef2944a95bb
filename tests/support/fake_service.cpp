#include "fake_service.h"

#include <future>
#include <memory>
#include <stdexcept>
#include <utility>

namespace {

void ThrowIf(const base::GErrorPtr& error) {
    if (error != nullptr) {
        throw std::runtime_error(error->message);
    }
}

}  // namespace

FakeService::FakeService(const std::string& name, const std::string& path, const std::string& xml,
                         Handler handler, const char* bus)
    : m_handler(std::move(handler)), m_context(g_main_context_new()) {
    std::promise<void> entered;
    m_thread = std::thread([&] {
        // Objects are served on the thread's default context.
        g_main_context_push_thread_default(m_context.get());
        try {
            m_connection = ConnectTo(bus);
            Enter(name, path, xml);
            entered.set_value();
        } catch (...) {
            m_stop = true;
            entered.set_exception(std::current_exception());
        }
        while (!m_stop) {
            g_main_context_iteration(m_context.get(), TRUE);
        }
        g_main_context_pop_thread_default(m_context.get());
    });
    try {
        entered.get_future().get();
    } catch (...) {
        Leave();
        throw;
    }
}

FakeService::~FakeService() {
    Leave();
}

void FakeService::Leave() {
    m_stop = true;
    g_main_context_wakeup(m_context.get());
    m_thread.join();
    if (m_connection != nullptr) {
        g_dbus_connection_unregister_object(m_connection.get(), m_object);
        g_dbus_connection_close_sync(m_connection.get(), nullptr, nullptr);
    }
}

void FakeService::Enter(const std::string& name, const std::string& path, const std::string& xml) {
    static const GDBusInterfaceVTable table = {MethodCb, nullptr, nullptr, {}};
    base::GErrorPtr error;
    const std::unique_ptr<GDBusNodeInfo, base::FreeWith<g_dbus_node_info_unref>> info(
        g_dbus_node_info_new_for_xml(xml.c_str(), base::OutError(error)));
    ThrowIf(error);
    m_object = g_dbus_connection_register_object(m_connection.get(), path.c_str(), info->interfaces[0],
                                                 &table, this, nullptr, base::OutError(error));
    ThrowIf(error);
    const base::GVariantPtr owned(
        g_dbus_connection_call_sync(m_connection.get(), "org.freedesktop.DBus", "/", "org.freedesktop.DBus",
                                    "RequestName", g_variant_new("(su)", name.c_str(), 4U), nullptr,
                                    G_DBUS_CALL_FLAGS_NONE, -1, nullptr, base::OutError(error)));
    ThrowIf(error);
}

void FakeService::MethodCb(GDBusConnection* /*connection*/, const char* /*sender*/, const char* path,
                           const char* /*interface*/, const char* method, GVariant* arguments,
                           GDBusMethodInvocation* invocation, gpointer data) {
    static_cast<FakeService*>(data)->m_handler(path, method, arguments, invocation);
}

void FakeService::Emit(const char* path, const char* interface, const char* signal, GVariant* arguments) {
    g_dbus_connection_emit_signal(m_connection.get(), nullptr, path, interface, signal, arguments, nullptr);
}

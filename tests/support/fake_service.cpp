#include "fake_service.h"

#include <cstdlib>
#include <future>
#include <stdexcept>
#include <utility>

namespace {

void ThrowIf(GError* error) {
    if (error != nullptr) {
        const std::string text = error->message;
        g_error_free(error);
        throw std::runtime_error(text);
    }
}

}  // namespace

FakeService::FakeService(const std::string& name, const std::string& path, const std::string& xml,
                         Handler handler, const char* bus)
    : m_handler(std::move(handler)), m_context(g_main_context_new()) {
    std::promise<void> entered;
    m_thread = std::thread([&] {
        // Objects are served on the thread's default context.
        g_main_context_push_thread_default(m_context);
        try {
            Enter(std::getenv(bus), name, path, xml);
            entered.set_value();
        } catch (...) {
            m_stop = true;
            entered.set_exception(std::current_exception());
        }
        while (!m_stop) {
            g_main_context_iteration(m_context, TRUE);
        }
        g_main_context_pop_thread_default(m_context);
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
    g_main_context_wakeup(m_context);
    m_thread.join();
    if (m_connection != nullptr) {
        g_dbus_connection_unregister_object(m_connection, m_object);
        g_dbus_connection_close_sync(m_connection, nullptr, nullptr);
        g_object_unref(m_connection);
    }
    g_main_context_unref(m_context);
}

void FakeService::Enter(const char* address, const std::string& name, const std::string& path,
                        const std::string& xml) {
    static const GDBusInterfaceVTable table = {MethodCb, nullptr, nullptr, {}};
    constexpr auto kFlags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    GError* error = nullptr;
    m_connection = g_dbus_connection_new_for_address_sync(address, kFlags, nullptr, nullptr, &error);
    ThrowIf(error);
    g_dbus_connection_set_exit_on_close(m_connection, FALSE);
    GDBusNodeInfo* info = g_dbus_node_info_new_for_xml(xml.c_str(), &error);
    ThrowIf(error);
    m_object = g_dbus_connection_register_object(m_connection, path.c_str(), info->interfaces[0], &table,
                                                 this, nullptr, &error);
    g_dbus_node_info_unref(info);
    ThrowIf(error);
    GVariant* owned = g_dbus_connection_call_sync(
        m_connection, "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", name.c_str(), 4U), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    ThrowIf(error);
    g_variant_unref(owned);
}

void FakeService::MethodCb(GDBusConnection* /*connection*/, const char* /*sender*/, const char* path,
                           const char* /*interface*/, const char* method, GVariant* arguments,
                           GDBusMethodInvocation* invocation, gpointer data) {
    static_cast<FakeService*>(data)->m_handler(path, method, arguments, invocation);
}

void FakeService::Emit(const char* path, const char* interface, const char* signal, GVariant* arguments) {
    g_dbus_connection_emit_signal(m_connection, nullptr, path, interface, signal, arguments, nullptr);
}

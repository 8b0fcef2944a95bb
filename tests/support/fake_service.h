#pragma once
#include <gio/gio.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "base/glib_handles.h"
#include "private_bus.h"

/// A service on a bus, answering on a thread of its own. It leaves the bus when it is destroyed.
class FakeService {
public:
    /// Runs on the service's thread. Must answer the invocation.
    using Handler = std::function<void(const std::string& path, const std::string& method,
                                       GVariant* arguments, GDBusMethodInvocation* invocation)>;

    /// It has its name when this returns. Throws std::runtime_error when it does not get it.
    /// @param xml introspection data of the one interface served at `path`
    FakeService(const std::string& name, const std::string& path, const std::string& xml, Handler handler,
                const char* bus = kSystemBus);
    ~FakeService();
    FakeService(const FakeService&) = delete;
    FakeService& operator=(const FakeService&) = delete;
    void Emit(const char* path, const char* interface, const char* signal, GVariant* arguments);

private:
    static void MethodCb(GDBusConnection* connection, const char* sender, const char* path,
                         const char* interface, const char* method, GVariant* arguments,
                         GDBusMethodInvocation* invocation, gpointer data);
    void Enter(const std::string& name, const std::string& path, const std::string& xml);
    void Leave();

    const Handler m_handler;
    const base::GMainContextPtr m_context;
    base::GObjectPtr<GDBusConnection> m_connection;
    guint m_object = 0;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

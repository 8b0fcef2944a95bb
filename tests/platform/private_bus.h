#pragma once
/// A system bus and system services of a test's own, and what a test sees of the platform from outside.
#include <gio/gio.h>
#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "base/glib_handles.h"
#include "base/unique_fd.h"
#include "context_thread.h"

/// How long a test waits for what must come; reached only when it fails.
constexpr std::chrono::seconds kPatience(30);

/// An environment variable; empty when it is not set.
std::string Environment(const char* name);

/// Waits for a condition that only another process or a file can make true.
bool Eventually(const std::function<bool()>& condition);

/// A folder that goes with its owner.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};

/// The lines that the platform logged since this was made.
class PlatformLog {
public:
    PlatformLog();
    /// Lines that contain `part`.
    int Count(const std::string& part) const;
    bool WaitFor(const std::string& part, int times = 1) const;

private:
    std::string m_file;
    std::size_t m_start = 0;
};

/// Environment variables that say where a bus is.
constexpr const char* kSystemBus = "DBUS_SYSTEM_BUS_ADDRESS";
constexpr const char* kSessionBus = "DBUS_SESSION_BUS_ADDRESS";

/// A dbus-daemon that serves as one of the buses; the variable names it. No daemon runs before Start.
class PrivateBus {
public:
    explicit PrivateBus(const char* variable = kSystemBus);
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;
    void Start();
    void Stop();

private:
    TemporaryFolder m_folder;
    pid_t m_daemon = -1;
};

/// A service on the bus, answering on a thread of its own. It leaves the bus when it is destroyed.
class FakeService {
public:
    /// Runs on the service's thread. Must answer the invocation.
    using Handler = std::function<void(const std::string& path, const std::string& method,
                                       GVariant* arguments, GDBusMethodInvocation* invocation)>;

    /// @param xml introspection data of the one interface served at `path`
    FakeService(std::string name, std::string path, std::string xml, Handler handler,
                const char* bus = kSystemBus);
    ~FakeService();
    FakeService(const FakeService&) = delete;
    FakeService& operator=(const FakeService&) = delete;
    void Emit(const char* path, const char* interface, const char* signal, GVariant* arguments);

private:
    static void MethodCb(GDBusConnection* connection, const char* sender, const char* path,
                         const char* interface, const char* method, GVariant* arguments,
                         GDBusMethodInvocation* invocation, gpointer data);
    void Serve();

    const std::string m_address;
    const std::string m_name;
    const std::string m_path;
    const std::string m_xml;
    const Handler m_handler;
    base::GObjectPtr<GDBusConnection> m_connection;
    guint m_object = 0;
    platform::ContextThread m_thread;
};

/// What callbacks reported, in order.
template <typename T>
class Reports {
public:
    void Add(T report) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_reports.push_back(std::move(report));
        m_added.notify_all();
    }
    /// All reports as soon as there are `count` of them, or what there is when patience ends.
    std::vector<T> WaitFor(std::size_t count) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_added.wait_for(lock, kPatience, [&] { return m_reports.size() >= count; });
        return m_reports;
    }
    std::vector<T> Now() { return WaitFor(0); }

private:
    std::mutex m_mutex;
    std::condition_variable m_added;
    std::vector<T> m_reports;
};

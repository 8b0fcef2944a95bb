#pragma once
/// A bus of the test's own.
#include <gio/gio.h>

#include <optional>
#include <string>

#include "base/glib_handles.h"
#include "child_process.h"
#include "temporary_folder.h"

/// Environment variables that say where a bus is.
constexpr const char* kSystemBus = "DBUS_SYSTEM_BUS_ADDRESS";
constexpr const char* kSessionBus = "DBUS_SESSION_BUS_ADDRESS";

/// A dbus-daemon on a socket in a temporary folder that serves as one of the buses; the variable names it,
/// and still does when this object is gone: no test ever meets the machine's own bus. No daemon runs before
/// Start.
class PrivateBus {
public:
    /// @param policy the <policy> elements and <include>s of its configuration; empty: allow everything.
    explicit PrivateBus(const char* variable = kSystemBus, const std::string& policy = "");

    /// Starts the bus and returns when it takes connections. Its address stays the same over its whole life.
    /// Throws std::runtime_error when it does not start.
    void Start();
    /// Ends it at once, as a crash would.
    void Stop();
    /// A paused bus keeps its connections, takes new ones, and answers nothing.
    void Pause();
    void Resume();

    const std::string& Address() const { return m_address; }

private:
    TemporaryFolder m_folder;
    std::string m_address;
    std::optional<child::Process> m_daemon;
};

/// A connection to the bus that the variable names. Throws std::runtime_error where there is none.
[[nodiscard]] base::GObjectPtr<GDBusConnection> ConnectTo(const char* variable = kSystemBus);

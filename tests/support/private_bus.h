#pragma once
/// A bus of the test's own.
#include <sys/types.h>

#include <string>

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
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

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
    pid_t m_pid = -1;
};

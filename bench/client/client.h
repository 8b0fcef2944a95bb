#pragma once
/// One client of a running device that stays, so that no program's start is in what it measures.
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "base/glib_handles.h"
#include "base/subscription.h"

namespace bench {

/// The daemon on the bus that DBUS_SYSTEM_BUS_ADDRESS names.
class Bus {
public:
    Bus();
    /// Nanoseconds of a question that the daemon's D-Bus library answers.
    [[nodiscard]] std::int64_t Ping() const;
    /// Nanoseconds of a call. @param outcome receives what the daemon said
    [[nodiscard]] std::int64_t SetPolicy(const std::string& document, std::string& outcome) const;
    /// Calls `owned` each time the daemon takes its name. Runs on GLib's default main context.
    void WatchName(void (*owned)()) const;

private:
    base::GVariantPtr m_Call(const char* interface, const char* method, GVariant* arguments) const;

    base::GObjectPtr<GDBusConnection> m_connection;
};

/// A collector: knows the path that is published, takes it away.
class Collector {
public:
    Collector();
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;
    /// Waits for a path. @return when the notification came
    std::int64_t AwaitPath();
    /// Removes the published report and empties the key; returns when that has been notified.
    void Take();

private:
    base::Subscription m_watch;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::string m_path;
    std::int64_t m_published = 0;
    int m_changes = 0;
};

/// Calls `callback(value)` after each change of an integer or boolean key.
base::Subscription WatchNumber(const std::string& key, void (*callback)(int value));

/// Sets a key; ends the program when that fails.
void SetKey(const std::string& key, int value);

}  // namespace bench

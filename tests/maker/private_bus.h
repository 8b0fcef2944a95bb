#pragma once
/// A bus of the test's own.
#include <sys/types.h>

#include <string>

namespace test {

/// A dbus-daemon on a socket in a temporary folder, found through DBUS_SYSTEM_BUS_ADDRESS as long as this
/// object lives. Everybody of this user may do everything there, unless `policy` says otherwise.
class PrivateBus {
public:
    enum class EStart { NOW, LATER };

    /// @param policy the <policy> elements and <include>s of its configuration; empty: allow everything.
    explicit PrivateBus(EStart start = EStart::NOW, const std::string& policy = "");
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
    void WriteConfiguration(const std::string& policy) const;

    std::string m_folder;
    std::string m_address;
    std::string m_before;
    bool m_wasSet = false;
    pid_t m_pid = -1;
};

}  // namespace test

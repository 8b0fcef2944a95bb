#pragma once
/// Calls to somebody on a message bus by a caller that waits for the answer.
#include <gio/gio.h>

#include <string>

#include "base/glib_handles.h"

namespace base {

/// Whom a call goes to.
struct BusObject {
    const char* name;  ///< on the bus; nobody is started for it
    const char* path;
    const char* interface;
};

/// One connection to a bus, made with the first call and anew when it was lost. Not thread-safe: one thread
/// at a time.
class BusCaller {
public:
    /// How a call ended.
    enum class EEnd {
        ANSWERED,
        FAILED,      ///< whom it went to answered with an error
        UNREACHABLE  ///< no bus, nobody of that name, no permission or no answer in time
    };

    explicit BusCaller(GBusType bus) : m_bus(bus) {}
    ~BusCaller();
    BusCaller(const BusCaller&) = delete;
    BusCaller& operator=(const BusCaller&) = delete;

    /// Calls a method and waits at most `timeoutMs` for the answer (-1: without limit). Connecting takes as
    /// long again at most, five seconds, or twice that when it cannot be given up.
    /// @param parameters a tuple; a floating one is consumed
    /// @param type of the answer, a tuple; another one is FAILED
    [[nodiscard]] EEnd Call(const BusObject& object, const char* method, GVariant* parameters,
                            const char* type, int timeoutMs, GVariantPtr& answer);
    /// One line about the last call: "name of the error: message", or the message alone for what nobody
    /// answered; empty when it was answered.
    [[nodiscard]] const std::string& LastError() const { return m_lastError; }

private:
    bool EnsureConnected(unsigned timeoutMs);
    void Disconnect();

    const GBusType m_bus;
    std::string m_lastError;
    GObjectPtr<GDBusConnection> m_connection;
};

}  // namespace base

#include "base/bus_caller.h"

#include <algorithm>
#include <iterator>

#include "base/bounded_bus.h"

namespace base {
namespace {

constexpr int kConnectMs = 5000;  // longest wait for the bus

/// Errors of the bus that mean the request did not reach anybody, or the answer did not come back.
bool MeansUnreachable(const GError* error) {
    static constexpr int kCodes[] = {G_DBUS_ERROR_SERVICE_UNKNOWN, G_DBUS_ERROR_NAME_HAS_NO_OWNER,
                                     G_DBUS_ERROR_NO_REPLY,        G_DBUS_ERROR_NO_SERVER,
                                     G_DBUS_ERROR_ACCESS_DENIED,   G_DBUS_ERROR_AUTH_FAILED,
                                     G_DBUS_ERROR_TIMEOUT,         G_DBUS_ERROR_TIMED_OUT,
                                     G_DBUS_ERROR_DISCONNECTED,    G_DBUS_ERROR_NO_NETWORK};
    if (error->domain == G_DBUS_ERROR) {
        return std::find(std::begin(kCodes), std::end(kCodes), error->code) != std::end(kCodes);
    }
    // Everything of the transport, but not an error that somebody answered, nor an answer of another type.
    return error->domain == G_IO_ERROR && error->code != G_IO_ERROR_DBUS_ERROR &&
           error->code != G_IO_ERROR_INVALID_ARGUMENT;
}

/// "org.zol.Error.Failed: message" for an answer, the bare message for the rest.
std::string Describe(GError* error) {
    const GStringPtr name(g_dbus_error_get_remote_error(error));
    g_dbus_error_strip_remote_error(error);
    return name != nullptr ? std::string(name.get()) + ": " + error->message : error->message;
}

}  // namespace

BusCaller::~BusCaller() {
    Disconnect();
}

BusCaller::EEnd BusCaller::Call(const BusObject& object, const char* method, GVariant* parameters,
                                const char* type, int timeoutMs, GVariantPtr& answer) {
    const GVariantPtr owned(g_variant_ref_sink(parameters));
    m_lastError.clear();
    answer.reset();
    if (!EnsureConnected(
            static_cast<unsigned>(timeoutMs < 0 ? kConnectMs : std::min(timeoutMs, kConnectMs)))) {
        return EEnd::UNREACHABLE;
    }
    GErrorPtr error;
    answer.reset(g_dbus_connection_call_sync(m_connection.get(), object.name, object.path, object.interface,
                                             method, owned.get(), G_VARIANT_TYPE(type),
                                             G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                             timeoutMs < 0 ? G_MAXINT : timeoutMs, nullptr, OutError(error)));
    if (answer != nullptr) {
        return EEnd::ANSWERED;
    }
    const EEnd end = MeansUnreachable(error.get()) ? EEnd::UNREACHABLE : EEnd::FAILED;
    m_lastError = Describe(error.get());
    return end;
}

bool BusCaller::EnsureConnected(unsigned timeoutMs) {
    if (m_connection != nullptr && g_dbus_connection_is_closed(m_connection.get()) == FALSE) {
        return true;
    }
    Disconnect();
    GErrorPtr error;
    m_connection = ConnectWithin(m_bus, timeoutMs, error);
    if (m_connection == nullptr) {
        m_lastError = error != nullptr ? Describe(error.get()) : "the bus did not answer in time";
    }
    return m_connection != nullptr;
}

void BusCaller::Disconnect() {
    if (m_connection != nullptr) {
        g_dbus_connection_close(m_connection.get(), nullptr, nullptr, nullptr);
        m_connection.reset();
    }
}

}  // namespace base

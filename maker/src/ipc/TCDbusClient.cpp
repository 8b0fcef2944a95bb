#include "TCDbusClient.h"

#include <algorithm>
#include <utility>

#include "Bounded.h"

namespace zol {
namespace {

constexpr int kConnectMs = 5000;  // longest wait for the bus

/// Errors of the bus that mean the request did not reach the daemon, or its answer did not come back.
bool MeansUnreachable(const GError* error) {
    static constexpr int kCodes[] = {G_DBUS_ERROR_SERVICE_UNKNOWN, G_DBUS_ERROR_NAME_HAS_NO_OWNER,
                                     G_DBUS_ERROR_NO_REPLY,        G_DBUS_ERROR_NO_SERVER,
                                     G_DBUS_ERROR_ACCESS_DENIED,   G_DBUS_ERROR_AUTH_FAILED,
                                     G_DBUS_ERROR_TIMEOUT,         G_DBUS_ERROR_TIMED_OUT,
                                     G_DBUS_ERROR_DISCONNECTED,    G_DBUS_ERROR_NO_NETWORK};
    if (error->domain == G_DBUS_ERROR) {
        return std::find(std::begin(kCodes), std::end(kCodes), error->code) != std::end(kCodes);
    }
    // Everything of the transport; G_IO_ERROR_DBUS_ERROR is an error that the daemon itself answered.
    return error->domain == G_IO_ERROR && error->code != G_IO_ERROR_DBUS_ERROR;
}

/// "org.zol.Error.Failed: message" for an answer, the bare message for the rest.
std::string Describe(GError* error) {
    const base::GStringPtr name(g_dbus_error_get_remote_error(error));
    g_dbus_error_strip_remote_error(error);
    return name != nullptr ? std::string(name.get()) + ": " + error->message : error->message;
}

}  // namespace

class TCDbusClient::Impl {
public:
    explicit Impl(bool testMode) : m_testMode(testMode) {}
    ~Impl() { Disconnect(); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    EResult Call(int code, const std::vector<unsigned char>& request, std::vector<unsigned char>& reply,
                 int timeoutMs);
    const std::string& LastError() const { return m_lastError; }

private:
    bool EnsureConnected(int timeoutMs);
    void Disconnect();
    EResult Fail(base::GErrorPtr error);

    const bool m_testMode;
    std::string m_lastError;
    ipc::GConnectionPtr m_connection;
};

TCDbusClient::EResult TCDbusClient::Impl::Call(int code, const std::vector<unsigned char>& request,
                                               std::vector<unsigned char>& reply, int timeoutMs) {
    reply.clear();
    m_lastError.clear();
    if (request.size() > ipc::kMaxMessageBytes) {
        // The bus cuts off whoever sends more than it carries; say it before that happens.
        m_lastError = std::string(ipc::kErrorTooLarge) + ": the request is longer than 16 MiB";
        return EResult::FAILED;
    }
    if (!EnsureConnected(timeoutMs < 0 ? kConnectMs : std::min(timeoutMs, kConnectMs))) {
        return EResult::UNREACHABLE;
    }
    GVariant* bytes = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, request.data(), request.size(), 1);
    base::GErrorPtr error;
    const base::GVariantPtr answer(g_dbus_connection_call_sync(
        m_connection.get(), ipc::kBusName, ipc::kObjectPath, ipc::kNativeInterface, "Call",
        g_variant_new("(i@ay)", code, bytes), G_VARIANT_TYPE("(bay)"), G_DBUS_CALL_FLAGS_NO_AUTO_START,
        timeoutMs < 0 ? G_MAXINT : timeoutMs, nullptr, base::OutError(error)));
    if (answer == nullptr) {
        return Fail(std::move(error));
    }
    gboolean handled = FALSE;
    g_variant_get_child(answer.get(), 0, "b", &handled);
    if (handled == FALSE) {
        m_lastError = "the daemon refused function code " + std::to_string(code);
        return EResult::REFUSED;
    }
    const base::GVariantPtr content(g_variant_get_child_value(answer.get(), 1));
    gsize size = 0;
    const auto* data = static_cast<const unsigned char*>(g_variant_get_fixed_array(content.get(), &size, 1));
    reply.assign(data, data + size);
    return EResult::HANDLED;
}

TCDbusClient::EResult TCDbusClient::Impl::Fail(base::GErrorPtr error) {
    const bool unreachable = MeansUnreachable(error.get());
    m_lastError = Describe(error.get());
    return unreachable ? EResult::UNREACHABLE : EResult::FAILED;
}

bool TCDbusClient::Impl::EnsureConnected(int timeoutMs) {
    if (m_connection != nullptr && !g_dbus_connection_is_closed(m_connection.get())) {
        return true;
    }
    Disconnect();
    base::GErrorPtr error;
    m_connection = ipc::ConnectWithin(m_testMode, static_cast<unsigned>(timeoutMs), error);
    if (m_connection == nullptr) {
        m_lastError = error != nullptr ? Describe(error.get()) : "the bus did not answer in time";
    }
    return m_connection != nullptr;
}

void TCDbusClient::Impl::Disconnect() {
    if (m_connection != nullptr) {
        g_dbus_connection_close(m_connection.get(), nullptr, nullptr, nullptr);
        m_connection.reset();
    }
}

TCDbusClient::TCDbusClient(bool testMode) : m_impl(std::make_unique<Impl>(testMode)) {}

TCDbusClient::~TCDbusClient() = default;

TCDbusClient::EResult TCDbusClient::Call(int functionCode, const std::vector<unsigned char>& request,
                                         std::vector<unsigned char>& reply, int timeoutMs) {
    return m_impl->Call(functionCode, request, reply, timeoutMs);
}

const std::string& TCDbusClient::LastError() const {
    return m_impl->LastError();
}

}  // namespace zol

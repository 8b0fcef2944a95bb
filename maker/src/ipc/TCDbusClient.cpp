#include "TCDbusClient.h"

#include "Gio.h"
#include "base/bus_caller.h"

namespace zol {

class TCDbusClient::Impl {
public:
    explicit Impl(bool testMode) : m_bus(testMode ? G_BUS_TYPE_SESSION : G_BUS_TYPE_SYSTEM) {}

    EResult Call(int code, const std::vector<unsigned char>& request, std::vector<unsigned char>& reply,
                 int timeoutMs);
    const std::string& LastError() const { return m_lastError; }

private:
    base::BusCaller m_bus;
    std::string m_lastError;
};

TCDbusClient::EResult TCDbusClient::Impl::Call(int code, const std::vector<unsigned char>& request,
                                               std::vector<unsigned char>& reply, int timeoutMs) {
    static constexpr base::BusObject kDaemon{ipc::kBusName, ipc::kObjectPath, ipc::kNativeInterface};
    reply.clear();
    m_lastError.clear();
    if (request.size() > ipc::kMaxMessageBytes) {
        // The bus cuts off whoever sends more than it carries; say it before that happens.
        m_lastError = std::string(ipc::kErrorTooLarge) + ": the request is longer than 16 MiB";
        return EResult::FAILED;
    }
    GVariant* bytes = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, request.data(), request.size(), 1);
    base::GVariantPtr answer;
    const base::BusCaller::EEnd end =
        m_bus.Call(kDaemon, "Call", g_variant_new("(i@ay)", code, bytes), "(bay)", timeoutMs, answer);
    if (end != base::BusCaller::EEnd::ANSWERED) {
        m_lastError = m_bus.LastError();
        return end == base::BusCaller::EEnd::FAILED ? EResult::FAILED : EResult::UNREACHABLE;
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

#include "TCDbusServer.h"

#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "Notifier.h"
#include "ServedName.h"
#include "Subscribers.h"

namespace zol {
namespace {

/// The bytes of a call's request, of at most the documented length; copied once, into `request`.
bool ReadRequest(GDBusMethodInvocation* invocation, std::vector<unsigned char>& request) {
    const base::GVariantPtr bytes(
        g_variant_get_child_value(g_dbus_method_invocation_get_parameters(invocation), 1));
    gsize size = 0;
    const void* data = g_variant_get_fixed_array(bytes.get(), &size, 1);
    if (size > ipc::kMaxMessageBytes) {
        return false;
    }
    const auto* begin = static_cast<const unsigned char*>(data);
    request.assign(begin, begin + size);
    return true;
}

void ReturnReply(GDBusMethodInvocation* invocation, bool handled, const std::vector<unsigned char>& reply) {
    g_dbus_method_invocation_return_value(
        invocation,
        g_variant_new("(b@ay)", handled ? TRUE : FALSE,
                      g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, reply.data(), reply.size(), 1)));
}

void ReturnFailure(GDBusMethodInvocation* invocation, int code, const std::string& why) {
    MAKER_ERROR("IPC: the handler of function code %d failed: %s", code, why.c_str());
    ipc::ReturnError(invocation, ipc::kErrorFailed, why);
}

}  // namespace

class TCDbusServer::Impl {
public:
    explicit Impl(bool testMode)
        : m_name(testMode, {[this](GDBusMethodInvocation* invocation) { OnCall(invocation); },
                            [this] { m_subscribers.Clear(); }}),
          m_notifier([this](ipc::Round& round) { round.Begin(m_name.Connection(), m_subscribers.All()); }) {}

    void Register(int code, NativeCallHandler handler) {
        auto entry = std::make_shared<const NativeCallHandler>(std::move(handler));
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_handlers[code] = std::move(entry);
    }

    ipc::Notifier& Notifier() { return m_notifier; }

private:
    using HandlerPtr = std::shared_ptr<const NativeCallHandler>;

    void OnCall(GDBusMethodInvocation* invocation);
    void Call(GDBusMethodInvocation* invocation);
    void Serve(GDBusMethodInvocation* invocation, int code);
    void Subscribe(GDBusMethodInvocation* invocation);
    void Unsubscribe(GDBusMethodInvocation* invocation);
    HandlerPtr HandlerOf(int code) const;

    mutable std::mutex m_mutex;
    std::map<int, HandlerPtr> m_handlers;  // guarded by m_mutex
    ipc::Subscribers m_subscribers;
    ipc::ServedName m_name;
    ipc::Notifier m_notifier;
};

void TCDbusServer::Impl::OnCall(GDBusMethodInvocation* invocation) {
    struct Method {
        const char* name;
        void (Impl::*run)(GDBusMethodInvocation*);
    };
    static constexpr Method kMethods[] = {
        {"Call", &Impl::Call}, {"Subscribe", &Impl::Subscribe}, {"Unsubscribe", &Impl::Unsubscribe}};
    const char* name = g_dbus_method_invocation_get_method_name(invocation);
    for (const Method& method : kMethods) {
        if (std::strcmp(method.name, name) == 0) {
            (this->*method.run)(invocation);
            return;
        }
    }
    ipc::ReturnError(invocation, ipc::kErrorFailed, std::string("no method ") + name);
}

void TCDbusServer::Impl::Call(GDBusMethodInvocation* invocation) {
    gint32 code = 0;
    g_variant_get_child(g_dbus_method_invocation_get_parameters(invocation), 0, "i", &code);
    try {
        Serve(invocation, code);
    } catch (const std::exception& error) {
        ReturnFailure(invocation, code, error.what());
    } catch (...) {
        ReturnFailure(invocation, code, "exception of an unknown type");
    }
}

void TCDbusServer::Impl::Serve(GDBusMethodInvocation* invocation, int code) {
    std::vector<unsigned char> request;
    if (!ReadRequest(invocation, request)) {
        ipc::ReturnError(invocation, ipc::kErrorTooLarge, "the request is longer than 16 MiB");
        return;
    }
    // The handler may serve other calls while it waits, and may be replaced meanwhile: keep it.
    const HandlerPtr handler = HandlerOf(code);
    std::vector<unsigned char> reply;
    const bool handled = handler != nullptr && *handler != nullptr && (*handler)(request, reply);
    if (!handled) {
        reply.clear();
    } else if (reply.size() > ipc::kMaxMessageBytes) {
        ipc::ReturnError(invocation, ipc::kErrorTooLarge, "the reply is longer than 16 MiB");
        return;
    }
    ReturnReply(invocation, handled, reply);
}

TCDbusServer::Impl::HandlerPtr TCDbusServer::Impl::HandlerOf(int code) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_handlers.find(code);
    return found != m_handlers.end() ? found->second : nullptr;
}

void TCDbusServer::Impl::Subscribe(GDBusMethodInvocation* invocation) {
    const gchar* path = nullptr;
    g_variant_get(g_dbus_method_invocation_get_parameters(invocation), "(&o)", &path);
    if (std::strlen(path) > ipc::kMaxPathBytes) {
        ipc::ReturnError(invocation, ipc::kErrorTooLarge, "the path is longer than 255 bytes");
    } else if (m_subscribers.Add(g_dbus_method_invocation_get_connection(invocation),
                                 g_dbus_method_invocation_get_sender(invocation), path)) {
        g_dbus_method_invocation_return_value(invocation, nullptr);
    } else {
        ipc::ReturnError(invocation, ipc::kErrorTooManySubscribers, "too many subscriptions");
    }
}

void TCDbusServer::Impl::Unsubscribe(GDBusMethodInvocation* invocation) {
    m_subscribers.Remove(g_dbus_method_invocation_get_sender(invocation));
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

TCDbusServer::TCDbusServer(bool testMode) : m_impl(std::make_unique<Impl>(testMode)) {}

TCDbusServer::~TCDbusServer() = default;

void TCDbusServer::RegisterNativeCall(int functionCode, NativeCallHandler handler) {
    m_impl->Register(functionCode, std::move(handler));
}

int TCDbusServer::SendNotification(int code, int timeoutMs) {
    return m_impl->Notifier().Send(code, timeoutMs);
}

void TCDbusServer::CancelNotifications() {
    m_impl->Notifier().Cancel();
}

}  // namespace zol

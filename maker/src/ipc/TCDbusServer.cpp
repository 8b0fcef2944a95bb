#include "TCDbusServer.h"

#include <cstring>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "NativeCall.h"
#include "Notifier.h"
#include "ServedName.h"
#include "Subscribers.h"

namespace zol {
namespace {

/// Above GLib's idle work, beside what comes from the bus.
constexpr int kServePriority = G_PRIORITY_DEFAULT;

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
    /// A call on its way to its handler.
    struct Waiting {
        Impl* server;
        ipc::NativeCall call;
        base::GSourcePtr source;
    };

    static gboolean ServeCb(gpointer data);

    void Call(GDBusMethodInvocation* invocation);
    void Serve(ipc::NativeCall& call);
    void ServeOrThrow(ipc::NativeCall& call);
    void Subscribe(GDBusMethodInvocation* invocation);
    void Unsubscribe(GDBusMethodInvocation* invocation);
    HandlerPtr HandlerOf(int code) const;

    mutable std::mutex m_mutex;
    std::map<int, HandlerPtr> m_handlers;  // guarded by m_mutex
    std::list<Waiting> m_waiting;
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

/// The message that brought the call lives as long as the callback that runs now. So the handler runs in one
/// of its own.
void TCDbusServer::Impl::Call(GDBusMethodInvocation* invocation) {
    m_waiting.push_back({this, ipc::NativeCall(invocation), base::GSourcePtr(g_idle_source_new())});
    Waiting& waiting = m_waiting.back();
    g_source_set_priority(waiting.source.get(), kServePriority);
    g_source_set_callback(waiting.source.get(), ServeCb, &waiting, nullptr);
    g_source_attach(waiting.source.get(), nullptr);
}

gboolean TCDbusServer::Impl::ServeCb(gpointer data) {
    // Out of the list first: the handler may serve other calls while it waits.
    Waiting now = std::move(*static_cast<Waiting*>(data));
    now.server->m_waiting.remove_if([data](const Waiting& one) { return &one == data; });
    now.server->Serve(now.call);
    return G_SOURCE_REMOVE;
}

void TCDbusServer::Impl::Serve(ipc::NativeCall& call) {
    base::CatchAll([&] { ServeOrThrow(call); },
                   [&](const char* why) {
                       MAKER_ERROR("IPC: the handler of function code %d failed: %s", call.Code(), why);
                       call.ReturnError(ipc::kErrorFailed, why);
                   });
}

void TCDbusServer::Impl::ServeOrThrow(ipc::NativeCall& call) {
    if (call.IsTooLong()) {
        call.ReturnError(ipc::kErrorTooLarge, "the request is longer than 16 MiB");
        return;
    }
    // The handler may be replaced while it runs: keep it.
    const HandlerPtr handler = HandlerOf(call.Code());
    std::vector<unsigned char> reply;
    const bool handled = handler != nullptr && *handler != nullptr && (*handler)(call.Request(), reply);
    if (!handled) {
        reply.clear();
    } else if (reply.size() > ipc::kMaxMessageBytes) {
        call.ReturnError(ipc::kErrorTooLarge, "the reply is longer than 16 MiB");
        return;
    }
    call.Return(handled, reply);
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

#include "TCDbusServer.h"

#include <iterator>
#include <list>
#include <map>
#include <mutex>
#include <string_view>
#include <utility>

#include "NativeCall.h"
#include "Notifier.h"
#include "PolicyObject.h"
#include "ServedName.h"
#include "Subscribers.h"

namespace zol {
class TCDbusServer::Impl {
public:
    using HandlerPtr = std::shared_ptr<const NativeCallHandler>;
    /// A call on its way to its handler.
    struct Waiting {
        ipc::NativeCall call;
        base::GSourcePtr source;
    };

    explicit Impl(bool testMode)
        : name(testMode, {[this](GDBusMethodInvocation* invocation) { OnCall(invocation); },
                          [this](GDBusConnection* connection) { policy.Offer(connection); },
                          [this] {
                              policy.Withdraw();
                              subscribers.Clear();
                          }}),
          notifier([this](ipc::Round& round) { round.Begin(name.Connection(), subscribers.All()); }) {}

    void OnCall(GDBusMethodInvocation* invocation);
    void Call(GDBusMethodInvocation* invocation);
    void Serve(ipc::NativeCall& call);
    void ServeOrThrow(ipc::NativeCall& call);

    std::mutex mutex;
    std::map<int, HandlerPtr> handlers;  // guarded by mutex
    std::list<Waiting> waiting;
    ipc::Subscribers subscribers;
    ipc::PolicyObject policy;
    ipc::ServedName name;
    ipc::Notifier notifier;
};

void TCDbusServer::Impl::OnCall(GDBusMethodInvocation* invocation) {
    // GDBus lets only the methods of the introspection data through.
    const std::string_view method = g_dbus_method_invocation_get_method_name(invocation);
    if (method == "Call") {
        Call(invocation);
    } else {
        subscribers.Serve(invocation);
    }
}

/// The message that brought the call lives as long as the callback that runs now. So the handler runs in one
/// of its own, above GLib's idle work, beside what comes from the bus.
void TCDbusServer::Impl::Call(GDBusMethodInvocation* invocation) {
    waiting.push_back({ipc::NativeCall(invocation), nullptr});
    const auto entry = std::prev(waiting.end());
    entry->source = base::StartTimer(nullptr, 0, [this, entry] {
        // Out of the list first: the handler may serve other calls while it waits.
        ipc::NativeCall call = std::move(entry->call);
        waiting.erase(entry);
        Serve(call);
    });
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
    HandlerPtr handler;  // kept: it may be replaced while it runs
    {
        const std::lock_guard<std::mutex> lock(mutex);
        const auto found = handlers.find(call.Code());
        handler = found != handlers.end() ? found->second : nullptr;
    }
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

TCDbusServer::TCDbusServer(bool testMode) : m_impl(std::make_unique<Impl>(testMode)) {}

TCDbusServer::~TCDbusServer() = default;

void TCDbusServer::RegisterNativeCall(int functionCode, NativeCallHandler handler) {
    auto entry = std::make_shared<const NativeCallHandler>(std::move(handler));
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->handlers[functionCode] = std::move(entry);
}

int TCDbusServer::SendNotification(int code, int timeoutMs) {
    return m_impl->notifier.Send(code, timeoutMs);
}

void TCDbusServer::CancelNotifications() {
    m_impl->notifier.Cancel();
}

void TCDbusServer::ServePolicy(IPolicyService* service) {
    m_impl->policy.Serve(service);
}

void TCDbusServer::TellPolicyChange() {
    // The bus keeps signals from strangers by the name of the one that sends them.
    if (m_impl->name.IsServing()) {
        m_impl->policy.TellChange();
    }
}

void TCDbusServer::TellPolicyHit(const TSPolicyHit& hit) {
    if (m_impl->name.IsServing()) {
        m_impl->policy.TellHit(hit);
    }
}

}  // namespace zol

#include "dbus_service.h"

#include <memory>
#include <utility>

#include "context_thread.h"
#include "guarded.h"
#include "platform_log.h"

namespace platform {

namespace {
constexpr unsigned kRetryMs = 1000;
}  // namespace

SystemService::SystemService(Description description, Handlers handlers)
    : m_description(std::move(description)),
      m_handlers(std::move(handlers)),
      m_context(g_main_context_ref_thread_default()),
      m_mark(m_description.title),
      m_link(G_BUS_TYPE_SYSTEM,
             {[this] { OnConnected(); },
              [this](const char* reason) { Guarded("system bus", [&] { OnLost(reason); }); },
              [this](const char* reason) { Report(State::NoBus, reason); }}) {}

SystemService::~SystemService() {
    LeaveBus();
    // GLib still holds the data of these; cancelled as they are, they end without waiting for anybody.
    while (m_pending > 0) {
        g_main_context_iteration(m_context.get(), TRUE);
    }
}

void SystemService::OnConnected() {
    m_nameWatch =
        g_bus_watch_name_on_connection(m_link.Connection(), m_description.busName.c_str(),
                                       G_BUS_NAME_WATCHER_FLAGS_NONE, AppearedCb, VanishedCb, this, nullptr);
}

void SystemService::AppearedCb(GDBusConnection* /*connection*/, const char* /*name*/, const char* owner,
                               gpointer data) {
    auto* const self = static_cast<SystemService*>(data);
    const bool isFollowed = Guarded("system bus", [&] {
        self->OnAppeared(owner);
        return true;
    });
    if (!isFollowed) {
        Guarded("system bus", [&] { self->FollowAgain(); });
    }
}

// Half of what follows the service would be worse than none: from the beginning, a little later.
void SystemService::FollowAgain() {
    DropService();
    m_retry = StartTimer(kRetryMs, [this] {
        LeaveBus();
        OnConnected();
    });
}

void SystemService::VanishedCb(GDBusConnection* connection, const char* /*name*/, gpointer data) {
    // Without a connection it is the bus that went; the link sees to that.
    if (connection != nullptr) {
        Guarded("system bus", [&] { static_cast<SystemService*>(data)->OnVanished(); });
    }
}

void SystemService::OnAppeared(const char* owner) {
    m_link.Confirm();
    DropService();
    m_owner = owner;
    m_cancellable.reset(g_cancellable_new());
    m_handlers.appeared();
    // The bus answers in order: its answer says that it has taken the subscriptions.
    Send("org.freedesktop.DBus", {"/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId"}, nullptr, "(s)",
         [this](const Reply& /*reply*/) { Report(State::Present, ""); });
}

void SystemService::OnVanished() {
    m_link.Confirm();
    Report(State::NoService, "");
    DropService();
}

void SystemService::OnLost(const char* reason) {
    Report(State::NoBus, reason);
    LeaveBus();
}

void SystemService::DropService() {
    m_retry.reset();
    if (!Present()) {
        return;
    }
    for (const Subscription& subscription : m_subscriptions) {
        g_dbus_connection_signal_unsubscribe(m_link.Connection(), subscription.id);
    }
    m_subscriptions.clear();
    g_cancellable_cancel(m_cancellable.get());
    m_owner.clear();
    m_handlers.vanished();
}

void SystemService::LeaveBus() {
    DropService();
    if (m_nameWatch != 0) {
        g_bus_unwatch_name(std::exchange(m_nameWatch, 0));
    }
}

void SystemService::Report(State state, const char* detail) {
    if (state == m_state) {
        return;
    }
    m_state = state;
    m_mark.Set(state != State::Present);
    const char* title = m_description.title.c_str();
    const char* purpose = m_description.purpose.c_str();
    switch (state) {
        case State::Present:
            PLATFORM_LOG(INFO, "%s is there: %s work", title, purpose);
            break;
        case State::NoService:
            PLATFORM_LOG(WARN, "%s is missing: no %s until it appears", title, purpose);
            break;
        case State::NoBus:
            PLATFORM_LOG(WARN, "no system bus for %s (%s): no %s until it appears", title, detail, purpose);
            break;
        case State::Unknown:
            break;
    }
}

void SystemService::Subscribe(const Signal& signal, SignalFunction function) {
    m_subscriptions.push_back({0, std::move(function)});
    Subscription& subscription = m_subscriptions.back();
    subscription.id = g_dbus_connection_signal_subscribe(
        m_link.Connection(), m_owner.c_str(), signal.interface, signal.name, signal.path,
        signal.firstArgument, G_DBUS_SIGNAL_FLAGS_NONE, SignalCb, &subscription, nullptr);
}

void SystemService::SignalCb(GDBusConnection* /*connection*/, const char* /*sender*/, const char* path,
                             const char* /*interface*/, const char* name, GVariant* parameters,
                             gpointer data) {
    Guarded(name, [&] { static_cast<Subscription*>(data)->function(path, parameters); });
}

void SystemService::Call(const Method& method, GVariant* arguments, const char* replyType,
                         ReplyFunction function) {
    Send(m_owner.c_str(), method, arguments, replyType, std::move(function));
}

void SystemService::Send(const char* destination, const Method& method, GVariant* arguments,
                         const char* replyType, ReplyFunction function) {
    auto pending = std::make_unique<PendingCall>(PendingCall{this, std::move(function)});
    ++m_pending;
    g_dbus_connection_call_with_unix_fd_list(m_link.Connection(), destination, method.path, method.interface,
                                             method.name, arguments, G_VARIANT_TYPE(replyType),
                                             G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr,
                                             m_cancellable.get(), ReplyCb, pending.release());
}

void SystemService::ReplyCb(GObject* source, GAsyncResult* result, gpointer data) {
    const std::unique_ptr<PendingCall> pending(static_cast<PendingCall*>(data));
    base::GErrorPtr error;
    GUnixFDList* rawFds = nullptr;
    const base::GVariantPtr value(g_dbus_connection_call_with_unix_fd_list_finish(
        reinterpret_cast<GDBusConnection*>(source), &rawFds, result, base::OutError(error)));
    const base::GObjectPtr<GUnixFDList> fds(rawFds);
    --pending->service->m_pending;
    // Cancelled with the service that was asked.
    if (g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CANCELLED) == FALSE) {
        Guarded("reply", [&] { pending->function({value.get(), fds.get(), error.get()}); });
    }
}

}  // namespace platform

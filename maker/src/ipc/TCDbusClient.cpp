#include "TCDbusClient.h"

#include <algorithm>
#include <utility>

#include "Bounded.h"

namespace zol {
namespace {

/// Longest wait for the bus and for Subscribe, in milliseconds.
constexpr int kConnectMs = 5000;
constexpr int kSubscribeMs = 10000;
/// A daemon that hangs drops the subscription with the connection; there is no need to wait for it.
constexpr int kUnsubscribeMs = 1000;
/// A bus that comes back is tried on the thread that serves notifications: it may not be held up for long.
constexpr int kReconnectMs = 1000;

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
    const ipc::GCharPtr name(g_dbus_error_get_remote_error(error));
    g_dbus_error_strip_remote_error(error);
    return name != nullptr ? std::string(name.get()) + ": " + error->message : error->message;
}

/// A limit in this project's terms (-1: none) in those of GDBus.
int GioTimeout(int timeoutMs) {
    return timeoutMs < 0 ? G_MAXINT : timeoutMs;
}

}  // namespace

class TCDbusClient::Impl {
public:
    explicit Impl(bool testMode)
        : m_testMode(testMode), m_introspection(ipc::LoadIntrospection()), m_handle(this) {}
    ~Impl() { Disconnect(); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    EResult Call(int code, const std::vector<unsigned char>& request, std::vector<unsigned char>& reply,
                 int timeoutMs);
    bool Subscribe(std::function<bool(int)> handler);
    void Unsubscribe();
    const std::string& LastError() const { return m_lastError; }

private:
    static void NotifyCb(GDBusConnection* connection, const gchar* sender, const gchar* path,
                         const gchar* interface, const gchar* method, GVariant* parameters,
                         GDBusMethodInvocation* invocation, gpointer data);
    static void DaemonAppearedCb(GDBusConnection* connection, const gchar* name, const gchar* owner,
                                 gpointer data);
    static void SubscribedCb(GObject* source, GAsyncResult* result, gpointer data);
    static void ClosedCb(GDBusConnection* connection, gboolean vanished, GError* error, gpointer data);
    static gboolean RetryCb(gpointer data);

    bool EnsureConnected(int timeoutMs);
    void Disconnect();
    void StopListening();
    bool OfferNotify();
    void WatchDaemon();
    void RetryLater();
    void Retry();
    void SubscribeLater();
    bool Notify(int code);
    ipc::GVariantPtr CallDaemon(const char* method, GVariant* arguments, const char* replyType, int timeoutMs,
                                ipc::GErrorPtr& error);
    EResult Fail(ipc::GErrorPtr error);

    const bool m_testMode;
    const ipc::GNodeInfoPtr m_introspection;
    std::string m_lastError;
    ipc::GConnectionPtr m_connection;
    gulong m_closedHandler = 0;
    guint m_registration = 0;
    guint m_watch = 0;
    std::function<bool(int)> m_handler;  // set while subscribed
    ipc::GMainContextPtr m_context;      // where m_handler runs
    ipc::RetryDelay m_delay;
    ipc::GSourcePtr m_retry;
    const ipc::Handle<Impl> m_handle;
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
    ipc::GErrorPtr error;
    const ipc::GVariantPtr answer =
        CallDaemon("Call", g_variant_new("(i@ay)", code, bytes), "(bay)", timeoutMs, error);
    if (answer == nullptr) {
        return Fail(std::move(error));
    }
    gboolean handled = FALSE;
    g_variant_get_child(answer.get(), 0, "b", &handled);
    if (handled == FALSE) {
        m_lastError = "the daemon refused function code " + std::to_string(code);
        return EResult::REFUSED;
    }
    const ipc::GVariantPtr content(g_variant_get_child_value(answer.get(), 1));
    gsize size = 0;
    const auto* data = static_cast<const unsigned char*>(g_variant_get_fixed_array(content.get(), &size, 1));
    reply.assign(data, data + size);
    return EResult::HANDLED;
}

ipc::GVariantPtr TCDbusClient::Impl::CallDaemon(const char* method, GVariant* arguments,
                                                const char* replyType, int timeoutMs, ipc::GErrorPtr& error) {
    return ipc::GVariantPtr(g_dbus_connection_call_sync(
        m_connection.get(), ipc::kBusName, ipc::kObjectPath, ipc::kNativeInterface, method, arguments,
        G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NO_AUTO_START, GioTimeout(timeoutMs), nullptr,
        ipc::ErrorOut(error)));
}

TCDbusClient::EResult TCDbusClient::Impl::Fail(ipc::GErrorPtr error) {
    const bool unreachable = MeansUnreachable(error.get());
    m_lastError = Describe(error.get());
    return unreachable ? EResult::UNREACHABLE : EResult::FAILED;
}

bool TCDbusClient::Impl::EnsureConnected(int timeoutMs) {
    if (m_connection != nullptr && !g_dbus_connection_is_closed(m_connection.get())) {
        return true;
    }
    Disconnect();
    ipc::GErrorPtr error;
    m_connection = ipc::ConnectWithin(m_testMode, static_cast<unsigned>(timeoutMs), error);
    if (m_connection == nullptr) {
        m_lastError = error != nullptr ? Describe(error.get()) : "the bus did not answer in time";
        if (m_handler != nullptr) {
            RetryLater();
        }
        return false;
    }
    if (m_handler != nullptr && OfferNotify()) {
        WatchDaemon();
    }
    return true;
}

void TCDbusClient::Impl::StopListening() {
    m_retry.reset();
    if (m_watch != 0) {
        g_bus_unwatch_name(std::exchange(m_watch, 0));
    }
    if (m_registration != 0) {
        g_dbus_connection_unregister_object(m_connection.get(), std::exchange(m_registration, 0));
    }
    if (m_closedHandler != 0) {
        g_signal_handler_disconnect(m_connection.get(), std::exchange(m_closedHandler, 0));
    }
}

void TCDbusClient::Impl::Disconnect() {
    StopListening();
    if (m_connection != nullptr) {
        g_dbus_connection_close(m_connection.get(), nullptr, nullptr, nullptr);
        m_connection.reset();
    }
}

bool TCDbusClient::Impl::Subscribe(std::function<bool(int)> handler) {
    Unsubscribe();
    // A connection calls back on the context it was made under, which may have been another one.
    Disconnect();
    m_lastError.clear();
    if (!EnsureConnected(kConnectMs)) {
        return false;
    }
    m_handler = std::move(handler);
    m_context.reset(g_main_context_ref_thread_default());
    ipc::GErrorPtr error;
    if (!OfferNotify() || CallDaemon("Subscribe", g_variant_new("(o)", ipc::kClientPath), "()", kSubscribeMs,
                                     error) == nullptr) {
        if (error != nullptr) {
            Fail(std::move(error));
        }
        m_handler = nullptr;
        Disconnect();
        return false;
    }
    WatchDaemon();
    return true;
}

void TCDbusClient::Impl::Unsubscribe() {
    if (m_handler == nullptr) {
        return;
    }
    m_handler = nullptr;
    StopListening();
    if (m_connection != nullptr) {
        ipc::GErrorPtr error;
        CallDaemon("Unsubscribe", nullptr, "()", kUnsubscribeMs, error);
    }
}

bool TCDbusClient::Impl::OfferNotify() {
    static const GDBusInterfaceVTable vtable = {NotifyCb, nullptr, nullptr, {}};
    ipc::GErrorPtr error;
    m_registration = g_dbus_connection_register_object(
        m_connection.get(), ipc::kClientPath,
        g_dbus_node_info_lookup_interface(m_introspection.get(), ipc::kClientInterface), &vtable,
        m_handle.Data(), nullptr, ipc::ErrorOut(error));
    if (m_registration == 0) {
        m_lastError = Describe(error.get());
    }
    return m_registration != 0;
}

void TCDbusClient::Impl::WatchDaemon() {
    m_closedHandler = g_signal_connect(m_connection.get(), "closed", G_CALLBACK(ClosedCb), m_handle.Data());
    m_watch = g_bus_watch_name_on_connection(m_connection.get(), ipc::kBusName, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                             DaemonAppearedCb, nullptr, m_handle.Data(), nullptr);
}

void TCDbusClient::Impl::DaemonAppearedCb(GDBusConnection* /*connection*/, const gchar* /*name*/,
                                          const gchar* /*owner*/, gpointer data) {
    ipc::AtBoundary("a new daemon", [&] {
        if (Impl* self = ipc::Handle<Impl>::Find(data)) {
            self->SubscribeLater();
        }
    });
}

// Also runs for the daemon that Subscribe has reached itself; the same path again changes nothing there.
void TCDbusClient::Impl::SubscribeLater() {
    g_dbus_connection_call(m_connection.get(), ipc::kBusName, ipc::kObjectPath, ipc::kNativeInterface,
                           "Subscribe", g_variant_new("(o)", ipc::kClientPath), G_VARIANT_TYPE_UNIT,
                           G_DBUS_CALL_FLAGS_NO_AUTO_START, kSubscribeMs, nullptr, SubscribedCb,
                           m_handle.Data());
}

void TCDbusClient::Impl::SubscribedCb(GObject* source, GAsyncResult* result, gpointer data) {
    ipc::AtBoundary("a subscription", [&] {
        ipc::GErrorPtr error;
        const ipc::GVariantPtr reply(
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, ipc::ErrorOut(error)));
        Impl* self = ipc::Handle<Impl>::Find(data);
        if (self == nullptr || self->m_connection.get() != G_DBUS_CONNECTION(source)) {
            return;
        }
        if (reply != nullptr) {
            self->m_delay.Reset();
        } else if (!MeansUnreachable(error.get())) {
            // A daemon that is gone brings its successor to DaemonAppearedCb; one that refuses is asked
            // again.
            self->RetryLater();
        }
    });
}

void TCDbusClient::Impl::ClosedCb(GDBusConnection* /*connection*/, gboolean /*vanished*/, GError* /*error*/,
                                  gpointer data) {
    ipc::AtBoundary("the end of the connection", [&] {
        if (Impl* self = ipc::Handle<Impl>::Find(data)) {
            self->Disconnect();
            self->RetryLater();
        }
    });
}

void TCDbusClient::Impl::RetryLater() {
    m_retry = ipc::StartTimer(m_context.get(), m_delay.Next(), RetryCb, m_handle.Data());
}

gboolean TCDbusClient::Impl::RetryCb(gpointer data) {
    ipc::AtBoundary("subscribing again", [&] {
        if (Impl* self = ipc::Handle<Impl>::Find(data)) {
            self->Retry();
        }
    });
    return G_SOURCE_REMOVE;
}

void TCDbusClient::Impl::Retry() {
    m_retry.reset();
    if (m_handler == nullptr) {
        return;
    }
    const bool hadConnection = m_connection != nullptr;
    if (EnsureConnected(kReconnectMs) && hadConnection) {
        SubscribeLater();
    }
}

void TCDbusClient::Impl::NotifyCb(GDBusConnection* /*connection*/, const gchar* /*sender*/,
                                  const gchar* /*path*/, const gchar* /*interface*/, const gchar* /*method*/,
                                  GVariant* parameters, GDBusMethodInvocation* invocation, gpointer data) {
    bool replies = false;
    ipc::AtBoundary("the handler of a notification", [&] {
        gint32 code = 0;
        g_variant_get(parameters, "(i)", &code);
        Impl* self = ipc::Handle<Impl>::Find(data);
        replies = self != nullptr && self->Notify(code);
    });
    if (replies) {
        g_dbus_method_invocation_return_value(invocation, nullptr);
    } else {
        g_dbus_method_invocation_return_dbus_error(invocation, ipc::kErrorNotAnswered, "no reply");
    }
}

bool TCDbusClient::Impl::Notify(int code) {
    // A copy: the handler may end the subscription.
    const auto handler = m_handler;
    return handler != nullptr && handler(code);
}

TCDbusClient::TCDbusClient(bool testMode) : m_impl(std::make_unique<Impl>(testMode)) {}

TCDbusClient::~TCDbusClient() = default;

TCDbusClient::EResult TCDbusClient::Call(int functionCode, const std::vector<unsigned char>& request,
                                         std::vector<unsigned char>& reply, int timeoutMs) {
    return m_impl->Call(functionCode, request, reply, timeoutMs);
}

bool TCDbusClient::Subscribe(std::function<bool(int code)> handler) {
    return m_impl->Subscribe(std::move(handler));
}

void TCDbusClient::Unsubscribe() {
    m_impl->Unsubscribe();
}

const std::string& TCDbusClient::LastError() const {
    return m_impl->LastError();
}

}  // namespace zol

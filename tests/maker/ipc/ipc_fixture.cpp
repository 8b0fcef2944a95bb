#include "ipc_fixture.h"

#include <atomic>
#include <thread>
#include <utility>

namespace test {

void ServeFor(unsigned milliseconds) {
    bool isOver = false;
    After(milliseconds, [&isOver] { isOver = true; });
    EXPECT_TRUE(ServeUntil([&isOver] { return isOver; }));
}

void ServeWhile(const std::function<void()>& body) {
    std::atomic<bool> done{false};
    std::thread thread([&] {
        body();
        done = true;
        g_main_context_wakeup(nullptr);
    });
    EXPECT_TRUE(ServeUntil([&] { return done.load(); }));
    thread.join();
}

void After(unsigned milliseconds, std::function<void()> body) {
    g_timeout_add(
        milliseconds,
        [](gpointer data) -> gboolean {
            const std::unique_ptr<std::function<void()>> run(static_cast<std::function<void()>*>(data));
            (*run)();
            return G_SOURCE_REMOVE;
        },
        new std::function<void()>(std::move(body)));
}

// Unlike GDBus's own calls this one can do without an interface.
Answer Ask(GDBusConnection* connection, const Question& question) {
    const base::GObjectPtr<GDBusMessage> message(
        g_dbus_message_new_method_call(question.name, question.path, question.interface, question.method));
    if (question.arguments != nullptr) {
        g_dbus_message_set_body(message.get(), question.arguments);
    }
    base::GErrorPtr error;
    const base::GObjectPtr<GDBusMessage> reply(g_dbus_connection_send_message_with_reply_sync(
        connection, message.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE,
        static_cast<gint>(std::chrono::milliseconds(kPatience).count()), nullptr, nullptr,
        base::OutError(error)));
    Answer answer;
    if (reply != nullptr && g_dbus_message_to_gerror(reply.get(), base::OutError(error)) == FALSE) {
        GVariant* body = g_dbus_message_get_body(reply.get());
        answer.body.reset(body != nullptr ? g_variant_ref(body) : nullptr);
    }
    if (error != nullptr) {
        const base::GStringPtr name(g_dbus_error_get_remote_error(error.get()));
        answer.error = name != nullptr ? name.get() : error->message;
    }
    return answer;
}

Peer::Peer(const OnNotify& onNotify, const Paths& paths) {
    for (const std::string& path : paths) {
        EXPECT_EQ(Subscribe(path, onNotify), "");
    }
}

Peer::~Peer() {
    for (const auto& served : m_served) {
        g_dbus_connection_unregister_object(Connection(), served->registration);
    }
    g_dbus_connection_close_sync(Connection(), nullptr, nullptr);
    for (GDBusMethodInvocation* invocation : m_kept) {
        g_object_unref(invocation);
    }
}

void Peer::Reply(Peer& /*peer*/, int /*code*/, GDBusMethodInvocation* invocation) {
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

void Peer::Hang(Peer& peer, int /*code*/, GDBusMethodInvocation* invocation) {
    peer.m_kept.push_back(invocation);
}

void Peer::Die(Peer& peer, int /*code*/, GDBusMethodInvocation* invocation) {
    g_dbus_connection_close_sync(peer.Connection(), nullptr, nullptr);
    g_object_unref(invocation);
}

std::string Peer::Call(const char* method, GVariant* arguments) {
    Answer answer;
    ServeWhile([&] { answer = Ask(Connection(), {kDaemonName, kDaemonPath, kNative, method, arguments}); });
    return answer.error;
}

void Peer::NotifyCb(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
                    const gchar* /*interface*/, const gchar* /*method*/, GVariant* parameters,
                    GDBusMethodInvocation* invocation, gpointer data) {
    auto* served = static_cast<Served*>(data);
    gint32 code = 0;
    g_variant_get(parameters, "(i)", &code);
    served->peer->m_codes.push_back(code);
    served->onNotify(*served->peer, code, invocation);
}

void Peer::Offer(const std::string& path, const OnNotify& onNotify) {
    static GDBusNodeInfo* const info = g_dbus_node_info_new_for_xml(
        "<node><interface name='org.zol.NotificationClient1'><method name='Notify'>"
        "<arg name='code' type='i' direction='in'/></method></interface></node>",
        nullptr);
    static const GDBusInterfaceVTable vtable = {NotifyCb, nullptr, nullptr, {}};
    m_served.push_back(std::make_unique<Served>(Served{this, onNotify, 0}));
    m_served.back()->registration = g_dbus_connection_register_object(
        Connection(), path.c_str(), info->interfaces[0], &vtable, m_served.back().get(), nullptr, nullptr);
}

std::string Peer::Subscribe(const std::string& path, const OnNotify& onNotify) {
    Offer(path, onNotify);
    return Call("Subscribe", g_variant_new("(o)", path.c_str()));
}

bool Peer::AwaitCodes(std::size_t count) const {
    return ServeUntil([&] { return m_codes.size() >= count; });
}

void Peer::AnswerAll() {
    for (GDBusMethodInvocation* invocation : std::exchange(m_kept, {})) {
        g_dbus_method_invocation_return_value(invocation, nullptr);
    }
}

Answer Peer::AskBus(const char* method, GVariant* arguments) {
    return Ask(Connection(),
               {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method, arguments});
}

bool Peer::OwnName(const char* name) {
    guint32 result = 0;
    g_variant_get(AskBus("RequestName", g_variant_new("(su)", name, 0U)).body.get(), "(u)", &result);
    return result == 1;
}

void Peer::ReleaseName(const char* name) {
    EXPECT_EQ(AskBus("ReleaseName", g_variant_new("(s)", name)).error, "");
}

std::vector<std::unique_ptr<Peer>> AllPeers() {
    std::vector<std::unique_ptr<Peer>> peers(16);
    for (auto& peer : peers) {
        peer = std::make_unique<Peer>(Peer::Reply, Paths{"/a", "/b", "/c", "/d"});
    }
    return peers;
}

OnPrivateBus::OnPrivateBus(bool isBusUp, const std::string& policy) : m_bus(kSystemBus, policy) {
    fakes::Reset();
    if (isBusUp) {
        m_bus.Start();
    }
}

std::unique_ptr<zol::TCDbusServer> OnPrivateBus::Serving() {
    const int before = fakes::dlog::Count("IPC: serving");
    auto server = std::make_unique<zol::TCDbusServer>(false);
    RegisterEcho(*server);
    EXPECT_TRUE(ServeUntil([&] { return fakes::dlog::Count("IPC: serving") > before; }));
    return server;
}

void RegisterEcho(zol::TCDbusServer& server) {
    server.RegisterNativeCall(kEcho, [](const Bytes& in, Bytes& out) {
        out = in;
        return true;
    });
}

Outcome CallOnce(int code, const Bytes& request, int timeoutMs) {
    Outcome outcome{EResult::FAILED, {}, {}};
    ServeWhile([&] {
        zol::TCDbusClient client(false);
        outcome.result = client.Call(code, request, outcome.reply, timeoutMs);
        outcome.error = client.LastError();
    });
    return outcome;
}

}  // namespace test

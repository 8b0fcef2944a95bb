#include "ipc_fixture.h"

#include <atomic>
#include <exception>
#include <stdexcept>
#include <thread>
#include <utility>

#include "base/bus_link.h"

namespace test {
namespace {

constexpr const char* kName = "org.zol.Daemon1";
constexpr const char* kPath = "/org/zol/Daemon1";
constexpr const char* kInterface = "org.zol.Native1";
constexpr const char* kClientXml =
    "<node><interface name='org.zol.NotificationClient1'><method name='Notify'>"
    "<arg name='code' type='i' direction='in'/></method></interface></node>";

struct Answer {
    bool done = false;
    std::string error;
    GVariant* reply = nullptr;
};

void OnAnswer(GObject* source, GAsyncResult* result, gpointer data) {
    auto* answer = static_cast<Answer*>(data);
    GError* error = nullptr;
    answer->reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
    if (error != nullptr) {
        gchar* name = g_dbus_error_get_remote_error(error);
        answer->error = name != nullptr ? name : error->message;
        g_free(name);
        g_error_free(error);
    }
    answer->done = true;
}

void ReplyAtOnce(Peer& /*peer*/, int /*code*/, GDBusMethodInvocation* invocation) {
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

guint32 AskBus(GDBusConnection* connection, const char* method, GVariant* arguments) {
    GVariant* reply = g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method,
        arguments, G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    guint32 answer = 0;
    if (reply != nullptr) {
        g_variant_get(reply, "(u)", &answer);
        g_variant_unref(reply);
    }
    return answer;
}

}  // namespace

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

struct Peer::Offer {
    Peer* peer;
    OnNotify onNotify;
    guint registration;
};

Peer::Peer() : m_info(g_dbus_node_info_new_for_xml(kClientXml, nullptr)) {
    gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    m_connection =
        g_dbus_connection_new_for_address_sync(address, base::kBusConnectionFlags, nullptr, nullptr, nullptr);
    g_free(address);
    if (m_connection == nullptr) {
        throw std::runtime_error("a peer cannot reach the private bus");
    }
}

Peer::~Peer() {
    for (const auto& offer : m_offers) {
        g_dbus_connection_unregister_object(m_connection, offer->registration);
    }
    Leave();
    for (GDBusMethodInvocation* invocation : m_kept) {
        g_object_unref(invocation);
    }
    g_object_unref(m_connection);
    g_dbus_node_info_unref(m_info);
}

std::string Peer::Call(const char* method, GVariant* arguments, GVariant** reply) {
    Answer answer;
    g_dbus_connection_call(m_connection, kName, kPath, kInterface, method, arguments, nullptr,
                           G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr, OnAnswer, &answer);
    if (!ServeUntil([&] { return answer.done; })) {
        std::terminate();  // a late answer would write to this frame
    }
    if (reply != nullptr) {
        *reply = answer.reply;
    } else if (answer.reply != nullptr) {
        g_variant_unref(answer.reply);
    }
    return answer.error;
}

void Peer::Send(const char* method, GVariant* arguments) {
    g_dbus_connection_call(m_connection, kName, kPath, kInterface, method, arguments, nullptr,
                           G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr, nullptr, nullptr);
    g_dbus_connection_flush_sync(m_connection, nullptr, nullptr);
}

void Peer::MakeOffer(const std::string& path, OnNotify onNotify) {
    static const GDBusInterfaceVTable vtable = {
        [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* parameters,
           GDBusMethodInvocation* invocation, gpointer data) {
            auto* offer = static_cast<Offer*>(data);
            gint32 code = 0;
            g_variant_get(parameters, "(i)", &code);
            offer->peer->m_codes.push_back(code);
            offer->onNotify(*offer->peer, code, invocation);
        },
        nullptr,
        nullptr,
        {}};
    m_offers.push_back(std::make_unique<Offer>(Offer{this, std::move(onNotify), 0}));
    m_offers.back()->registration = g_dbus_connection_register_object(
        m_connection, path.c_str(), m_info->interfaces[0], &vtable, m_offers.back().get(), nullptr, nullptr);
}

std::string Peer::Subscribe(const std::string& path, OnNotify onNotify) {
    MakeOffer(path, std::move(onNotify));
    return Call("Subscribe", g_variant_new("(o)", path.c_str()));
}

std::string Peer::SubscribeAndReply(const std::string& path) {
    return Subscribe(path, ReplyAtOnce);
}

std::string Peer::SubscribeFromThisThread(const std::string& path) {
    MakeOffer(path, ReplyAtOnce);
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(m_connection, kName, kPath, kInterface, "Subscribe",
                                                  g_variant_new("(o)", path.c_str()), nullptr,
                                                  G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    if (reply != nullptr) {
        g_variant_unref(reply);
        return "";
    }
    std::string message = error->message;
    g_error_free(error);
    return message;
}

std::string Peer::SubscribeAndHang(const std::string& path) {
    return Subscribe(
        path, [](Peer& peer, int, GDBusMethodInvocation* invocation) { peer.m_kept.push_back(invocation); });
}

void Peer::AnswerAll() {
    for (GDBusMethodInvocation* invocation : std::exchange(m_kept, {})) {
        g_dbus_method_invocation_return_value(invocation, nullptr);
    }
}

void Peer::Leave() {
    g_dbus_connection_close_sync(m_connection, nullptr, nullptr);
}

bool Peer::OwnName(const char* name) {
    return AskBus(m_connection, "RequestName", g_variant_new("(su)", name, 0U)) == 1;
}

void Peer::ReleaseName(const char* name) {
    AskBus(m_connection, "ReleaseName", g_variant_new("(s)", name));
}

std::unique_ptr<zol::TCDbusServer> OnPrivateBus::Serving() {
    const int before = fakes::dlog::Count("IPC: serving");
    auto server = std::make_unique<zol::TCDbusServer>(false);
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
    Outcome outcome{zol::TCDbusClient::EResult::FAILED, {}, {}};
    ServeWhile([&] {
        zol::TCDbusClient client(false);
        outcome.result = client.Call(code, request, outcome.reply, timeoutMs);
        outcome.error = client.LastError();
    });
    return outcome;
}

}  // namespace test

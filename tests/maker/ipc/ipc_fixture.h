#pragma once
/// What the tests of the IPC share: a private bus, the server's main loop on the test's thread, and peers
/// that behave in ways the client class never would.
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "TCDbusClient.h"
#include "TCDbusServer.h"
#include "base/glib_handles.h"
#include "fake_dlog.h"
#include "fakes.h"
#include "private_bus.h"
#include "waiting.h"

namespace test {

using Bytes = std::vector<unsigned char>;
using EResult = zol::TCDbusClient::EResult;
using Paths = std::vector<std::string>;

constexpr const char* kDaemonName = "org.zol.Daemon1";
constexpr const char* kDaemonPath = "/org/zol/Daemon1";
constexpr const char* kNative = "org.zol.Native1";

/// Serves the default main context for this long: for things that must not happen meanwhile.
void ServeFor(unsigned milliseconds);
/// Runs `body` on a thread of its own and serves the default main context until it is over.
void ServeWhile(const std::function<void()>& body);
/// A timer on the default main context, running `body` once.
void After(unsigned milliseconds, std::function<void()> body);

struct Question {
    const char* name;
    const char* path;
    const char* interface;  ///< null for a message without
    const char* method;
    GVariant* arguments;  ///< may be null; its reference is taken over
};
struct Answer {
    std::string error;  ///< the D-Bus error's name; empty when there was none
    base::GVariantPtr body;
};
/// One message there, one back, waited for by the calling thread.
Answer Ask(GDBusConnection* connection, const Question& question);

/// A bare connection to the bus, called back on the main context of the thread that made it.
class Peer {
public:
    using OnNotify = std::function<void(Peer& peer, int code, GDBusMethodInvocation* invocation)>;

    Peer() = default;
    /// Subscribes with these paths, which must succeed.
    explicit Peer(const OnNotify& onNotify, const Paths& paths = {"/a"});
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    /// Ways to take a notification: answers it; keeps it unanswered; cuts the connection.
    static void Reply(Peer& peer, int code, GDBusMethodInvocation* invocation);
    static void Hang(Peer& peer, int code, GDBusMethodInvocation* invocation);
    static void Die(Peer& peer, int code, GDBusMethodInvocation* invocation);

    /// Calls a method of the daemon and serves until it is answered.
    /// @return the D-Bus error's name; empty when there was none
    std::string Call(const char* method, GVariant* arguments);
    /// Offers the notification interface and subscribes with it. @return the error's name, or empty.
    std::string Subscribe(const std::string& path, const OnNotify& onNotify = Reply);
    /// Offers it only.
    void Offer(const std::string& path, const OnNotify& onNotify = Reply);
    GDBusConnection* Connection() const { return m_connection.get(); }
    std::string UniqueName() const { return g_dbus_connection_get_unique_name(Connection()); }
    /// What it was told.
    const std::vector<int>& Codes() const { return m_codes; }
    /// Serves until it was told so many altogether.
    [[nodiscard]] bool AwaitCodes(std::size_t count) const;
    /// Answers all that was kept.
    void AnswerAll();

    bool OwnName(const char* name);
    void ReleaseName(const char* name);

private:
    struct Served {
        Peer* peer;
        OnNotify onNotify;
        guint registration;
    };
    static void NotifyCb(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                         GVariant* parameters, GDBusMethodInvocation* invocation, gpointer data);
    Answer AskBus(const char* method, GVariant* arguments);

    const base::GObjectPtr<GDBusConnection> m_connection = ConnectTo(kSystemBus);
    std::vector<std::unique_ptr<Served>> m_served;
    std::vector<GDBusMethodInvocation*> m_kept;
    std::vector<int> m_codes;
};

/// Sixteen peers that reply, each with the four subscriptions it may have: as many as there may be.
std::vector<std::unique_ptr<Peer>> AllPeers();

/// A bus, and a machine of the test's own.
class OnPrivateBus : public testing::Test {
protected:
    explicit OnPrivateBus(bool isBusUp = true, const std::string& policy = "");
    /// Makes a server that echoes calls of kEcho, and serves until it owns the name.
    static std::unique_ptr<zol::TCDbusServer> Serving();

    PrivateBus m_bus;
};

class OnServedBus : public OnPrivateBus {
protected:
    std::unique_ptr<zol::TCDbusServer> m_server = Serving();
};

/// The handler that every test's server has.
constexpr int kEcho = 4;
void RegisterEcho(zol::TCDbusServer& server);

/// One call through the client class, from a thread of its own.
struct Outcome {
    EResult result;
    Bytes reply;
    std::string error;
};
Outcome CallOnce(int code, const Bytes& request, int timeoutMs = 20000);

}  // namespace test

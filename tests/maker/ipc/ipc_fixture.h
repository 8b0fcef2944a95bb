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
#include "fake_dlog.h"
#include "fakes.h"
#include "private_bus.h"
#include "waiting.h"

namespace test {

using Bytes = std::vector<unsigned char>;

/// Serves the default main context for this long: for things that must not happen meanwhile.
void ServeFor(unsigned milliseconds);
/// Runs `body` on a thread of its own and serves the default main context until it is over.
void ServeWhile(const std::function<void()>& body);
/// A timer on the default main context, running `body` once.
void After(unsigned milliseconds, std::function<void()> body);

/// A bare connection to the bus, called back on the default main context.
class Peer {
public:
    using OnNotify = std::function<void(Peer& peer, int code, GDBusMethodInvocation* invocation)>;

    Peer();
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    /// Calls a method of the daemon and serves until it is answered.
    /// @return the D-Bus error's name; empty when there was none. `reply`, when given, takes the answer.
    std::string Call(const char* method, GVariant* arguments, GVariant** reply = nullptr);
    /// Sends a call and does not wait.
    void Send(const char* method, GVariant* arguments);
    /// Offers the notification interface and subscribes with it. @return the error's name, or empty.
    std::string Subscribe(const std::string& path, OnNotify onNotify);
    /// Subscribes and answers everything.
    std::string SubscribeAndReply(const std::string& path);
    /// Subscribes, answers nothing and keeps what it was asked.
    std::string SubscribeAndHang(const std::string& path);
    /// For a peer made on another thread than the server's: subscribes and answers everything on that
    /// thread's main context, and serves nothing.
    std::string SubscribeFromThisThread(const std::string& path);
    std::string UniqueName() const { return g_dbus_connection_get_unique_name(m_connection); }
    /// How often it was asked.
    int Asked() const { return static_cast<int>(m_codes.size()); }
    /// What it was told.
    const std::vector<int>& Codes() const { return m_codes; }
    /// Answers all that was kept.
    void AnswerAll();
    /// Cuts the connection.
    void Leave();

    bool OwnName(const char* name);
    void ReleaseName(const char* name);

private:
    struct Offer;
    void MakeOffer(const std::string& path, OnNotify onNotify);
    GDBusConnection* m_connection = nullptr;
    GDBusNodeInfo* m_info = nullptr;
    std::vector<std::unique_ptr<Offer>> m_offers;
    std::vector<GDBusMethodInvocation*> m_kept;
    std::vector<int> m_codes;
};

/// A bus, and a machine of the test's own.
class OnPrivateBus : public testing::Test {
protected:
    explicit OnPrivateBus(bool isBusUp = true) {
        fakes::Reset();
        if (isBusUp) {
            m_bus.Start();
        }
    }
    /// Makes a server and serves until it owns the name.
    std::unique_ptr<zol::TCDbusServer> Serving();

    PrivateBus m_bus;
};

/// The handlers the tests register under these codes.
constexpr int kEcho = 4;
void RegisterEcho(zol::TCDbusServer& server);

/// One call through the client class, from a thread of its own.
struct Outcome {
    zol::TCDbusClient::EResult result;
    Bytes reply;
    std::string error;
};
Outcome CallOnce(int code, const Bytes& request, int timeoutMs = 20000);

}  // namespace test

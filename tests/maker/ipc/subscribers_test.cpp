/// Subscriptions that go while the bus is still asked whose they are.
#include "Subscribers.h"

#include <memory>
#include <string>

#include "ipc_fixture.h"

namespace {

using test::Peer;

/// A call of a peer's method that nobody waits for.
class PendingCall {
public:
    PendingCall(const Peer& from, const Peer& to) {
        g_dbus_connection_call(from.Connection(), to.UniqueName().c_str(), "/a", zol::ipc::kClientInterface,
                               "Notify", g_variant_new("(i)", 1), nullptr, G_DBUS_CALL_FLAGS_NONE, G_MAXINT,
                               m_cancellable.get(), AnsweredCb, this);
    }
    ~PendingCall() {
        g_cancellable_cancel(m_cancellable.get());
        EXPECT_TRUE(ServeUntil([this] { return m_isAnswered; }));
    }
    PendingCall(const PendingCall&) = delete;
    PendingCall& operator=(const PendingCall&) = delete;

    bool IsAnswered() const { return m_isAnswered; }

private:
    static void AnsweredCb(GObject* source, GAsyncResult* result, gpointer data) {
        base::GErrorPtr error;
        const base::GVariantPtr reply(
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, base::OutError(error)));
        static_cast<PendingCall*>(data)->m_isAnswered = true;
    }

    const base::GObjectPtr<GCancellable> m_cancellable{g_cancellable_new()};
    bool m_isAnswered = false;
};

class IpcSubscribers : public test::OnPrivateBus {};

TEST_F(IpcSubscribers, ACallThatIsNotCarriedOutWhenTheyGoIsNotAnswered) {
    auto leaving = std::make_unique<zol::ipc::Subscribers>();
    zol::ipc::Subscribers staying;
    Peer server;
    server.Offer("/a", [&](Peer& /*peer*/, int /*code*/, GDBusMethodInvocation* invocation) {
        if (leaving != nullptr) {
            leaving->Serve(invocation);
            leaving.reset();  // before the bus can have answered
        } else {
            staying.Serve(invocation);
        }
    });
    const Peer caller;
    const PendingCall early(caller, server);
    const PendingCall late(caller, server);

    ASSERT_TRUE(ServeUntil([&] { return late.IsAnswered(); }));

    EXPECT_FALSE(early.IsAnswered());
}

}  // namespace

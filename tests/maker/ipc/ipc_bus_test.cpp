/// The IPC and its bus: missing, lost, paused, back again; the name taken and freed; a daemon that restarts.
#include <gmock/gmock.h>

#include <atomic>
#include <thread>

#include "dlog.h"
#include "ipc_fixture.h"

namespace {

using fakes::dlog::Count;
using fakes::dlog::Has;
using test::Bytes;
using test::CallOnce;
using test::EResult;
using test::Peer;

class IpcBus : public test::OnPrivateBus {};

class IpcWithoutBus : public test::OnPrivateBus {
protected:
    IpcWithoutBus() : OnPrivateBus(false) {}
};

TEST_F(IpcWithoutBus, TheServerSaysItOnceAndServesWhenTheBusComes) {
    zol::TCDbusServer server(false);
    test::RegisterEcho(server);
    ASSERT_TRUE(ServeUntil([] { return Has("IPC: cannot reach the bus"); }));
    test::ServeFor(400);  // two more attempts
    EXPECT_EQ(Count("IPC: "), 1);
    EXPECT_EQ(fakes::dlog::Find("IPC: ").priority, DLOG_PRIORITY_ERROR);

    m_bus.Start();

    ASSERT_TRUE(ServeUntil([] { return Has("IPC: serving: org.zol.Daemon1"); }));
    EXPECT_EQ(fakes::dlog::Find("IPC: serving").priority, DLOG_PRIORITY_INFO);
    EXPECT_EQ(CallOnce(test::kEcho, {1}).result, EResult::HANDLED);
}

TEST_F(IpcWithoutBus, TheServerNotifiesNobodyAndGoes) {
    zol::TCDbusServer server(false);

    EXPECT_EQ(server.SendNotification(5, -1), 0);
}

TEST_F(IpcBus, AnAddressThatMakesNoSenseIsLoggedOnceAndTheDaemonComesUp) {
    setenv(kSystemBus, "nonsense", 1);
    zol::TCDbusServer server(false);

    EXPECT_TRUE(ServeUntil([] { return Has("IPC: cannot reach the bus"); }));
    EXPECT_EQ(Count("IPC: "), 1);
}

TEST_F(IpcBus, WithoutADaemonTheClientSaysUnreachable) {
    const test::Outcome outcome = CallOnce(test::kEcho, {1});

    EXPECT_EQ(outcome.result, EResult::UNREACHABLE);
    EXPECT_THAT(outcome.error, testing::HasSubstr(test::kDaemonName));
}

TEST_F(IpcBus, ABusThatGoesAndComesBackIsLoggedOnceEachAndServedAgain) {
    const auto server = Serving();
    fakes::dlog::Clear();

    m_bus.Stop();
    ASSERT_TRUE(ServeUntil([] { return Has("IPC: lost the bus"); }));
    test::ServeFor(400);  // attempts that fail stay silent
    EXPECT_EQ(Count("IPC: "), 1);
    m_bus.Start();
    ASSERT_TRUE(ServeUntil([] { return Has("IPC: serving"); }));

    EXPECT_EQ(Count("IPC: "), 2);
    EXPECT_EQ(CallOnce(test::kEcho, {1}).result, EResult::HANDLED);
}

TEST_F(IpcBus, SubscribersOfALostBusAreForgottenAndTheWaitForThemEnds) {
    const auto server = Serving();
    const Peer hanging(Peer::Hang);
    test::After(0, [this] { m_bus.Stop(); });

    EXPECT_EQ(server->SendNotification(5, -1), 0);
    EXPECT_TRUE(ServeUntil([] { return Has("IPC: lost the bus"); }));
    EXPECT_EQ(server->SendNotification(5, -1), 0);
}

TEST_F(IpcBus, SubscribersOfALostBusTakeNoRoomFromThoseOfTheNext) {
    const auto server = Serving();
    const auto peers = test::AllPeers();

    m_bus.Stop();
    ASSERT_TRUE(ServeUntil([] { return Has("IPC: lost the bus"); }));
    m_bus.Start();
    ASSERT_TRUE(ServeUntil([] { return Count("IPC: serving") == 2; }));

    const Peer newcomer(Peer::Reply);
    EXPECT_EQ(server->SendNotification(5, -1), 1);
}

TEST_F(IpcBus, AClientSurvivesItsBus) {
    const auto server = Serving();
    zol::TCDbusClient client(false);
    const auto call = [&] {
        Bytes reply;
        EResult result = EResult::FAILED;
        test::ServeWhile([&] { result = client.Call(test::kEcho, {1}, reply, -1); });
        return result;
    };
    ASSERT_EQ(call(), EResult::HANDLED);

    m_bus.Stop();
    ASSERT_TRUE(ServeUntil([] { return Has("IPC: lost the bus"); }));
    EXPECT_EQ(call(), EResult::UNREACHABLE);
    EXPECT_NE(client.LastError(), "");
    m_bus.Start();
    ASSERT_TRUE(ServeUntil([] { return Count("IPC: serving") == 2; }));

    EXPECT_EQ(call(), EResult::HANDLED);
    EXPECT_EQ(client.LastError(), "");
}

TEST_F(IpcBus, ANameThatIsTakenIsLoggedOnceAndServedWhenItIsFreed) {
    Peer squatter;
    ASSERT_TRUE(squatter.OwnName(test::kDaemonName));
    zol::TCDbusServer server(false);
    test::RegisterEcho(server);
    ASSERT_TRUE(ServeUntil([] { return Has("IPC: the name is taken"); }));
    EXPECT_EQ(Count("IPC: "), 1);
    EXPECT_EQ(fakes::dlog::Find("IPC: ").priority, DLOG_PRIORITY_ERROR);

    squatter.ReleaseName(test::kDaemonName);

    ASSERT_TRUE(ServeUntil([] { return Has("IPC: serving"); }));
    EXPECT_EQ(Count("IPC: "), 2);
    EXPECT_EQ(CallOnce(test::kEcho, {1}).result, EResult::HANDLED);
}

TEST_F(IpcBus, TheNameIsFreeOnceTheServerIsGone) {
    Serving();
    Peer successor;

    EXPECT_TRUE(ServeUntil([&] { return successor.OwnName(test::kDaemonName); }));
}

TEST_F(IpcBus, APausedBusHoldsUpNeitherTheServerNorTheClient) {
    m_bus.Pause();
    {
        zol::TCDbusServer server(false);
        test::ServeFor(20);
        const test::Outcome outcome = CallOnce(test::kEcho, {1}, 50);
        EXPECT_EQ(outcome.result, EResult::UNREACHABLE);
        EXPECT_NE(outcome.error, "");
    }
    m_bus.Resume();
    test::ServeFor(20);

    const auto server = Serving();
    EXPECT_EQ(CallOnce(test::kEcho, {1}).result, EResult::HANDLED);
}

TEST_F(IpcBus, AServerGoesInTimeFromABusThatStoppedReading) {
    auto server = Serving();
    m_bus.Pause();

    server.reset();

    m_bus.Resume();
    Peer successor;
    EXPECT_TRUE(ServeUntil([&] { return successor.OwnName(test::kDaemonName); }));
}

TEST_F(IpcBus, AServerThatGoesWhileItConnectsLeavesNothingBehind) {
    { const zol::TCDbusServer server(false); }
    test::ServeFor(20);

    EXPECT_EQ(Count("IPC: "), 0);
    Peer successor;
    EXPECT_TRUE(successor.OwnName(test::kDaemonName));
}

TEST_F(IpcBus, ACallThatIsStillWaitingWhenTheServerGoesIsAnsweredWithAnError) {
    auto server = Serving();
    EResult result = EResult::HANDLED;
    std::atomic<bool> asked{false};
    std::thread caller([&] {
        zol::TCDbusClient client(false);
        Bytes reply;
        asked = true;
        result = client.Call(test::kEcho, {1}, reply, -1);
    });
    ASSERT_TRUE(Eventually([&] { return asked.load(); }));

    server.reset();  // without serving: the call is on its way or queued
    test::ServeWhile([&] { caller.join(); });

    EXPECT_NE(result, EResult::HANDLED);
}

}  // namespace

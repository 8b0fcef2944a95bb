/// Notifications of the IPC: who is asked, whose reply counts, and what goes on while the server waits.
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "ipc_fixture.h"

namespace {

using test::Bytes;
using test::EResult;
using test::Peer;
using test::ServeWhile;
using Codes = std::vector<int>;

constexpr int kPowerOff = 5;
constexpr const char* kTooMany = "org.zol.Error.TooManySubscribers";

class IpcNotification : public test::OnServedBus {};

/// What SendNotification returns on a thread that is not the server's.
int SendElsewhere(zol::TCDbusServer& server, int code, int timeoutMs) {
    int replies = -1;
    ServeWhile([&] { replies = server.SendNotification(code, timeoutMs); });
    return replies;
}

TEST_F(IpcNotification, WithoutSubscribersNobodyReplies) {
    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 0);
    EXPECT_EQ(SendElsewhere(*m_server, kPowerOff, -1), 0);
}

TEST_F(IpcNotification, EverySubscriberIsToldAndItsReplyCounted) {
    const Peer first(Peer::Reply);
    const Peer second(Peer::Reply);

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 2);
    EXPECT_EQ(SendElsewhere(*m_server, 6, -1), 2);

    EXPECT_EQ(first.Codes(), (Codes{kPowerOff, 6}));
    EXPECT_EQ(second.Codes(), (Codes{kPowerOff, 6}));
}

TEST_F(IpcNotification, AnErrorOrADeathIsNoReplyAndBlocksNobody) {
    const auto refuse = [](Peer&, int, GDBusMethodInvocation* invocation) {
        g_dbus_method_invocation_return_dbus_error(invocation, "org.example.No", "no");
    };
    const Peer refusing(refuse);
    const Peer replying(Peer::Reply);
    for (const bool isElsewhere : {false, true}) {
        const Peer dying(Peer::Die);

        EXPECT_EQ(
            isElsewhere ? SendElsewhere(*m_server, kPowerOff, -1) : m_server->SendNotification(kPowerOff, -1),
            1);
        EXPECT_EQ(dying.Codes().size(), 1U);
    }
    EXPECT_EQ(refusing.Codes().size(), 2U);
}

TEST_F(IpcNotification, AnObjectThatIsNotThereIsNoReply) {
    Peer peer;
    ASSERT_EQ(peer.Call("Subscribe", g_variant_new("(o)", "/nowhere")), "");

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 0);
}

TEST_F(IpcNotification, UnsubscribeEndsAllPathsOfTheCallerAndOfNobodyElse) {
    Peer leaver(Peer::Reply, {"/a", "/b"});
    const Peer stayer(Peer::Reply);
    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 3);

    EXPECT_EQ(leaver.Call("Unsubscribe", nullptr), "");

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 1);
    EXPECT_EQ(leaver.Call("Unsubscribe", nullptr), "") << "without a subscription it does nothing";
}

TEST_F(IpcNotification, CallsSentWithoutWaitingTakeEffectInTheirOrder) {
    Peer peer;
    peer.Offer("/a");
    for (const char* method : {"Subscribe", "Unsubscribe", "Subscribe"}) {
        GVariant* path = method[0] == 'S' ? g_variant_new("(o)", "/a") : nullptr;
        g_dbus_connection_call(peer.Connection(), test::kDaemonName, test::kDaemonPath, test::kNative, method,
                               path, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
    }

    EXPECT_EQ(peer.Call("Unsubscribe", nullptr), "");

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 0);
}

TEST_F(IpcNotification, SubscribingAPathAgainChangesNothing) {
    Peer peer(Peer::Reply);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(peer.Call("Subscribe", g_variant_new("(o)", "/a")), "");
    }

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 1);
}

TEST_F(IpcNotification, AllClientsAreAskedAtTheSameTime) {
    Peer first(Peer::Hang);
    Peer second(Peer::Hang);
    bool bothAsked = false;
    test::After(0, [&] {
        bothAsked = first.AwaitCodes(1) && second.AwaitCodes(1);
        first.AnswerAll();
        second.AnswerAll();
    });

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 2);
    EXPECT_TRUE(bothAsked);
}

TEST_F(IpcNotification, TheTimeLimitEndsTheWaitWithTheRepliesSoFar) {
    Peer hanging(Peer::Hang);
    Peer replying(Peer::Reply);

    EXPECT_LE(m_server->SendNotification(kPowerOff, 200), 1);
    EXPECT_LE(SendElsewhere(*m_server, kPowerOff, 200), 1);
    EXPECT_EQ(m_server->SendNotification(kPowerOff, 0), 0);
}

TEST_F(IpcNotification, AReplyAfterTheTimeLimitDoesNotCountForTheNextNotification) {
    Peer peer(Peer::Hang);
    ASSERT_EQ(m_server->SendNotification(kPowerOff, 0), 0);
    ASSERT_TRUE(peer.AwaitCodes(1));
    peer.AnswerAll();

    EXPECT_EQ(m_server->SendNotification(kPowerOff, 50), 0);
}

TEST_F(IpcNotification, CallsAndTimersAreServedWhileAClientHangs) {
    Peer hanging(Peer::Hang);
    EResult result = EResult::FAILED;
    test::After(0, [&] {
        result = test::CallOnce(test::kEcho, {1}).result;
        hanging.AnswerAll();
    });

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 1);
    EXPECT_EQ(result, EResult::HANDLED);
}

TEST_F(IpcNotification, CallsAreServedWhileAnotherThreadWaitsForAHangingClient) {
    Peer hanging(Peer::Hang);
    int replies = -1;
    std::thread waiter([&] { replies = m_server->SendNotification(kPowerOff, -1); });
    ASSERT_TRUE(hanging.AwaitCodes(1));

    EXPECT_EQ(test::CallOnce(test::kEcho, {1}).result, EResult::HANDLED);

    ServeWhile([&] {
        m_server->CancelNotifications();
        waiter.join();
    });
    EXPECT_EQ(replies, 0);
}

TEST_F(IpcNotification, CancellingFromAnotherThreadEndsAWaitThatServesTheMainContext) {
    Peer hanging(Peer::Hang);
    std::thread canceller;
    // Begun on the main context, so that the wait is under way when the other thread cancels it.
    test::After(0, [&] { canceller = std::thread([&] { m_server->CancelNotifications(); }); });

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 0);
    canceller.join();
}

TEST_F(IpcNotification, CancellingStaysInForce) {
    Peer hanging(Peer::Hang);
    m_server->CancelNotifications();

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 0);
    EXPECT_EQ(SendElsewhere(*m_server, kPowerOff, -1), 0);
    EXPECT_EQ(test::CallOnce(test::kEcho, {1}).result, EResult::HANDLED) << "calls go on";
}

TEST_F(IpcNotification, OneNotificationInsideTheWaitForAnotherCountsItsOwnReplies) {
    Peer slow([](Peer& peer, int code, GDBusMethodInvocation* invocation) {
        (code == kPowerOff ? Peer::Hang : Peer::Reply)(peer, code, invocation);
    });
    const Peer quick(Peer::Reply);
    int inner = -1;
    test::After(0, [&] {
        EXPECT_TRUE(slow.AwaitCodes(1));
        inner = m_server->SendNotification(8, -1);
        slow.AnswerAll();
    });

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 2);
    EXPECT_EQ(inner, 2);
}

TEST_F(IpcNotification, WaitsForAClientThatNeverAnswersNestOnlySoDeepAndEverybodyIsStillTold) {
    constexpr int kNotifications = 20;
    constexpr int kDeepest = 9;  // eight waits, and the one that only sends
    Peer hanging(Peer::Hang);
    Peer replying(Peer::Reply);
    int sent = 0;
    int depth = 0;
    int deepest = 0;
    bool everybodyTold = false;
    const std::function<void()> notify = [&] {
        if (sent == kNotifications) {
            everybodyTold = hanging.AwaitCodes(kNotifications) && replying.AwaitCodes(kNotifications);
            m_server->CancelNotifications();
            return;
        }
        ++sent;
        deepest = std::max(deepest, ++depth);
        test::After(0, notify);
        m_server->SendNotification(kPowerOff, -1);
        --depth;
    };

    notify();

    EXPECT_TRUE(everybodyTold);
    EXPECT_EQ(deepest, kDeepest);
    EXPECT_EQ(fakes::dlog::Count("8 notifications wait for replies; code 5 is sent without waiting"), 12);
}

TEST_F(IpcNotification, AfterNestedWaitsHaveEndedANotificationIsWaitedForAgain) {
    Peer hanging(Peer::Hang);
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(m_server->SendNotification(kPowerOff, 0), 0);
    }
    ASSERT_TRUE(hanging.AwaitCodes(20));
    test::After(0, [&] {
        EXPECT_TRUE(hanging.AwaitCodes(21));
        hanging.AnswerAll();
    });

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 1);
}

TEST_F(IpcNotification, AHandlerMayNotifyAndItsCallerIsStillAnswered) {
    Peer client(Peer::Reply);
    m_server->RegisterNativeCall(9, [this](const Bytes&, Bytes& out) {
        out = {static_cast<unsigned char>(m_server->SendNotification(7, -1))};
        return true;
    });

    EXPECT_EQ(test::CallOnce(9, {}).reply, Bytes{1});
    EXPECT_EQ(client.Codes(), Codes{7});
}

TEST_F(IpcNotification, SeveralThreadsMayNotifyAtOnce) {
    Peer peer(Peer::Reply);
    std::atomic<int> replies{0};
    ServeWhile([&] {
        std::vector<std::thread> senders;
        for (int i = 0; i < 4; ++i) {
            senders.emplace_back([&] {
                for (int code = 0; code < 10; ++code) {
                    replies += m_server->SendNotification(code, -1);
                }
            });
        }
        for (std::thread& sender : senders) {
            sender.join();
        }
    });

    EXPECT_EQ(replies, 40);
    EXPECT_EQ(peer.Codes().size(), 40U);
}

TEST_F(IpcNotification, AConnectionGetsFourSubscriptions) {
    Peer peer(Peer::Reply, {"/a", "/b", "/c", "/d"});

    EXPECT_EQ(peer.Subscribe("/e"), kTooMany);

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 4);
}

TEST_F(IpcNotification, APathOfMoreThan255BytesIsRefused) {
    const std::string longest = "/" + std::string(254, 'a');
    Peer peer(Peer::Reply, {longest});

    EXPECT_EQ(peer.Subscribe(longest + "a"), "org.zol.Error.TooLarge");

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 1);
}

TEST_F(IpcNotification, SixtyFourSubscriptionsFitAndOneThatLeavesMakesRoom) {
    auto peers = test::AllPeers();
    Peer late;
    EXPECT_EQ(late.Subscribe("/a"), kTooMany);
    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 64);

    peers.pop_back();

    EXPECT_TRUE(ServeUntil([&] { return late.Call("Subscribe", g_variant_new("(o)", "/a")).empty(); }));
    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 61);
}

TEST_F(IpcNotification, AServerThatIsDestroyedEndsTheWaitsOfOtherThreads) {
    Peer hanging(Peer::Hang);
    int replies = -1;
    std::thread waiter([&] { replies = m_server->SendNotification(kPowerOff, -1); });
    ASSERT_TRUE(hanging.AwaitCodes(1));

    m_server.reset();
    waiter.join();

    EXPECT_EQ(replies, 0);
    hanging.AnswerAll();
    test::ServeFor(20);  // what comes late finds nothing to touch
}

TEST_F(IpcNotification, AServerThatIsDestroyedWithUnansweredQuestionsIsNotTouchedByTheAnswers) {
    Peer hanging(Peer::Hang);
    ASSERT_EQ(m_server->SendNotification(kPowerOff, 0), 0);
    ASSERT_TRUE(hanging.AwaitCodes(1));

    m_server.reset();
    hanging.AnswerAll();
    test::ServeFor(20);

    m_server = Serving();
    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 0) << "a new daemon knows no subscriptions";
}

}  // namespace

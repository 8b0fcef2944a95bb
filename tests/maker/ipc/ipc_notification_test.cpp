/// Notifications of the IPC: who is asked, whose reply counts, and what goes on while the server waits.
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "ipc_fixture.h"

namespace {

using EResult = zol::TCDbusClient::EResult;
using test::Bytes;
using test::Peer;
using test::ServeWhile;

constexpr int kPowerOff = 5;
constexpr const char* kTooMany = "org.zol.Error.TooManySubscribers";

class IpcNotification : public test::OnPrivateBus {
protected:
    IpcNotification() : m_server(Serving()) { test::RegisterEcho(*m_server); }

    std::unique_ptr<zol::TCDbusServer> m_server;
};

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
    Peer first;
    Peer second;
    ASSERT_EQ(first.SubscribeAndReply("/a"), "");
    ASSERT_EQ(second.SubscribeAndReply("/a"), "");

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 2);
    EXPECT_EQ(SendElsewhere(*m_server, 6, -1), 2);

    EXPECT_EQ(first.Codes(), (std::vector<int>{kPowerOff, 6}));
    EXPECT_EQ(second.Codes(), (std::vector<int>{kPowerOff, 6}));
}

TEST_F(IpcNotification, AnErrorIsNoReply) {
    Peer refusing;
    Peer replying;
    ASSERT_EQ(refusing.Subscribe("/a",
                                 [](Peer&, int, GDBusMethodInvocation* invocation) {
                                     g_dbus_method_invocation_return_dbus_error(invocation, "org.example.No",
                                                                                "no");
                                 }),
              "");
    ASSERT_EQ(replying.SubscribeAndReply("/a"), "");

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 1);
    EXPECT_EQ(refusing.Asked(), 1);
}

TEST_F(IpcNotification, AnObjectThatIsNotThereIsNoReply) {
    Peer peer;
    ASSERT_EQ(peer.Call("Subscribe", g_variant_new("(o)", "/nowhere")), "");

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 0);
}

TEST_F(IpcNotification, UnsubscribeEndsAllPathsOfTheCallerAndOfNobodyElse) {
    Peer leaver;
    Peer stayer;
    ASSERT_EQ(leaver.SubscribeAndReply("/a"), "");
    ASSERT_EQ(leaver.SubscribeAndReply("/b"), "");
    ASSERT_EQ(stayer.SubscribeAndReply("/a"), "");
    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 3);

    EXPECT_EQ(leaver.Call("Unsubscribe", nullptr), "");

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 1);
    EXPECT_EQ(leaver.Call("Unsubscribe", nullptr), "") << "without a subscription it does nothing";
}

TEST_F(IpcNotification, SubscribingAPathAgainChangesNothing) {
    Peer peer;
    ASSERT_EQ(peer.SubscribeAndReply("/a"), "");
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(peer.Call("Subscribe", g_variant_new("(o)", "/a")), "");
    }

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 1);
}

TEST_F(IpcNotification, AClientThatDiesWhileItIsAskedIsNoReplyAndBlocksNobody) {
    Peer dying;
    Peer replying;
    ASSERT_EQ(replying.SubscribeAndReply("/a"), "");
    ASSERT_EQ(dying.Subscribe("/a",
                              [](Peer& peer, int, GDBusMethodInvocation* invocation) {
                                  peer.Leave();
                                  g_object_unref(invocation);
                              }),
              "");

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 1);
    EXPECT_EQ(dying.Asked(), 1);
}

TEST_F(IpcNotification, AClientThatDiesWhileAnotherThreadWaitsIsNoReply) {
    Peer dying;
    ASSERT_EQ(dying.Subscribe("/a",
                              [](Peer& peer, int, GDBusMethodInvocation* invocation) {
                                  peer.Leave();
                                  g_object_unref(invocation);
                              }),
              "");

    EXPECT_EQ(SendElsewhere(*m_server, kPowerOff, -1), 0);
}

TEST_F(IpcNotification, AllClientsAreAskedAtTheSameTime) {
    Peer first;
    Peer second;
    ASSERT_EQ(first.SubscribeAndHang("/a"), "");
    ASSERT_EQ(second.SubscribeAndHang("/a"), "");
    bool bothAsked = false;
    test::After(0, [&] {
        bothAsked = ServeUntil([&] { return first.Asked() == 1 && second.Asked() == 1; });
        first.AnswerAll();
        second.AnswerAll();
    });

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 2);
    EXPECT_TRUE(bothAsked);
}

TEST_F(IpcNotification, TheTimeLimitEndsTheWaitWithTheRepliesSoFar) {
    Peer hanging;
    Peer replying;
    ASSERT_EQ(hanging.SubscribeAndHang("/a"), "");
    ASSERT_EQ(replying.SubscribeAndReply("/a"), "");

    EXPECT_LE(m_server->SendNotification(kPowerOff, 200), 1);
    EXPECT_LE(SendElsewhere(*m_server, kPowerOff, 200), 1);
    EXPECT_EQ(m_server->SendNotification(kPowerOff, 0), 0);
}

TEST_F(IpcNotification, AReplyAfterTheTimeLimitDoesNotCountForTheNextNotification) {
    Peer peer;
    ASSERT_EQ(peer.SubscribeAndHang("/a"), "");
    ASSERT_EQ(m_server->SendNotification(kPowerOff, 0), 0);
    ASSERT_TRUE(ServeUntil([&] { return peer.Asked() == 1; }));
    peer.AnswerAll();

    EXPECT_EQ(m_server->SendNotification(kPowerOff, 50), 0);
}

TEST_F(IpcNotification, CallsAndTimersAreServedWhileAClientHangs) {
    Peer hanging;
    ASSERT_EQ(hanging.SubscribeAndHang("/a"), "");
    EResult result = EResult::FAILED;
    test::After(0, [&] {
        result = test::CallOnce(test::kEcho, {1}).result;
        hanging.AnswerAll();
    });

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 1);
    EXPECT_EQ(result, EResult::HANDLED);
}

TEST_F(IpcNotification, CallsAreServedWhileAnotherThreadWaitsForAHangingClient) {
    Peer hanging;
    ASSERT_EQ(hanging.SubscribeAndHang("/a"), "");
    int replies = -1;
    std::thread waiter([&] { replies = m_server->SendNotification(kPowerOff, -1); });
    ASSERT_TRUE(ServeUntil([&] { return hanging.Asked() == 1; }));

    EXPECT_EQ(test::CallOnce(test::kEcho, {1}).result, EResult::HANDLED);

    ServeWhile([&] {
        m_server->CancelNotifications();
        waiter.join();
    });
    EXPECT_EQ(replies, 0);
}

TEST_F(IpcNotification, CancellingFromAnotherThreadEndsAWaitThatServesTheMainContext) {
    Peer hanging;
    ASSERT_EQ(hanging.SubscribeAndHang("/a"), "");
    std::thread canceller;
    // Begun on the main context, so that the wait is under way when the other thread cancels it.
    test::After(0, [&] { canceller = std::thread([&] { m_server->CancelNotifications(); }); });

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 0);
    canceller.join();
}

TEST_F(IpcNotification, CancellingStaysInForce) {
    Peer hanging;
    ASSERT_EQ(hanging.SubscribeAndHang("/a"), "");
    m_server->CancelNotifications();

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 0);
    EXPECT_EQ(SendElsewhere(*m_server, kPowerOff, -1), 0);
    EXPECT_EQ(test::CallOnce(test::kEcho, {1}).result, EResult::HANDLED) << "calls go on";
}

TEST_F(IpcNotification, OneNotificationInsideTheWaitForAnotherCountsItsOwnReplies) {
    Peer slow;
    Peer quick;
    std::vector<GDBusMethodInvocation*> kept;
    ASSERT_EQ(slow.Subscribe("/a",
                             [&](Peer&, int code, GDBusMethodInvocation* invocation) {
                                 if (code == kPowerOff) {
                                     kept.push_back(invocation);
                                 } else {
                                     g_dbus_method_invocation_return_value(invocation, nullptr);
                                 }
                             }),
              "");
    ASSERT_EQ(quick.SubscribeAndReply("/a"), "");
    int inner = -1;
    test::After(0, [&] {
        EXPECT_TRUE(ServeUntil([&] { return !kept.empty(); }));
        inner = m_server->SendNotification(8, -1);
        g_dbus_method_invocation_return_value(kept.front(), nullptr);
    });

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 2);
    EXPECT_EQ(inner, 2);
}

TEST_F(IpcNotification, WaitsForAClientThatNeverAnswersNestOnlySoDeepAndEverybodyIsStillTold) {
    constexpr int kNotifications = 20;
    constexpr int kDeepest = 9;  // eight waits, and the one that only sends
    Peer hanging;
    Peer replying;
    ASSERT_EQ(hanging.SubscribeAndHang("/a"), "");
    ASSERT_EQ(replying.SubscribeAndReply("/a"), "");
    int sent = 0;
    int depth = 0;
    int deepest = 0;
    bool everybodyTold = false;
    const std::function<void()> notify = [&] {
        if (sent == kNotifications) {
            everybodyTold = ServeUntil(
                [&] { return hanging.Asked() == kNotifications && replying.Asked() == kNotifications; });
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
    Peer hanging;
    ASSERT_EQ(hanging.SubscribeAndHang("/a"), "");
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(m_server->SendNotification(kPowerOff, 0), 0);
    }
    ASSERT_TRUE(ServeUntil([&] { return hanging.Asked() == 20; }));
    test::After(0, [&] {
        EXPECT_TRUE(ServeUntil([&] { return hanging.Asked() == 21; }));
        hanging.AnswerAll();
    });

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 1);
}

TEST_F(IpcNotification, AHandlerMayNotifyAndItsCallerIsStillAnswered) {
    Peer client;
    ASSERT_EQ(client.SubscribeAndReply("/a"), "");
    m_server->RegisterNativeCall(9, [this](const Bytes&, Bytes& out) {
        out = {static_cast<unsigned char>(m_server->SendNotification(7, -1))};
        return true;
    });

    EXPECT_EQ(test::CallOnce(9, {}).reply, Bytes{1});
    EXPECT_EQ(client.Codes(), std::vector<int>{7});
}

TEST_F(IpcNotification, SeveralThreadsMayNotifyAtOnce) {
    Peer peer;
    ASSERT_EQ(peer.SubscribeAndReply("/a"), "");
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
    EXPECT_EQ(peer.Asked(), 40);
}

TEST_F(IpcNotification, AConnectionGetsFourSubscriptions) {
    Peer peer;
    for (const char* path : {"/a", "/b", "/c", "/d"}) {
        EXPECT_EQ(peer.SubscribeAndReply(path), "");
    }

    EXPECT_EQ(peer.SubscribeAndReply("/e"), kTooMany);

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 4);
}

TEST_F(IpcNotification, APathOfMoreThan255BytesIsRefused) {
    Peer peer;
    const std::string longest = "/" + std::string(254, 'a');
    EXPECT_EQ(peer.SubscribeAndReply(longest), "");

    EXPECT_EQ(peer.SubscribeAndReply(longest + "a"), "org.zol.Error.TooLarge");

    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 1);
}

TEST_F(IpcNotification, SixtyFourSubscriptionsFitAndOneThatLeavesMakesRoom) {
    std::vector<std::unique_ptr<Peer>> peers;
    for (int i = 0; i < 16; ++i) {
        peers.push_back(std::make_unique<Peer>());
        for (const char* path : {"/a", "/b", "/c", "/d"}) {
            ASSERT_EQ(peers.back()->SubscribeAndReply(path), "");
        }
    }
    Peer late;
    EXPECT_EQ(late.SubscribeAndReply("/a"), kTooMany);
    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 64);

    peers.pop_back();

    EXPECT_TRUE(ServeUntil([&] { return late.Call("Subscribe", g_variant_new("(o)", "/a")).empty(); }));
    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 61);
}

TEST_F(IpcNotification, AServerThatIsDestroyedEndsTheWaitsOfOtherThreads) {
    Peer hanging;
    ASSERT_EQ(hanging.SubscribeAndHang("/a"), "");
    int replies = -1;
    std::thread waiter([&] { replies = m_server->SendNotification(kPowerOff, -1); });
    ASSERT_TRUE(ServeUntil([&] { return hanging.Asked() == 1; }));

    m_server.reset();
    waiter.join();

    EXPECT_EQ(replies, 0);
    hanging.AnswerAll();
    test::ServeFor(20);  // what comes late finds nothing to touch
}

TEST_F(IpcNotification, AServerThatIsDestroyedWithUnansweredQuestionsIsNotTouchedByTheAnswers) {
    Peer hanging;
    ASSERT_EQ(hanging.SubscribeAndHang("/a"), "");
    ASSERT_EQ(m_server->SendNotification(kPowerOff, 0), 0);
    ASSERT_TRUE(ServeUntil([&] { return hanging.Asked() == 1; }));

    m_server.reset();
    hanging.AnswerAll();
    test::ServeFor(20);

    m_server = Serving();
    EXPECT_EQ(m_server->SendNotification(kPowerOff, -1), 0) << "a new daemon knows no subscriptions";
}

}  // namespace

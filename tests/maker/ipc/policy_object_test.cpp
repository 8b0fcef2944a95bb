/// org.zol.Policy1 as the bus shows it, on a service of the test's own.
#include <gmock/gmock.h>

#include <string>

#include "fake_policy_service.h"
#include "ipc_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kPolicy = "org.zol.Policy1";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr const char* kUnknownMethod = "org.freedesktop.DBus.Error.UnknownMethod";

class PolicyObject : public test::OnServedBus {
protected:
    PolicyObject() { m_server->ServePolicy(&m_service); }
    ~PolicyObject() override { m_server->ServePolicy(nullptr); }

    /// The answer as text, or the error's name.
    static std::string Ask(const char* interface, const char* method, const char* arguments) {
        test::Answer answer;
        test::ServeWhile([&] {
            answer = test::Ask(ConnectTo(kSystemBus).get(), {test::kDaemonName, test::kDaemonPath, interface,
                                                             method, g_variant_new_parsed(arguments)});
        });
        if (!answer.error.empty()) {
            return answer.error;
        }
        const base::GStringPtr text(g_variant_print(answer.body.get(), FALSE));
        return text.get();
    }
    static std::string Get(const std::string& property) {
        return Ask(kProperties, "Get", ("('org.zol.Policy1', '" + property + "')").c_str());
    }

    FakePolicyService m_service;
};

TEST_F(PolicyObject, APolicyIsHandedOverAndItsFateAndRemarksComeBack) {
    m_service.answer = {true, "stored", {{3, 7, true, "dropped", "no value", "add one"}}};

    EXPECT_EQ(Ask(kPolicy, "SetPolicy", "('<zolitem/>',)"),
              "(true, 'stored', [(3, 7, 'error', 'dropped', 'no value', 'add one')])");
    EXPECT_THAT(m_service.documents, ElementsAre("<zolitem/>"));
    m_service.answer.remarks = {{1, 2, false, "number", "", ""}};
    EXPECT_EQ(Ask(kPolicy, "Check", "('x',)"), "([(1, 2, 'warning', 'number', '', '')],)");
    EXPECT_THAT(m_service.documents, ElementsAre("<zolitem/>")) << "a check sets nothing";
}

TEST_F(PolicyObject, ARuleCarriesValuesOfEachTypeAndTextThatIsNotUtf8IsMadeSo) {
    m_service.rules = {{{"b", true}, {"i", std::int32_t{-1}}, {"u", 1U}, {"x", std::int64_t{1} << 40}},
                       {{"s", std::string("a\xff")}}};

    EXPECT_EQ(Ask(kPolicy, "Explain", "('',)"),
              "([{'b': <true>, 'i': <-1>, 'u': <uint32 1>, 'x': <int64 1099511627776>}, {'s': "
              "<'a\xef\xbf\xbd'>}],)");
}

TEST_F(PolicyObject, WhatTheServiceThrowsIsTheAnswerAndIsLogged) {
    for (const char* method : {"SetPolicy", "Check", "Explain"}) {
        EXPECT_EQ(Ask(kPolicy, method, "('throw',)"), "org.zol.Error.Failed") << method;
        EXPECT_TRUE(fakes::dlog::Has(std::string("IPC: ") + method +
                                     " of org.zol.Policy1 failed: as the test wants it"));
    }
}

TEST_F(PolicyObject, AReplyThatIsTooLongIsAnErrorInItsPlace) {
    m_service.rules = {{{"s", std::string(std::size_t{17} * 1024 * 1024, 'x')}}};

    EXPECT_EQ(Ask(kPolicy, "Explain", "('',)"), "org.zol.Error.TooLarge");
}

TEST_F(PolicyObject, EachPropertyIsWhatTheServiceSaysWhenItIsRead) {
    m_service.state = {
        "1.2.3",  7, true, 5, 2, 1650000000, 1700000000, 3, {1600000000, "db/k", "3", "/tmp/zol/a"},
        {"BlueZ"}};
    m_service.digests = {"aa", "bb"};

    EXPECT_EQ(Get("Version"), "(<'1.2.3'>,)");
    EXPECT_EQ(Get("PolicyVersion"), "(<7>,)");
    EXPECT_EQ(Get("PolicyDigest"), "(<('aa', 'bb')>,)");
    EXPECT_EQ(Get("Monitoring"), "(<true>,)");
    EXPECT_EQ(Get("RulesWatched"), "(<uint32 5>,)");
    EXPECT_EQ(Get("RulesDropped"), "(<uint32 2>,)");
    EXPECT_EQ(Get("Since"), "(<uint64 1650000000>,)");
    EXPECT_EQ(Get("Expires"), "(<uint64 1700000000>,)");
    EXPECT_EQ(Get("PathsWaiting"), "(<uint32 3>,)");
    EXPECT_EQ(Get("LastHit"), "(<(uint64 1600000000, 'db/k', '3', '/tmp/zol/a')>,)");
    EXPECT_EQ(Get("MissingServices"), "(<['BlueZ']>,)");
    m_service.state.expires = -1;
    EXPECT_EQ(Get("Expires"), "(<uint64 0>,)");
}

/// Hears the signals of the daemon.
class Signals {
public:
    Signals() {
        m_subscription = g_dbus_connection_signal_subscribe(
            m_connection.get(), test::kDaemonName, nullptr, nullptr, test::kDaemonPath, nullptr,
            G_DBUS_SIGNAL_FLAGS_NONE,
            [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* name,
               GVariant* arguments, gpointer self) {
                const base::GStringPtr text(g_variant_print(arguments, FALSE));
                static_cast<Signals*>(self)->heard.push_back(std::string(name) + text.get());
            },
            this, nullptr);
        Pass();
    }
    ~Signals() { g_dbus_connection_signal_unsubscribe(m_connection.get(), m_subscription); }
    /// Until what was sent before has come.
    void Pass() {
        bool isBack = false;
        g_dbus_connection_call(
            m_connection.get(), test::kDaemonName, test::kDaemonPath, "org.freedesktop.DBus.Peer", "Ping",
            nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
            [](GObject* source, GAsyncResult* result, gpointer data) {
                const base::GVariantPtr reply(
                    g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, nullptr));
                *static_cast<bool*>(data) = true;
            },
            &isBack);
        EXPECT_TRUE(ServeUntil([&] { return isBack; }));
    }

    std::vector<std::string> heard;

private:
    const base::GObjectPtr<GDBusConnection> m_connection = ConnectTo(kSystemBus);
    guint m_subscription;
};

TEST_F(PolicyObject, WithoutAServiceThereIsNoInterfaceAndSignalsGoNowhere) {
    m_server->ServePolicy(nullptr);

    EXPECT_EQ(Ask(kPolicy, "Check", "('x',)"), kUnknownMethod);
    Signals signals;
    m_server->TellPolicyChange();
    m_server->TellPolicyHit({});
    signals.Pass();
    EXPECT_THAT(signals.heard, IsEmpty());
    m_server->ServePolicy(&m_service);
    EXPECT_EQ(Ask(kPolicy, "Check", "('x',)"), "([],)");
}

TEST_F(PolicyObject, ItIsThereAgainOnABusThatComesBack) {
    m_bus.Stop();
    EXPECT_TRUE(ServeUntil([] { return fakes::dlog::Has("lost the bus"); }));
    m_service.state.rulesWatched = 9;
    m_server->TellPolicyChange();
    m_bus.Start();
    EXPECT_TRUE(ServeUntil([] { return fakes::dlog::Count("serving") > 1; }));

    EXPECT_EQ(Get("RulesWatched"), "(<uint32 9>,)");
}

TEST_F(PolicyObject, OnlyPropertiesThatAreOthersThanBeforeAreToldOfAChange) {
    Signals signals;
    m_server->TellPolicyChange();
    m_service.state.rulesWatched = 4;
    m_service.state.pathsWaiting = 1;  // not told
    m_server->TellPolicyChange();
    m_server->TellPolicyChange();
    signals.Pass();

    ASSERT_EQ(signals.heard.size(), 2U);
    EXPECT_THAT(signals.heard[0], testing::HasSubstr("'PolicyDigest': <('', '')>"));
    EXPECT_EQ(signals.heard[1], "PropertiesChanged('org.zol.Policy1', {'RulesWatched': <uint32 4>}, [])");
}

TEST_F(PolicyObject, AHitIsToldWithWhatItWas) {
    Signals signals;
    m_server->TellPolicyHit({1700000000, "db/k", "3", "/tmp/zol/a"});
    signals.Pass();

    EXPECT_THAT(signals.heard, ElementsAre("Hit(1700000000, 'db/k', '3', '/tmp/zol/a')"));
}

}  // namespace

/// Who may do what on the system bus, with the installed policy file on top of what a system bus has itself.
#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "fake_policy_service.h"
#include "files.h"
#include "ipc_fixture.h"

namespace {

using test::kDaemonName;
using test::kDaemonPath;
using test::kNative;

constexpr const char* kPolicy = "org.zol.Policy1";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";

constexpr const char* kDenied = "org.freedesktop.DBus.Error.AccessDenied";

/// Stand-ins for a member of the group zol and for anybody else: users every Debian has, with their own group
/// as their only one.
constexpr unsigned kMember = 65534;
constexpr unsigned kStranger = 1;
constexpr unsigned kRoot = 0;

/// What every system bus starts from.
constexpr const char* kBusPolicy =
    "<policy context='default'><allow user='*'/><deny own='*'/><deny send_type='method_call'/>"
    "<allow send_type='signal'/><allow send_requested_reply='true' send_type='method_return'/>"
    "<allow send_requested_reply='true' send_type='error'/><allow receive_type='method_call'/>"
    "<allow receive_type='method_return'/><allow receive_type='error'/><allow receive_type='signal'/>"
    "<allow send_destination='org.freedesktop.DBus' send_interface='org.freedesktop.DBus'/></policy>";

/// The installed file as the inner part of a configuration, with the group's name replaced by the stand-in's.
std::string InstalledPolicy() {
    const std::string all = ReadFile(ZOL_PACKAGING_DIR "/org.zol.Daemon1.conf");
    const std::string open = "<busconfig>";
    const std::size_t begin = all.find(open) + open.size();
    std::string inner = all.substr(begin, all.find("</busconfig>") - begin);
    const std::string group = "group=\"zol\"";
    const std::size_t at = inner.find(group);
    EXPECT_NE(at, std::string::npos);
    return inner.replace(at, group.size(), "group=\"" + std::to_string(kMember) + "\"");
}

#ifdef SYS_setresuid32
constexpr long kSetUid = SYS_setresuid32;
constexpr long kSetGid = SYS_setresgid32;
constexpr long kSetGroups = SYS_setgroups32;
#else
constexpr long kSetUid = SYS_setresuid;
constexpr long kSetGid = SYS_setresgid;
constexpr long kSetGroups = SYS_setgroups;
#endif

/// Makes the calling thread, and it alone, another user's for the rest of its life.
void BecomeUser(unsigned user) {
    if (user != kRoot) {
        EXPECT_EQ(syscall(kSetGroups, 0, nullptr), 0);
        EXPECT_EQ(syscall(kSetGid, user, user, user), 0);
        EXPECT_EQ(syscall(kSetUid, user, user, user), 0);
    }
}

class IpcPolicy : public test::OnPrivateBus {
protected:
    IpcPolicy() : OnPrivateBus(true, kBusPolicy + InstalledPolicy()) {}

    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "only root can be somebody else";
        }
        m_server = Serving();
        m_server->ServePolicy(&m_policy);
    }

    /// Asks on a connection of that user. @return the name of the D-Bus error, or empty.
    static std::string Ask(unsigned user, const test::Question& question) {
        std::string error;
        test::ServeWhile([&] {
            BecomeUser(user);
            error = test::Ask(ConnectTo(kSystemBus).get(), question).error;
        });
        return error;
    }
    static std::string AskDaemon(unsigned user, const char* interface, const char* method,
                                 const char* arguments = "()") {
        return Ask(user, {kDaemonName, kDaemonPath, interface, method, g_variant_new_parsed(arguments)});
    }

    FakePolicyService m_policy;
    std::unique_ptr<zol::TCDbusServer> m_server;
};

/// A member of the daemon's object, and what calls of a member of the group and of a stranger bring.
struct Access {
    const char* interface;  ///< null for a message without
    const char* method;
    const char* arguments;
    const char* toMember;
};

TEST_F(IpcPolicy, MembersOfTheGroupGetWhatTheFileNamesAndStrangersNothing) {
    for (const Access& access :
         {Access{kNative, "Call", "(4, [byte 1])", ""},
          Access{kNative, "Subscribe", "(objectpath '/a',)", ""}, Access{kNative, "Unsubscribe", "()", ""},
          Access{"org.freedesktop.DBus.Peer", "Ping", "()", ""},
          Access{"org.freedesktop.DBus.Introspectable", "Introspect", "()", ""},
          Access{kPolicy, "SetPolicy", "('',)", ""}, Access{kPolicy, "Check", "('',)", ""},
          Access{kPolicy, "Explain", "('',)", ""},
          Access{kProperties, "Get", "('org.zol.Policy1', 'Version')", ""},
          Access{kProperties, "GetAll", "('org.zol.Policy1',)", ""},
          Access{kProperties, "Set", "('org.zol.Policy1', 'Version', <''>)", kDenied},
          Access{kPolicy, "Destroy", "()", kDenied}, Access{nullptr, "Call", "(4, [byte 1])", kDenied},
          Access{kNative, "Destroy", "()", kDenied}}) {
        const auto askAs = [&](unsigned user) {
            return AskDaemon(user, access.interface, access.method, access.arguments);
        };
        EXPECT_EQ(askAs(kMember), access.toMember) << access.method;
        EXPECT_EQ(askAs(kStranger), kDenied) << access.method;
    }
    EXPECT_EQ(AskDaemon(kRoot, kNative, "Call", "(4, [byte 1])"), "");
}

/// What a user hears when a hit is told.
TEST_F(IpcPolicy, HitsAreToldToMembersOfTheGroupAndToNobodyElse) {
    for (const unsigned user : {kStranger, kMember, kRoot}) {
        std::atomic<bool> isListening{false};
        std::atomic<int> hits{0};
        std::thread listener([&] {
            BecomeUser(user);
            const base::GMainContextPtr context(g_main_context_new());
            g_main_context_push_thread_default(context.get());
            {
                const base::GObjectPtr<GDBusConnection> connection = ConnectTo(kSystemBus);
                const auto count = [](GDBusConnection*, const gchar*, const gchar*, const gchar*,
                                      const gchar*, GVariant*,
                                      gpointer heard) { ++*static_cast<std::atomic<int>*>(heard); };
                g_dbus_connection_signal_subscribe(connection.get(), nullptr, kPolicy, nullptr, nullptr,
                                                   nullptr, G_DBUS_SIGNAL_FLAGS_NONE, count, &hits, nullptr);
                // Its answer says that the bus has taken the subscription; a second one, that a signal has
                // come first.
                const auto pass = [&] {
                    return test::Ask(connection.get(), {"org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                        "org.freedesktop.DBus", "GetId", nullptr});
                };
                EXPECT_EQ(pass().error, "");
                isListening = true;
                EXPECT_TRUE(ServeUntil([&] { return !isListening; }, context.get()));
                EXPECT_EQ(pass().error, "");
                while (g_main_context_iteration(context.get(), FALSE) != FALSE) {
                }
            }
            g_main_context_pop_thread_default(context.get());
        });
        EXPECT_TRUE(ServeUntil([&] { return isListening.load(); }));
        m_server->TellPolicyHit({1, "db/k", "3", "/tmp/zol/x"});
        EXPECT_EQ(AskDaemon(kRoot, "org.freedesktop.DBus.Peer", "Ping"), "") << "behind the signal";
        isListening = false;
        listener.join();
        EXPECT_EQ(hits, user == kStranger ? 0 : 1) << user;
    }
}

TEST_F(IpcPolicy, OnlyRootOwnsTheName) {
    const auto own = [](unsigned user) {
        return Ask(user, {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                          "RequestName", g_variant_new("(su)", kDaemonName, 0U)});
    };
    EXPECT_EQ(own(kMember), kDenied);
    EXPECT_EQ(own(kStranger), kDenied);
    EXPECT_EQ(own(kRoot), "") << "queued behind the daemon";
}

TEST_F(IpcPolicy, NotificationsOfTheDaemonReachASubscriberInTheGroupAndItsReplyComesBack) {
    std::atomic<int> replies{-1};
    test::ServeWhile([&] {
        BecomeUser(kMember);
        const base::GMainContextPtr context(g_main_context_new());
        g_main_context_push_thread_default(context.get());
        {
            // The connection must be this thread's own work to carry its user.
            test::Peer peer;
            peer.Offer("/a");
            const test::Question subscribe = {kDaemonName, kDaemonPath, kNative, "Subscribe",
                                              g_variant_new("(o)", "/a")};
            EXPECT_EQ(test::Ask(peer.Connection(), subscribe).error, "");
            std::thread sender([&] { replies = m_server->SendNotification(5, -1); });
            EXPECT_TRUE(ServeUntil([&] { return replies >= 0; }, context.get()));
            sender.join();
        }
        g_main_context_pop_thread_default(context.get());
    });

    EXPECT_EQ(replies, 1);
}

TEST_F(IpcPolicy, AnAccountGetsSixteenSubscriptionsOverAllItsConnectionsAndRootTheRest) {
    constexpr const char* kTooMany = "org.zol.Error.TooManySubscribers";
    const auto subscribe = [](GDBusConnection* connection, const char* path) {
        const test::Question question = {kDaemonName, kDaemonPath, kNative, "Subscribe",
                                         g_variant_new("(o)", path)};
        return test::Ask(connection, question).error;
    };
    std::vector<base::GObjectPtr<GDBusConnection>> members;
    test::ServeWhile([&] {
        BecomeUser(kMember);
        while (members.size() < 5) {
            members.push_back(ConnectTo(kSystemBus));
            for (const char* path : {"/a", "/b", "/c", "/d"}) {
                EXPECT_EQ(subscribe(members.back().get(), path), members.size() < 5 ? "" : kTooMany);
            }
        }
        EXPECT_EQ(subscribe(members.front().get(), "/a"), "") << "it is subscribed already";
    });

    std::vector<std::unique_ptr<test::Peer>> roots(12);
    for (auto& root : roots) {
        root = std::make_unique<test::Peer>(test::Peer::Reply, test::Paths{"/a", "/b", "/c", "/d"});
    }
    EXPECT_EQ(test::Peer().Subscribe("/a"), kTooMany) << "64 in all";

    roots.clear();
    members.front().reset();
    test::ServeWhile([&] {
        EXPECT_TRUE(Eventually([&] { return subscribe(members.back().get(), "/a").empty(); }))
            << "one that left makes room for its account";
    });
}

TEST_F(IpcPolicy, NobodyButRootCanTellASubscriberThatThePowerGoesOff) {
    const test::Peer subscriber(test::Peer::Reply);
    const auto notify = [&](unsigned user) {
        return Ask(user, {subscriber.UniqueName().c_str(), "/a", "org.zol.NotificationClient1", "Notify",
                          g_variant_new("(i)", 5)});
    };

    EXPECT_EQ(notify(kStranger), kDenied);
    EXPECT_EQ(notify(kMember), kDenied);
    EXPECT_TRUE(subscriber.Codes().empty());
    EXPECT_EQ(notify(kRoot), "");
}

TEST_F(IpcPolicy, TheDaemonOffersWhatTheDocumentSays) {
    test::Answer answer;
    test::ServeWhile([&] {
        answer = test::Ask(
            ConnectTo(kSystemBus).get(),
            {kDaemonName, kDaemonPath, "org.freedesktop.DBus.Introspectable", "Introspect", nullptr});
    });
    ASSERT_EQ(answer.error, "");
    const gchar* xml = nullptr;
    g_variant_get(answer.body.get(), "(&s)", &xml);
    EXPECT_THAT(xml, testing::HasSubstr("<interface name=\"org.zol.Native1\">"));
    for (const char* part : {"name=\"Call\"", "name=\"Subscribe\"", "name=\"Unsubscribe\"",
                             "<arg type=\"ay\" name=\"request\" direction=\"in\">",
                             "<arg type=\"b\" name=\"handled\" direction=\"out\">"}) {
        EXPECT_THAT(xml, testing::HasSubstr(part));
    }
}

}  // namespace

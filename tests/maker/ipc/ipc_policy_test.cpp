/// Who may do what on the system bus, with the installed policy file on top of what a system bus has itself.
#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <thread>

#include "base/bus_link.h"
#include "ipc_fixture.h"

namespace {

constexpr const char* kName = "org.zol.Daemon1";
constexpr const char* kPath = "/org/zol/Daemon1";
constexpr const char* kNative = "org.zol.Native1";
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
    std::stringstream content;
    content << std::ifstream(ZOL_PACKAGING_DIR "/org.zol.Daemon1.conf").rdbuf();
    const std::string all = content.str();
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

struct Question {
    const char* name;
    const char* path;
    const char* interface;  ///< null for a message without
    const char* method;
    GVariant* arguments;  ///< may be null; its reference is taken over
};

class IpcPolicy : public testing::Test {
protected:
    IpcPolicy() : m_bus(kSystemBus, kBusPolicy + InstalledPolicy()) {
        fakes::Reset();
        m_bus.Start();
    }

    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "only root can be somebody else";
        }
        m_server = std::make_unique<zol::TCDbusServer>(false);
        ASSERT_TRUE(ServeUntil([] { return fakes::dlog::Has("IPC: serving"); }));
        test::RegisterEcho(*m_server);
    }

    /// Asks on a connection of that user. @return the name of the D-Bus error, or empty.
    static std::string Ask(unsigned user, const Question& question, GVariant** answer = nullptr);

    static std::string CallAs(unsigned user) {
        return Ask(user, {kName, kPath, kNative, "Call", g_variant_new_parsed("(4, [byte 1])")});
    }

    PrivateBus m_bus;
    std::unique_ptr<zol::TCDbusServer> m_server;
};

/// One message there, one back: unlike GDBus's calls also without an interface.
GVariant* Exchange(GDBusConnection* connection, const Question& question, GError** error) {
    GDBusMessage* message =
        g_dbus_message_new_method_call(question.name, question.path, question.interface, question.method);
    if (question.arguments != nullptr) {
        g_dbus_message_set_body(message, question.arguments);
    }
    GDBusMessage* answer = g_dbus_connection_send_message_with_reply_sync(
        connection, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, 20000, nullptr, nullptr, error);
    g_object_unref(message);
    GVariant* body = nullptr;
    if (answer != nullptr && g_dbus_message_to_gerror(answer, error) == FALSE) {
        body = g_dbus_message_get_body(answer);
        body = body != nullptr ? g_variant_ref(body) : nullptr;
    }
    g_clear_object(&answer);
    return body;
}

std::string AskHere(const Question& question, GVariant** answer) {
    gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    GError* error = nullptr;
    GDBusConnection* connection =
        g_dbus_connection_new_for_address_sync(address, base::kBusConnectionFlags, nullptr, nullptr, &error);
    g_free(address);
    GVariant* reply = connection != nullptr ? Exchange(connection, question, &error) : nullptr;
    g_clear_object(&connection);
    std::string result;
    if (error != nullptr) {
        gchar* name = g_dbus_error_get_remote_error(error);
        result = name != nullptr ? name : error->message;
        g_free(name);
        g_error_free(error);
    }
    if (answer != nullptr) {
        *answer = reply;
    } else if (reply != nullptr) {
        g_variant_unref(reply);
    }
    return result;
}

std::string IpcPolicy::Ask(unsigned user, const Question& question, GVariant** answer) {
    std::string result;
    test::ServeWhile([&] {
        BecomeUser(user);
        result = AskHere(question, answer);
    });
    return result;
}

TEST_F(IpcPolicy, RootAndMembersOfTheGroupMayCall) {
    EXPECT_EQ(CallAs(kRoot), "");
    EXPECT_EQ(CallAs(kMember), "");
}

TEST_F(IpcPolicy, AnybodyElseIsDeniedEveryMember) {
    EXPECT_EQ(CallAs(kStranger), kDenied);
    EXPECT_EQ(Ask(kStranger, {kName, kPath, kNative, "Subscribe", g_variant_new("(o)", "/a")}), kDenied);
    EXPECT_EQ(Ask(kStranger, {kName, kPath, kNative, "Unsubscribe", nullptr}), kDenied);
    EXPECT_EQ(Ask(kStranger, {kName, kPath, "org.freedesktop.DBus.Peer", "Ping", nullptr}), kDenied);
    EXPECT_EQ(Ask(kStranger, {kName, kPath, "org.freedesktop.DBus.Introspectable", "Introspect", nullptr}),
              kDenied);
}

TEST_F(IpcPolicy, ACallWithoutInterfaceGetsNobodyThrough) {
    EXPECT_EQ(Ask(kStranger, {kName, kPath, nullptr, "Call", g_variant_new_parsed("(4, [byte 1])")}),
              kDenied);
    EXPECT_EQ(Ask(kMember, {kName, kPath, nullptr, "Call", g_variant_new_parsed("(4, [byte 1])")}), kDenied);
}

TEST_F(IpcPolicy, MembersThatTheFileDoesNotNameAreDeniedToTheGroup) {
    EXPECT_EQ(Ask(kMember,
                  {kName, kPath, "org.freedesktop.DBus.Properties", "GetAll", g_variant_new("(s)", kNative)}),
              kDenied);
    EXPECT_EQ(Ask(kMember, {kName, kPath, kNative, "Destroy", nullptr}), kDenied);
}

TEST_F(IpcPolicy, MembersOfTheGroupMaySubscribeAndLook) {
    EXPECT_EQ(Ask(kMember, {kName, kPath, kNative, "Subscribe", g_variant_new("(o)", "/a")}), "");
    EXPECT_EQ(Ask(kMember, {kName, kPath, kNative, "Unsubscribe", nullptr}), "");
    EXPECT_EQ(Ask(kMember, {kName, kPath, "org.freedesktop.DBus.Peer", "Ping", nullptr}), "");
}

TEST_F(IpcPolicy, OnlyRootOwnsTheName) {
    const auto own = [](unsigned user) {
        return Ask(user, {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                          "RequestName", g_variant_new("(su)", kName, 0U)});
    };
    EXPECT_EQ(own(kMember), kDenied);
    EXPECT_EQ(own(kStranger), kDenied);
    EXPECT_EQ(own(kRoot), "") << "queued behind the daemon";
}

TEST_F(IpcPolicy, NotificationsOfTheDaemonReachASubscriberInTheGroupAndItsReplyComesBack) {
    std::atomic<int> replies{-1};
    test::ServeWhile([&] {
        BecomeUser(kMember);
        GMainContext* context = g_main_context_new();
        g_main_context_push_thread_default(context);
        {
            // The connection must be this thread's own work to carry its user.
            test::Peer peer;
            EXPECT_EQ(peer.SubscribeFromThisThread("/a"), "");
            std::thread sender([&] {
                replies = m_server->SendNotification(5, -1);
                g_main_context_wakeup(context);
            });
            while (replies < 0) {
                g_main_context_iteration(context, TRUE);
            }
            sender.join();
        }
        g_main_context_pop_thread_default(context);
        g_main_context_unref(context);
    });

    EXPECT_EQ(replies, 1);
}

TEST_F(IpcPolicy, NobodyButRootCanTellASubscriberThatThePowerGoesOff) {
    test::Peer subscriber;
    ASSERT_EQ(subscriber.SubscribeAndReply("/a"), "");
    const auto notify = [&](unsigned user) {
        return Ask(user, {subscriber.UniqueName().c_str(), "/a", "org.zol.NotificationClient1", "Notify",
                          g_variant_new("(i)", 5)});
    };

    EXPECT_EQ(notify(kStranger), kDenied);
    EXPECT_EQ(notify(kMember), kDenied);
    EXPECT_EQ(subscriber.Asked(), 0);
    EXPECT_EQ(notify(kRoot), "");
}

TEST_F(IpcPolicy, TheDaemonOffersWhatTheDocumentSays) {
    GVariant* answer = nullptr;
    ASSERT_EQ(
        Ask(kRoot, {kName, kPath, "org.freedesktop.DBus.Introspectable", "Introspect", nullptr}, &answer),
        "");
    const gchar* xml = nullptr;
    g_variant_get(answer, "(&s)", &xml);
    EXPECT_THAT(xml, testing::HasSubstr("<interface name=\"org.zol.Native1\">"));
    for (const char* part : {"name=\"Call\"", "name=\"Subscribe\"", "name=\"Unsubscribe\"",
                             "<arg type=\"ay\" name=\"request\" direction=\"in\">",
                             "<arg type=\"b\" name=\"handled\" direction=\"out\">"}) {
        EXPECT_THAT(xml, testing::HasSubstr(part));
    }
    g_variant_unref(answer);
}

}  // namespace

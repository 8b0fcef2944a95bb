#include "notification.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libnotify/notify.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "base/glib_handles.h"
#include "child_process.h"
#include "failing_new.h"
#include "fake_service.h"
#include "log_lines.h"
#include "private_bus.h"
#include "reports.h"
#include "waiting.h"

namespace {

using testing::ElementsAre;

struct FreeNotification {
    void operator()(notification_h handle) const { notification_free(handle); }
};
using NotificationPtr = std::unique_ptr<notification_s, FreeNotification>;

constexpr const char* kXml =
    "<node><interface name='org.freedesktop.Notifications'>"
    "<method name='Notify'><arg type='s'/><arg type='u'/><arg type='s'/><arg type='s'/><arg type='s'/>"
    "<arg type='as'/><arg type='a{sv}'/><arg type='i'/><arg type='u' direction='out'/></method>"
    "<method name='GetServerInformation'><arg type='s' direction='out'/><arg type='s' direction='out'/>"
    "<arg type='s' direction='out'/><arg type='s' direction='out'/></method>"
    "<method name='GetCapabilities'><arg type='as' direction='out'/></method>"
    "</interface></node>";

/// A notification server that writes down "<replaced id> <title>|<content> <milliseconds>".
class FakeServer {
public:
    FakeServer()
        : m_service(
              "org.freedesktop.Notifications", "/org/freedesktop/Notifications", kXml,
              [this](const std::string&, const std::string& method, GVariant* arguments,
                     GDBusMethodInvocation* invocation) { Answer(method, arguments, invocation); },
              kSessionBus) {}

    Reports<std::string> shown;

private:
    void Answer(const std::string& method, GVariant* arguments, GDBusMethodInvocation* invocation) {
        if (method == "GetServerInformation") {
            g_dbus_method_invocation_return_value(invocation,
                                                  g_variant_new("(ssss)", "fake", "nobody", "1.0", "1.2"));
        } else if (method == "GetCapabilities") {
            const char* capabilities[] = {"body", nullptr};
            g_dbus_method_invocation_return_value(invocation, g_variant_new("(^as)", capabilities));
        } else {
            guint32 replaces = 0;
            const char* title = nullptr;
            const char* content = nullptr;
            gint32 milliseconds = 0;
            g_variant_get(arguments, "(&su&s&s&sasa{sv}i)", nullptr, &replaces, nullptr, &title, &content,
                          nullptr, nullptr, &milliseconds);
            shown.Add(std::to_string(replaces) + " " + title + "|" + content + " " +
                      std::to_string(milliseconds));
            g_dbus_method_invocation_return_value(invocation, g_variant_new("(u)", 7U));
        }
    }

    FakeService m_service;
};

class Notification : public testing::Test {
protected:
    ~Notification() override {
        // The next test has another bus: GLib must forget this one first.
        bus.Stop();
        notify_uninit();
        EXPECT_TRUE(ServeUntil([] {
            const base::GObjectPtr<GDBusConnection> old(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
            return old == nullptr;
        }));
    }
    /// A notification with "title" and "content".
    static NotificationPtr Make() {
        NotificationPtr made(notification_create(NOTIFICATION_TYPE_PLAIN));
        EXPECT_EQ(notification_set_text(made.get(), NOTIFICATION_TEXT_TITLE, "title", "TITLE", -1), 0);
        EXPECT_EQ(notification_set_text(made.get(), NOTIFICATION_TEXT_CONTENT, "content", "CONTENT", -1), 0);
        EXPECT_EQ(notification_set_display_applist(made.get(), 17), 0);
        EXPECT_EQ(notification_set_layout(made.get(), NOTIFICATION_LAYOUT_SINGLE), 0);
        return made;
    }
    int Post() const { return notification_post(notification.get()); }

    PlatformLog log;
    PrivateBus bus{kSessionBus};
    const NotificationPtr notification = Make();
};

TEST_F(Notification, IsShownWithItsTextsAndUpdatedWhenItIsPostedAgain) {
    bus.Start();
    FakeServer server;

    EXPECT_EQ(Post(), 0);
    notification_set_text(notification.get(), NOTIFICATION_TEXT_CONTENT, "other", "CONTENT", -1);
    notification_set_expiry(notification.get(), 5000);
    EXPECT_EQ(Post(), 0);

    EXPECT_THAT(server.shown.Now(), ElementsAre("0 title|content -1", "7 title|other 5000"));
}

TEST_F(Notification, WithoutAServerPostingFailsAndSaysSoOnce) {
    bus.Start();

    EXPECT_LT(Post(), 0);
    EXPECT_LT(Post(), 0);
    EXPECT_EQ(log.Count("nobody shows notifications"), 1);

    FakeServer server;
    EXPECT_EQ(Post(), 0);
    EXPECT_THAT(server.shown.Now(), ElementsAre("0 title|content -1"));
}

TEST_F(Notification, WithoutASessionBusPostingFails) {
    unsetenv(kSessionBus);
    setenv("XDG_RUNTIME_DIR", "/nonexistent", 1);

    EXPECT_LT(Post(), 0);
    EXPECT_EQ(log.Count("nobody shows notifications: no session bus"), 1);

    // Ends the failure, so that the next one is logged again.
    PrivateBus another(kSessionBus);
    another.Start();
    const FakeServer server;
    EXPECT_EQ(Post(), 0);
}

TEST_F(Notification, ABusThatWasRestartedIsUsedAgain) {
    bus.Start();
    {
        const FakeServer server;
        EXPECT_EQ(Post(), 0);
    }
    bus.Stop();
    bus.Start();
    FakeServer server;
    // The end of the old connection may not have been noticed yet, and is told in the main context.
    EXPECT_TRUE(Eventually([&] {
        g_main_context_iteration(nullptr, FALSE);
        return Post() == 0;
    }));
    EXPECT_THAT(server.shown.Now(), ElementsAre("0 title|content -1"));
}

TEST_F(Notification, WhatMakesNoSenseIsRefused) {
    EXPECT_EQ(notification_create(1), nullptr);
    EXPECT_LT(notification_set_text(notification.get(), 2, "text", "KEY", -1), 0);
    EXPECT_LT(notification_set_text(notification.get(), NOTIFICATION_TEXT_TITLE, nullptr, "TITLE", -1), 0);
    EXPECT_LT(notification_set_text(notification.get(), NOTIFICATION_TEXT_TITLE, "text", "TITLE", 0), 0);
    EXPECT_LT(notification_set_text(nullptr, NOTIFICATION_TEXT_TITLE, "text", "TITLE", -1), 0);
    EXPECT_LT(notification_set_display_applist(notification.get(), 2), 0);
    EXPECT_LT(notification_set_layout(notification.get(), 2), 0);
    EXPECT_LT(notification_set_expiry(notification.get(), -1), 0);
    EXPECT_LT(notification_post(nullptr), 0);
    notification_free(nullptr);
}

TEST_F(Notification, WithoutMemoryNothingIsThrown) {
    for (std::size_t allocation = 1; allocation <= 2; ++allocation) {
        FailAllocation(allocation);
        EXPECT_EQ(notification_create(NOTIFICATION_TYPE_PLAIN), nullptr);
    }
    const std::string text(1000, 'x');
    FailAllocation(1);
    EXPECT_LT(notification_set_text(notification.get(), NOTIFICATION_TEXT_TITLE, text.c_str(), "TITLE",
                                    NOTIFICATION_ARGUMENT_NONE),
              0);
    FailAllocation(0);
}

/// The exit status of app_launcher.
int Launch(const std::vector<std::string>& arguments) {
    return child::Process::Of("app_launcher", arguments, std::getenv("ZOL_ROOT")).Wait();
}

using AppLauncher = Notification;

TEST_F(AppLauncher, ShowsAToastForItsTime) {
    bus.Start();
    FakeServer server;
    EXPECT_EQ(Launch({"-s", "org.kaldo.alert-syspopup", "type", "toast", "text", "Recording started...",
                      "timeout", "5"}),
              0);
    EXPECT_THAT(server.shown.Now(), ElementsAre("0 Recording started...| 5000"));
}

TEST_F(AppLauncher, SaysThatNobodyShowsNotifications) {
    bus.Start();
    EXPECT_EQ(Launch({"-s", "org.kaldo.alert-syspopup", "type", "toast", "text", "t"}), 1);
}

TEST_F(AppLauncher, RefusesOtherApplicationsAndWrongArguments) {
    const std::string app = "org.kaldo.alert-syspopup";
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{},
                                               {"-s"},
                                               {"-x", app},
                                               {"-s", "org.kaldo.other", "type", "toast", "text", "t"},
                                               {"-s", app},
                                               {"-s", app, "type", "toast"},
                                               {"-s", app, "type", "toast", "text"},
                                               {"-s", app, "type", "window", "text", "t"},
                                               {"-s", app, "type", "toast", "text", "t", "timeout", "0"},
                                               {"-s", app, "type", "toast", "text", "t", "timeout", "5s"},
                                               {"-s", app, "type", "toast", "text", "t", "colour", "red"}}) {
        EXPECT_EQ(Launch(arguments), 2) << testing::PrintToString(arguments);
    }
}

}  // namespace

/// A power-off that a client never answers, over the real bus: the lock watchdog goes on meanwhile.
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "Logging.h"
#include "Mutex.h"
#include "SmartAutoLock.h"
#include "TCDbusServer.h"
#include "ZOLPolicyManager.h"
#include "ZOLPowerUtils.h"
#include "ZOLShiftedClock.h"
#include "base/bus_link.h"
#include "fake_dlog.h"
#include "fakes.h"
#include "private_bus.h"
#include "waiting.h"

namespace {

using namespace std::chrono_literals;

/// A client that does not answer the notification it gets until it is let go.
class HangingClient {
public:
    /// The server must have its name.
    HangingClient() {
        m_connection = g_dbus_connection_new_for_address_sync(getenv(kSessionBus), base::kBusConnectionFlags,
                                                              nullptr, nullptr, nullptr);
        g_dbus_connection_add_filter(m_connection, &KeepQuestion, this, nullptr);
        g_dbus_connection_call(m_connection, "org.zol.Daemon1", "/org/zol/Daemon1", "org.zol.Native1",
                               "Subscribe", g_variant_new("(o)", "/client"), nullptr, G_DBUS_CALL_FLAGS_NONE,
                               -1, nullptr, &Subscribed, this);
    }
    ~HangingClient() {
        g_dbus_connection_close_sync(m_connection, nullptr, nullptr);
        g_clear_object(&m_question);
        g_object_unref(m_connection);
    }
    HangingClient(const HangingClient&) = delete;
    HangingClient& operator=(const HangingClient&) = delete;

    bool IsSubscribed() const { return m_isSubscribed; }
    /// False when fakes::kPatience ends.
    bool AwaitAsked() { return m_asked.get_future().wait_for(fakes::kPatience) == std::future_status::ready; }
    /// Answers. After AwaitAsked.
    void LetGo() {
        GDBusMessage* answer = g_dbus_message_new_method_reply(m_question);
        g_dbus_connection_send_message(m_connection, answer, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                       nullptr);
        g_object_unref(answer);
    }

private:
    static GDBusMessage* KeepQuestion(GDBusConnection* /*connection*/, GDBusMessage* message,
                                      gboolean incoming, gpointer data) {
        auto* self = static_cast<HangingClient*>(data);
        if (incoming == FALSE ||
            g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
            return message;
        }
        self->m_question = message;
        self->m_asked.set_value();
        return nullptr;
    }
    static void Subscribed(GObject* source, GAsyncResult* result, gpointer data) {
        GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, nullptr);
        static_cast<HangingClient*>(data)->m_isSubscribed = reply != nullptr;
        g_clear_pointer(&reply, g_variant_unref);
    }

    GDBusConnection* m_connection;
    GDBusMessage* m_question = nullptr;  // set before m_asked
    bool m_isSubscribed = false;
    std::promise<void> m_asked;
};

/// A lock that its holder keeps too long, and the five seconds after which the main context says so.
class HeldLock {
public:
    HeldLock() {
        EXPECT_TRUE(m_mutex.Create());
        m_lock = std::make_unique<CSmartAutoLock>(&m_mutex, nullptr);
    }
    ~HeldLock() {
        m_lock.reset();
        m_mutex.Destroy();
    }
    HeldLock(const HeldLock&) = delete;
    HeldLock& operator=(const HeldLock&) = delete;

    /// Lets five seconds after five seconds pass until the watchdog has reported so often; false when
    /// fakes::kPatience ends.
    bool AwaitReports(int count) {
        return Eventually([&] {
            // Again and again: a report that is under way sets the time anew when it is done.
            GSource* source = g_main_context_find_source_by_user_data(nullptr, m_lock.get());
            g_source_set_ready_time(source, 0);
            return fakes::dlog::Count("takes too long") >= count;
        });
    }

private:
    CCMutex m_mutex;
    std::unique_ptr<CSmartAutoLock> m_lock;
};

TEST(HangingPowerOff, DoesNotKeepTheLockWatchdogFromItsReports) {
    Finalize();
    fakes::Reset();
    PrivateBus bus(kSessionBus);
    bus.Start();
    zol::TCDbusServer server(true);
    zol::TCShiftedClock clock;
    zol::TCPolicyManager manager(clock, &server, nullptr);
    zol::ZOLPowerUtils power(&manager);
    ASSERT_TRUE(ServeUntil([] { return fakes::dlog::Has("IPC: serving"); }));
    HangingClient client;
    ASSERT_TRUE(ServeUntil([&] { return client.IsSubscribed(); }));
    HeldLock lock;
    std::thread watcher([&] {
        EXPECT_TRUE(client.AwaitAsked());
        EXPECT_TRUE(lock.AwaitReports(2));
        EXPECT_FALSE(fakes::dlog::Has("Power off callback successfuly executed!"));
        client.LetGo();
    });

    power.m_PowerOffCallback();
    watcher.join();

    EXPECT_TRUE(fakes::dlog::Has("Power off callback successfuly executed!"));
}

}  // namespace

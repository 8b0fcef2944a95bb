#include "device_power.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/glib_handles.h"
#include "base/unique_fd.h"
#include "context_thread.h"
#include "failing_new.h"
#include "fake_service.h"
#include "gate.h"
#include "log_lines.h"
#include "private_bus.h"
#include "reports.h"

namespace {

using testing::ElementsAre;

constexpr const char* kPath = "/org/freedesktop/login1";
constexpr const char* kManager = "org.freedesktop.login1.Manager";

/// logind that hands out delay locks and sees when they are let go.
class FakeLogind {
public:
    static constexpr std::uint64_t kPatient = 3600000000;  ///< longer than any test takes

    /// @param waitsUs how long it waits for delay locks, microseconds
    explicit FakeLogind(bool refuses = false, std::uint64_t waitsUs = kPatient)
        : m_refuses(refuses), m_waitsUs(waitsUs) {
        m_service = std::make_unique<FakeService>(
            "org.freedesktop.login1", kPath,
            "<node><interface name='org.freedesktop.login1.Manager'><method name='Inhibit'>"
            "<arg type='s'/><arg type='s'/><arg type='s'/><arg type='s'/><arg type='h' direction='out'/>"
            "</method><property name='InhibitDelayMaxUSec' type='t' access='read'/></interface></node>",
            [this](const std::string&, const std::string& method, GVariant* arguments,
                   GDBusMethodInvocation* invocation) {
                if (method == "Get") {
                    g_dbus_method_invocation_return_value(
                        invocation, g_variant_new("(v)", g_variant_new_uint64(m_waitsUs)));
                } else {
                    Inhibit(arguments, invocation);
                }
            });
    }

    /// No more locks.
    void Refuse() { m_refuses = true; }
    void PrepareForSleep(bool begins) { Emit("PrepareForSleep", begins); }
    void PrepareForShutdown(bool begins) { Emit("PrepareForShutdown", begins); }

    /// "what, mode" of each request, as soon as there are `count`.
    std::vector<std::string> Locks(std::size_t count) { return m_requests.WaitFor(count); }
    bool IsHeld(std::size_t lock) { return WaitForRelease(lock, 0) == 0; }
    bool IsLetGo(std::size_t lock) { return WaitForRelease(lock, 30000) == 1; }

private:
    void Emit(const char* signal, bool begins) {
        m_service->Emit(kPath, kManager, signal, g_variant_new("(b)", begins ? TRUE : FALSE));
    }
    void Inhibit(GVariant* arguments, GDBusMethodInvocation* invocation) {
        const char* what = nullptr;
        const char* mode = nullptr;
        g_variant_get(arguments, "(&s&s&s&s)", &what, nullptr, nullptr, &mode);
        const std::string request = std::string(what) + ", " + mode;
        if (m_refuses) {
            g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.DBus.Error.AccessDenied",
                                                       "not for you");
            m_requests.Add(request);
            return;
        }
        std::array<int, 2> lock{};
        ASSERT_EQ(pipe2(lock.data(), O_CLOEXEC), 0);
        {
            const std::lock_guard<std::mutex> guard(m_mutex);
            m_locks.emplace_back(lock[0]);
        }
        const base::GObjectPtr<GUnixFDList> fds(g_unix_fd_list_new_from_array(&lock[1], 1));
        g_dbus_method_invocation_return_value_with_unix_fd_list(invocation, g_variant_new("(h)", 0),
                                                                fds.get());
        m_requests.Add(request);
    }
    /// The other end hangs up when the lock is let go.
    int WaitForRelease(std::size_t lock, int milliseconds) {
        pollfd watched{};
        {
            const std::lock_guard<std::mutex> guard(m_mutex);
            watched.fd = m_locks.at(lock).Get();
        }
        return poll(&watched, 1, milliseconds);
    }

    std::atomic<bool> m_refuses;
    const std::uint64_t m_waitsUs;
    std::mutex m_mutex;
    std::vector<base::UniqueFd> m_locks;
    Reports<std::string> m_requests;
    std::unique_ptr<FakeService> m_service;
};

/// A subscriber with a thread of its own.
class Listener {
public:
    Listener() {
        EXPECT_TRUE(m_thread.Start(
            [this] {
                EXPECT_EQ(device_power_subscribe_poweroff(PowerOff, this), 0);
                EXPECT_EQ(device_power_subscribe_wakeup(WakeUp, this), 0);
            },
            [] {
                EXPECT_EQ(device_power_unsubscribe_wakeup(WakeUp), 0);
                EXPECT_EQ(device_power_unsubscribe_poweroff(PowerOff), 0);
                EXPECT_EQ(device_power_unsubscribe_poweroff(PowerOff), -1);
            }));
    }
    ~Listener() { m_thread.Stop(); }

    /// Waits until the callback that runs now has returned.
    void WaitForReturn() {
        Reports<bool> returned;
        m_thread.Post([&returned] { returned.Add(true); });
        EXPECT_EQ(returned.WaitFor(1).size(), 1U);
    }
    /// Takes a hold in the next power-off callback.
    void HoldNext() {
        beforePowerOff = [this] { hold = device_power_hold(); };
    }

    Reports<std::string> reports;
    std::function<void()> beforePowerOff = [] {};
    device_power_hold_t* hold = nullptr;

private:
    void Report(const char* what, int reason) {
        const std::string where = m_thread.IsCurrent() ? "" : " on another thread";
        reports.Add(what + std::string(reason == DEVICE_POWER_STANDBY ? " standby" : " shutdown") + where);
    }
    static int PowerOff(int reason, void* data) {
        auto* self = static_cast<Listener*>(data);
        self->beforePowerOff();
        self->Report("off", reason);
        return 0;
    }
    static int WakeUp(int reason, void* data) {
        static_cast<Listener*>(data)->Report("on", reason);
        return 0;
    }

    platform::ContextThread m_thread{"listener"};
};

class Power : public testing::Test {
protected:
    Power() { bus.Start(); }

    PlatformLog log;
    PrivateBus bus;
};

/// logind gives the subscriber a delay lock.
class PowerLock : public Power {
protected:
    PowerLock() { EXPECT_THAT(logind.Locks(1), ElementsAre("sleep:shutdown, delay")); }

    FakeLogind logind;
    Listener listener;
};

TEST_F(PowerLock, SleepAndWakeUpArriveOnTheSubscribersThread) {
    logind.PrepareForSleep(true);
    logind.PrepareForSleep(false);
    EXPECT_THAT(listener.reports.WaitFor(2), ElementsAre("off standby", "on standby"));
    logind.PrepareForShutdown(true);
    EXPECT_THAT(listener.reports.WaitFor(3), ElementsAre("off standby", "on standby", "off shutdown"));
}

TEST_F(PowerLock, TheMachineWaitsUntilThePowerOffCallbackHasRun) {
    Gate callback;
    listener.beforePowerOff = [&callback] { callback.Pass(); };
    const device_power_callback_fn hear = [](int reason, void* data) {
        static_cast<Reports<int>*>(data)->Add(reason);
        return 0;
    };
    Reports<int> heard;
    platform::ContextThread bystander("bystander");
    ASSERT_TRUE(bystander.Start([&] { EXPECT_EQ(device_power_subscribe_poweroff(hear, &heard), 0); },
                                [&] { EXPECT_EQ(device_power_unsubscribe_poweroff(hear), 0); }));

    logind.PrepareForSleep(true);
    logind.PrepareForSleep(true);
    EXPECT_TRUE(callback.AwaitArrival());
    // Who has heard of the second announcement knows that only the callback still holds the lock.
    EXPECT_EQ(heard.WaitFor(2).size(), 2U);
    EXPECT_TRUE(logind.IsHeld(0));
    callback.Open();
    EXPECT_TRUE(logind.IsLetGo(0));
    EXPECT_THAT(listener.reports.Now(), ElementsAre("off standby"));
    callback.Open();
    EXPECT_EQ(listener.reports.WaitFor(2).size(), 2U);
}

TEST_F(PowerLock, TheMachineWaitsForWorkThatOutlivesTheCallback) {
    listener.HoldNext();

    logind.PrepareForShutdown(true);
    listener.reports.WaitFor(1);
    listener.WaitForReturn();
    EXPECT_TRUE(logind.IsHeld(0));
    device_power_release(listener.hold);

    EXPECT_TRUE(logind.IsLetGo(0));
    EXPECT_EQ(log.Count("power-off work is not done"), 0);
}

TEST_F(Power, WorkThatIsNotDoneHoldsTheMachineNoLongerThanLogindWaits) {
    FakeLogind logind(false, 20000);
    Listener listener;
    listener.HoldNext();
    logind.Locks(1);

    logind.PrepareForSleep(true);

    EXPECT_TRUE(logind.IsLetGo(0));
    EXPECT_TRUE(log.WaitFor("power-off work is not done in 18 ms: the machine goes on"));
    listener.reports.WaitFor(1);
    device_power_release(listener.hold);
}

TEST_F(PowerLock, WorkThatIsNotDoneWhenTheMachineIsBackHoldsNothingUp) {
    listener.HoldNext();

    logind.PrepareForSleep(true);
    logind.PrepareForSleep(false);

    EXPECT_THAT(listener.reports.WaitFor(2), ElementsAre("off standby", "on standby"));
    EXPECT_TRUE(logind.IsLetGo(0));
    device_power_release(listener.hold);
}

TEST_F(Power, OnlyAPowerOffCallbackCanHoldAndOnlyWhatWaits) {
    FakeLogind logind(true);
    Listener listener;
    listener.beforePowerOff = [] { EXPECT_EQ(device_power_hold(), nullptr); };
    EXPECT_TRUE(log.WaitFor("logind gives no delay lock"));

    logind.PrepareForSleep(true);

    EXPECT_EQ(listener.reports.WaitFor(1).size(), 1U);
    EXPECT_EQ(device_power_hold(), nullptr);
    device_power_release(nullptr);
}

TEST_F(PowerLock, TheLockIsTakenAgainAfterTheMachineIsBack) {
    logind.PrepareForSleep(true);
    EXPECT_TRUE(logind.IsLetGo(0));
    logind.PrepareForSleep(false);

    EXPECT_EQ(logind.Locks(2).size(), 2U);
    EXPECT_TRUE(logind.IsHeld(1));
}

TEST_F(PowerLock, AShutdownThatIsCalledOffWakesNobody) {
    logind.PrepareForShutdown(true);
    logind.PrepareForShutdown(false);
    EXPECT_EQ(logind.Locks(2).size(), 2U);
    logind.PrepareForSleep(true);

    EXPECT_THAT(listener.reports.WaitFor(2), ElementsAre("off shutdown", "off standby"));
}

TEST_F(Power, ARefusedLockIsOneLogLineAndTheNotificationsGoOn) {
    FakeLogind logind(true);
    Listener listener;
    logind.Locks(1);
    EXPECT_TRUE(log.WaitFor("logind gives no delay lock"));

    logind.PrepareForSleep(true);
    logind.PrepareForSleep(false);
    logind.Locks(2);
    EXPECT_THAT(listener.reports.WaitFor(2), ElementsAre("off standby", "on standby"));
    logind.PrepareForSleep(true);

    EXPECT_EQ(listener.reports.WaitFor(3).size(), 3U);
    EXPECT_EQ(log.Count("logind gives no delay lock"), 1);
}

TEST_F(Power, AServiceThatComesLateIsOneLogLineAndThenWorks) {
    Listener listener;
    EXPECT_TRUE(log.WaitFor("logind is missing: no power notifications until it appears"));

    FakeLogind logind;
    logind.Locks(1);
    logind.PrepareForSleep(true);

    EXPECT_THAT(listener.reports.WaitFor(1), ElementsAre("off standby"));
    EXPECT_EQ(log.Count("logind is missing"), 1);
}

TEST_F(Power, LeavingLetsTheLockGo) {
    FakeLogind logind;
    {
        Listener listener;
        logind.Locks(1);
        logind.Refuse();
        logind.PrepareForSleep(false);
        // What is sent after the lock arrives after it.
        EXPECT_THAT(listener.reports.WaitFor(1), ElementsAre("on standby"));
    }
    EXPECT_TRUE(logind.IsLetGo(0));
}

TEST_F(Power, SubscribingAgainReplacesTheUserDataAndIsRefusedElsewhere) {
    static Reports<int> reports;
    const auto write = [](int reason, void* data) {
        reports.Add(reason * 10 + *static_cast<int*>(data));
        return 0;
    };
    FakeLogind logind;
    int one = 1;
    int two = 2;
    platform::ContextThread thread("subscriber");
    ASSERT_TRUE(thread.Start(
        [&] {
            EXPECT_EQ(device_power_subscribe_poweroff(write, &one), 0);
            EXPECT_EQ(device_power_subscribe_poweroff(write, &two), 0);
            EXPECT_EQ(device_power_subscribe_poweroff(nullptr, &two), -1);
        },
        [&] {
            EXPECT_EQ(device_power_unsubscribe_poweroff(write), 0);
            EXPECT_EQ(device_power_unsubscribe_poweroff(write), -1);
        }));
    int three = 3;
    EXPECT_EQ(device_power_subscribe_poweroff(write, &three), -1) << "on another thread";
    logind.Locks(1);

    logind.PrepareForShutdown(true);

    EXPECT_THAT(reports.WaitFor(1), ElementsAre(DEVICE_POWER_SHUTDOWN * 10 + two));
    thread.Stop();
}

TEST_F(Power, WithoutMemoryASubscriptionIsRefusedAndNothingIsThrown) {
    const auto ignore = [](int /*reason*/, void* /*data*/) { return 0; };
    EXPECT_GT(RunShortOfMemory([&] { return device_power_subscribe_poweroff(ignore, nullptr) == 0; }), 0);

    EXPECT_EQ(device_power_unsubscribe_poweroff(ignore), 0);
}

}  // namespace

/// A power-off that a client never answers, over the real bus: the lock watchdog goes on meanwhile.
#include <glib.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "Logging.h"
#include "Mutex.h"
#include "SmartAutoLock.h"
#include "TCDbusClient.h"
#include "TCDbusServer.h"
#include "ZOLPolicyManager.h"
#include "ZOLPowerUtils.h"
#include "ZOLShiftedClock.h"
#include "fake_dlog.h"
#include "fakes.h"
#include "main_context.h"

namespace {

using namespace std::chrono_literals;

constexpr const char* kBusVariable = "DBUS_SESSION_BUS_ADDRESS";

/// A session bus of the test's own, which dies with the test program at the latest.
class SessionBus {
public:
    SessionBus() {
        const char* const command[] = {"dbus-daemon", "--session",         "--nofork", "--nopidfile",
                                       "--nosyslog",  "--print-address=1", nullptr};
        const auto flags = static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD |
                                                    G_SPAWN_STDERR_TO_DEV_NULL);
        int output = -1;
        if (g_spawn_async_with_pipes(nullptr, const_cast<char**>(command), nullptr, flags, &DieWithParent,
                                     nullptr, &m_pid, nullptr, &output, nullptr, nullptr) == FALSE) {
            throw std::runtime_error("no dbus-daemon");
        }
        setenv(kBusVariable, ReadLine(output).c_str(), 1);
    }
    ~SessionBus() {
        unsetenv(kBusVariable);
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    SessionBus(const SessionBus&) = delete;
    SessionBus& operator=(const SessionBus&) = delete;

private:
    static void DieWithParent(void* /*data*/) { prctl(PR_SET_PDEATHSIG, SIGKILL); }
    /// Takes the descriptor.
    static std::string ReadLine(int descriptor) {
        std::string line;
        char character = '\0';
        while (read(descriptor, &character, 1) == 1 && character != '\n') {
            line += character;
        }
        close(descriptor);
        return line;
    }

    GPid m_pid = -1;
};

/// A client that hangs in the notification it gets until it is let go.
class HangingClient {
public:
    HangingClient() : m_thread([this] { Run(); }) {}
    ~HangingClient() {
        LetGo();
        m_thread.join();
    }
    HangingClient(const HangingClient&) = delete;
    HangingClient& operator=(const HangingClient&) = delete;

    bool IsSubscribed() const { return m_isSubscribed; }
    /// False when fakes::kPatience ends.
    bool AwaitAsked() { return m_asked.get_future().wait_for(fakes::kPatience) == std::future_status::ready; }
    void LetGo() { m_isLetGo = true; }

private:
    void Run() {
        const std::unique_ptr<GMainContext, decltype(&g_main_context_unref)> context(g_main_context_new(),
                                                                                     &g_main_context_unref);
        g_main_context_push_thread_default(context.get());
        {
            zol::TCDbusClient client(true);
            // The server may not have its name yet.
            while (!m_isSubscribed && !m_isLetGo) {
                m_isSubscribed = client.Subscribe([this](int /*code*/) { return Hang(); });
            }
            while (!m_isLetGo) {
                g_main_context_iteration(context.get(), FALSE);
                std::this_thread::yield();
            }
        }
        g_main_context_pop_thread_default(context.get());
    }
    bool Hang() {
        m_asked.set_value();
        while (!m_isLetGo) {
            std::this_thread::yield();
        }
        return true;
    }

    std::atomic<bool> m_isSubscribed{false};
    std::promise<void> m_asked;
    std::atomic<bool> m_isLetGo{false};
    std::thread m_thread;
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
        const auto patience = std::chrono::steady_clock::now() + fakes::kPatience;
        while (fakes::dlog::Count("takes too long") < count) {
            GSource* source = g_main_context_find_source_by_user_data(nullptr, m_lock.get());
            if (source == nullptr || std::chrono::steady_clock::now() > patience) {
                return false;
            }
            // Again and again: a report that is under way sets the time anew when it is done.
            g_source_set_ready_time(source, 0);
            std::this_thread::yield();
        }
        return true;
    }

private:
    CCMutex m_mutex;
    std::unique_ptr<CSmartAutoLock> m_lock;
};

TEST(HangingPowerOff, DoesNotKeepTheLockWatchdogFromItsReports) {
    Finalize();
    fakes::Reset();
    const SessionBus bus;
    zol::TCDbusServer server(true);
    zol::TCShiftedClock clock;
    zol::TCPolicyManager manager(clock, &server, nullptr);
    zol::ZOLPowerUtils power(&manager);
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

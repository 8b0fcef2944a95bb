#include "QuitSignals.h"

#include <csignal>
#include <cstring>
#include <stdexcept>
#include <string>

#include "device_test.h"
#include "mock_dbus_server.h"

namespace {

class QuitSignals : public DeviceTest, public testing::WithParamInterface<int> {
protected:
    /// A signal that is caught, and its callback.
    static void Signal() {
        ASSERT_EQ(raise(GetParam()), 0);
        g_main_context_iteration(nullptr, TRUE);
    }
    /// A signal while the main loop runs; returns when that has been quit.
    void RunAndSignal() {
        ASSERT_EQ(raise(GetParam()), 0);
        g_main_loop_run(m_loop);
    }

    // Both for ever, as in the daemon.
    GMainLoop* const m_loop = g_main_loop_new(nullptr, FALSE);
    zol_daemon::QuitSignals& m_signals = zol_daemon::QuitSignals::Catch(m_loop);
    testing::StrictMock<MockDbusServer> m_server;
};

TEST_P(QuitSignals, EndTheMainLoopAndTheServersWaits) {
    const base::Subscription waits = m_signals.EndWaitsOf(m_server);
    EXPECT_CALL(m_server, CancelNotifications());

    RunAndSignal();
}

TEST_P(QuitSignals, EndTheMainLoopEvenWhenTheServerFails) {
    const base::Subscription waits = m_signals.EndWaitsOf(m_server);
    EXPECT_CALL(m_server, CancelNotifications()).WillOnce(testing::Throw(std::runtime_error("no memory")));

    RunAndSignal();

    ExpectErrors({"callback failed: no memory"});
}

TEST_P(QuitSignals, LeaveAServerAloneThatIsAboutToGo) {
    { const base::Subscription waits = m_signals.EndWaitsOf(m_server); }

    RunAndSignal();
}

TEST_P(QuitSignals, AreCaughtAgainAndAgain) {
    RunAndSignal();
    Signal();
    Signal();
}

TEST_P(QuitSignals, HaveNoEffectWithoutAMainLoop) {
    zol_daemon::QuitSignals::Catch(nullptr);
    // A loop that is quit although there is none would be a critical warning.
    const GLogLevelFlags before = g_log_set_always_fatal(
        static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
    Signal();
    g_log_set_always_fatal(before);
}

INSTANTIATE_TEST_SUITE_P(Each, QuitSignals, testing::Values(SIGTERM, SIGINT, SIGHUP),
                         [](const auto& number) { return std::string(sigabbrev_np(number.param)); });

}  // namespace

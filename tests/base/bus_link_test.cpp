#include "base/bus_link.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "private_bus.h"

namespace {

/// The link lives on a context of the test's own.
class BusLink : public testing::Test {
protected:
    BusLink() : m_context(g_main_context_new()) { g_main_context_push_thread_default(m_context.get()); }
    ~BusLink() override {
        m_link.reset();
        g_main_context_pop_thread_default(m_context.get());
    }

    void Connect() {
        m_link = std::make_unique<base::BusLink>(
            G_BUS_TYPE_SESSION, base::BusLink::Callbacks{
                                    [this] { m_events.emplace_back("connected"); },
                                    [this](const char* /*reason*/) {
                                        m_events.emplace_back(m_link->Connection() != nullptr ? "lost" : "?");
                                    },
                                    [this](const char* /*reason*/) { m_events.emplace_back("failed"); },
                                });
    }
    /// Serves the context until that many events have been told.
    void Await(std::size_t events) {
        while (m_events.size() < events) {
            g_main_context_iteration(m_context.get(), TRUE);
        }
    }

    PrivateBus m_bus{kSessionBus};
    const base::GMainContextPtr m_context;
    std::vector<std::string> m_events;
    std::unique_ptr<base::BusLink> m_link;
};

TEST_F(BusLink, ConnectsWithoutBlockingAndToldInTheContext) {
    m_bus.Start();
    Connect();
    EXPECT_TRUE(m_events.empty());
    EXPECT_EQ(m_link->Connection(), nullptr);
    Await(1);
    EXPECT_EQ(m_events, std::vector<std::string>{"connected"});
    ASSERT_NE(m_link->Connection(), nullptr);
    EXPECT_NE(g_dbus_connection_get_unique_name(m_link->Connection()), nullptr);
    EXPECT_EQ(g_dbus_connection_get_exit_on_close(m_link->Connection()), FALSE);
}

TEST_F(BusLink, FindsABusThatComesLate) {
    Connect();
    Await(2);
    EXPECT_EQ(m_events, (std::vector<std::string>{"failed", "failed"}));
    m_bus.Start();
    Await(3);
    EXPECT_EQ(m_events[2], "connected");
}

TEST_F(BusLink, WaitsLongerAfterEachFailureUntilTheBusIsConfirmed) {
    const auto wait = [this](std::size_t events) {
        const gint64 start = g_get_monotonic_time();
        Await(events);
        return (g_get_monotonic_time() - start) / 1000;
    };
    Connect();
    Await(1);
    EXPECT_GE(wait(2), 90);
    EXPECT_GE(wait(3), 190);
    m_link->Confirm();
    EXPECT_GE(wait(4), 390);
    EXPECT_LT(wait(5), 790);
}

TEST_F(BusLink, ComesBackAfterTheBusWentAndTakesLeaveOfTheOldConnection) {
    m_bus.Start();
    Connect();
    Await(1);
    m_bus.Stop();
    Await(2);
    EXPECT_EQ(m_events[1], "lost");
    EXPECT_EQ(m_link->Connection(), nullptr);
    m_bus.Start();
    while (m_events.back() != "connected") {
        g_main_context_iteration(m_context.get(), TRUE);
    }
    EXPECT_NE(m_link->Connection(), nullptr);
}

TEST_F(BusLink, MayGoWhileItConnects) {
    m_bus.Start();
    Connect();
    m_link.reset();
    EXPECT_EQ(g_main_context_iteration(m_context.get(), FALSE), FALSE);
    EXPECT_TRUE(m_events.empty());
}

TEST_F(BusLink, MayGoWhileItWaitsForTheNextAttempt) {
    Connect();
    Await(1);
    m_link.reset();
    EXPECT_EQ(g_main_context_iteration(m_context.get(), FALSE), FALSE);
    EXPECT_EQ(m_events.size(), 1U);
}

}  // namespace

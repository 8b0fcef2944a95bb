#include "base/bus_link.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "private_bus.h"
#include "waiting.h"

namespace {

/// The waits between this thread's attempts, in milliseconds; null where there are real timers.
thread_local std::vector<unsigned>* t_waits = nullptr;

}  // namespace

/// A wait of the link is written down and over at once. The ticks of ServeUntil are shorter than any of them.
extern "C" GSource* g_timeout_source_new(guint milliseconds) {
    static const auto real = reinterpret_cast<GSource* (*)(guint)>(dlsym(RTLD_NEXT, "g_timeout_source_new"));
    if (t_waits == nullptr || milliseconds < 100) {
        return real(milliseconds);
    }
    t_waits->push_back(milliseconds);
    return real(0);
}

namespace {

/// The link lives on a context of the test's own.
class BusLink : public testing::Test {
protected:
    BusLink() : m_context(g_main_context_new()) {
        t_waits = &m_waits;
        g_main_context_push_thread_default(m_context.get());
    }
    ~BusLink() override {
        t_waits = nullptr;
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
    [[nodiscard]] bool Serve(const std::function<bool()>& condition) {
        return ServeUntil(condition, m_context.get());
    }
    /// Serves the context until that many events have been told.
    [[nodiscard]] bool Await(std::size_t events) {
        return Serve([this, events] { return m_events.size() >= events; });
    }

    PrivateBus m_bus{kSessionBus};
    const base::GMainContextPtr m_context;
    std::vector<std::string> m_events;
    std::vector<unsigned> m_waits;
    std::unique_ptr<base::BusLink> m_link;
};

TEST_F(BusLink, ConnectsWithoutBlockingAndToldInTheContext) {
    m_bus.Start();
    Connect();
    EXPECT_TRUE(m_events.empty());
    EXPECT_EQ(m_link->Connection(), nullptr);
    ASSERT_TRUE(Await(1));
    EXPECT_EQ(m_events, std::vector<std::string>{"connected"});
    ASSERT_NE(m_link->Connection(), nullptr);
    EXPECT_NE(g_dbus_connection_get_unique_name(m_link->Connection()), nullptr);
    EXPECT_EQ(g_dbus_connection_get_exit_on_close(m_link->Connection()), FALSE);
}

TEST_F(BusLink, FindsABusThatComesLate) {
    Connect();
    ASSERT_TRUE(Await(2));
    EXPECT_EQ(m_events, (std::vector<std::string>{"failed", "failed"}));
    m_bus.Start();
    ASSERT_TRUE(Await(3));
    EXPECT_EQ(m_events[2], "connected");
}

TEST_F(BusLink, WaitsLongerAfterEachFailureUntilTheBusIsConfirmed) {
    Connect();
    ASSERT_TRUE(Await(3));
    m_link->Confirm();
    ASSERT_TRUE(Await(5));
    m_waits.resize(5);
    EXPECT_EQ(m_waits, (std::vector<unsigned>{100, 200, 400, 100, 200}));
}

TEST_F(BusLink, ComesBackAfterTheBusWentAndTakesLeaveOfTheOldConnection) {
    m_bus.Start();
    Connect();
    ASSERT_TRUE(Await(1));
    m_bus.Stop();
    ASSERT_TRUE(Await(2));
    EXPECT_EQ(m_events[1], "lost");
    EXPECT_EQ(m_link->Connection(), nullptr);
    m_bus.Start();
    ASSERT_TRUE(Serve([this] { return m_events.back() == "connected"; }));
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
    ASSERT_TRUE(Await(1));
    m_link.reset();
    EXPECT_EQ(g_main_context_iteration(m_context.get(), FALSE), FALSE);
    EXPECT_EQ(m_events.size(), 1U);
}

}  // namespace

#include "dbus_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "context_thread.h"
#include "fake_service.h"
#include "log_lines.h"
#include "missing_services.h"
#include "private_bus.h"
#include "reports.h"

namespace {

using platform::ContextThread;
using platform::SystemService;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kName = "org.example.Lamp";
constexpr const char* kPath = "/org/example/Lamp";
constexpr const char* kXml =
    "<node><interface name='org.example.Lamp'><method name='Ask'><arg type='s' direction='out'/></method>"
    "<method name='Keep'/></interface></node>";

/// A follower of the lamp service on a thread of its own; writes down what it is told.
class Follower {
public:
    /// @param look runs on the thread when the service appears
    explicit Follower(std::function<void()> look = [] {}) : m_look(std::move(look)) {
        EXPECT_TRUE(m_thread.Start(
            [this] {
                m_service.emplace(
                    SystemService::Description{kName, "the lamp", "lamp reports"},
                    SystemService::Handlers{[this] { OnAppeared(); }, [this] { reports.Add("vanished"); }});
            },
            [this] { m_service.reset(); }));
    }
    ~Follower() { m_thread.Stop(); }

    void Call(const char* method) {
        m_thread.Post([this, method] {
            m_service->Call({kPath, kName, method}, nullptr, "(s)",
                            [this](const SystemService::Reply& reply) { Add(reply.value); });
        });
    }

    Reports<std::string> reports;

private:
    void OnAppeared() {
        m_service->Subscribe({kPath, kName, nullptr, nullptr},
                             [this](const char* /*path*/, GVariant* value) { Add(value); });
        m_look();
        reports.Add("appeared");
    }
    /// A text; null: an error.
    void Add(GVariant* value) {
        const char* text = "error";
        if (value != nullptr) {
            g_variant_get(value, "(&s)", &text);
        }
        reports.Add(text);
    }

    const std::function<void()> m_look;
    ContextThread m_thread{"follower"};
    std::optional<SystemService> m_service;
};

class Service : public testing::Test {
protected:
    std::unique_ptr<FakeService> Lamp() {
        return std::make_unique<FakeService>(kName, kPath, kXml,
                                             [this](const std::string&, const std::string& method, GVariant*,
                                                    GDBusMethodInvocation* invocation) {
                                                 if (method == "Ask") {
                                                     g_dbus_method_invocation_return_value(
                                                         invocation, g_variant_new("(s)", "answer"));
                                                 } else {
                                                     kept.Add(invocation);
                                                 }
                                             });
    }

    PlatformLog log;
    PrivateBus bus;
    Reports<GDBusMethodInvocation*> kept;  ///< questions that the lamp leaves open
};

TEST_F(Service, AServiceIsThereWhenItsSignalsCome) {
    bus.Start();
    const auto lamp = Lamp();
    Follower follower([this] { EXPECT_EQ(log.Count("the lamp is there"), 0); });
    EXPECT_TRUE(log.WaitFor("the lamp is there"));

    lamp->Emit(kPath, kName, "Said", g_variant_new("(s)", "one"));

    EXPECT_THAT(follower.reports.WaitFor(2), ElementsAre("appeared", "one"));
}

TEST_F(Service, AMissingServiceIsOneLogLineAndItIsFollowedWhenItComes) {
    bus.Start();
    Follower follower;
    EXPECT_TRUE(log.WaitFor("the lamp is missing: no lamp reports until it appears"));
    EXPECT_THAT(Missing(), ElementsAre("the lamp"));
    EXPECT_TRUE(follower.reports.Now().empty());

    auto lamp = Lamp();
    EXPECT_TRUE(log.WaitFor("the lamp is there"));
    lamp.reset();
    EXPECT_THAT(follower.reports.WaitFor(2), ElementsAre("appeared", "vanished"));
    lamp = Lamp();
    EXPECT_THAT(follower.reports.WaitFor(3), ElementsAre("appeared", "vanished", "appeared"));

    EXPECT_TRUE(log.WaitFor("the lamp is there: lamp reports work", 2));
    EXPECT_THAT(Missing(), IsEmpty());
    EXPECT_EQ(log.Count("the lamp is missing"), 2);
    EXPECT_EQ(log.Count("the lamp"), 4);
}

TEST_F(Service, AFollowerThatLackedMemoryWhenTheServiceCameFollowsItALittleLater) {
    bus.Start();
    auto lamp = Lamp();
    std::atomic<int> looks{0};
    Follower follower([&] {
        if (++looks == 1) {
            lamp->Emit(kPath, kName, "Said", g_variant_new("(s)", "to half a follower"));
            throw std::bad_alloc();
        }
    });
    EXPECT_TRUE(log.WaitFor("the lamp is there"));
    EXPECT_EQ(log.Count("std::bad_alloc"), 1);
    lamp->Emit(kPath, kName, "Said", g_variant_new("(s)", "one"));

    EXPECT_THAT(follower.reports.WaitFor(3), ElementsAre("vanished", "appeared", "one"));

    lamp.reset();
    EXPECT_TRUE(log.WaitFor("the lamp is missing"));
    lamp = Lamp();
    EXPECT_TRUE(log.WaitFor("the lamp is there", 2));
    lamp->Emit(kPath, kName, "Said", g_variant_new("(s)", "two"));

    EXPECT_THAT(follower.reports.WaitFor(6),
                ElementsAre("vanished", "appeared", "one", "vanished", "appeared", "two"))
        << "once each";
}

TEST_F(Service, ABusThatIsMissingOrGoesAwayIsOneLogLineEachHoweverOftenItIsTried) {
    Follower follower;
    EXPECT_TRUE(log.WaitFor("no system bus for the lamp"));
    bus.Start();
    auto lamp = Lamp();
    EXPECT_TRUE(log.WaitFor("the lamp is there"));
    EXPECT_EQ(log.Count("no system bus for the lamp"), 1);

    bus.Stop();
    EXPECT_THAT(follower.reports.WaitFor(2), ElementsAre("appeared", "vanished"));
    EXPECT_TRUE(log.WaitFor("no system bus for the lamp", 2));
    bus.Start();
    lamp = Lamp();

    EXPECT_EQ(follower.reports.WaitFor(3).size(), 3U);
    EXPECT_EQ(log.Count("no system bus for the lamp"), 2);
}

TEST_F(Service, SignalsAndRepliesArriveInTheOrderInWhichTheyWereSent) {
    bus.Start();
    const auto lamp = Lamp();
    Follower follower;
    follower.reports.WaitFor(1);

    follower.Call("Ask");
    EXPECT_THAT(follower.reports.WaitFor(2), ElementsAre("appeared", "answer"));
    lamp->Emit(kPath, kName, "Said", g_variant_new("(s)", "one"));
    lamp->Emit(kPath, kName, "Said", g_variant_new("(s)", "two"));
    EXPECT_THAT(follower.reports.WaitFor(4), ElementsAre("appeared", "answer", "one", "two"));
}

TEST_F(Service, AReplyThatIsOwedWhenTheServiceVanishesNeverComes) {
    bus.Start();
    auto lamp = Lamp();
    Follower follower;
    follower.reports.WaitFor(1);
    follower.Call("Keep");
    const auto open = kept.WaitFor(1);
    ASSERT_EQ(open.size(), 1U);

    g_object_unref(open.front());
    lamp.reset();
    lamp = Lamp();

    EXPECT_THAT(follower.reports.WaitFor(3), ElementsAre("appeared", "vanished", "appeared"));
}

TEST_F(Service, ItCanBeLeftInEveryState) {
    { const Follower withoutBus; }
    bus.Start();
    { const Follower whileConnecting; }
    const auto lamp = Lamp();
    {
        Follower asking;
        asking.reports.WaitFor(1);
        asking.Call("Keep");
        kept.WaitFor(1);
    }
    for (GDBusMethodInvocation* invocation : kept.Now()) {
        g_object_unref(invocation);
    }
}

TEST(ContextThread, PostedWorkRunsInOrderOnTheThread) {
    ContextThread thread("worker");
    Reports<std::string> reports;
    EXPECT_TRUE(thread.Start([&] { reports.Add("begin"); }, [&] { reports.Add("end"); }));
    EXPECT_THAT(reports.Now(), ElementsAre("begin"));
    EXPECT_FALSE(thread.IsCurrent());

    thread.Post([&] { reports.Add(thread.IsCurrent() ? "one, there" : "one, elsewhere"); });
    thread.Post([&] { reports.Add("two"); });
    EXPECT_THAT(reports.WaitFor(3), ElementsAre("begin", "one, there", "two"));

    thread.Stop();
    EXPECT_THAT(reports.Now(), ElementsAre("begin", "one, there", "two", "end"));
}

TEST(ContextThread, StoppingAtOnceAfterStartJoins) {
    std::atomic<int> ends{0};
    for (int i = 0; i < 100; ++i) {
        ContextThread thread("worker");
        ASSERT_TRUE(thread.Start([] {}, [&] { ++ends; }));
    }
    EXPECT_EQ(ends, 100);
}

TEST(ContextThread, ItCanBeStartedAgainAndDropsWorkWhileItIsStopped) {
    ContextThread thread("worker");
    Reports<std::string> reports;
    thread.Post([&] { reports.Add("too early"); });
    ASSERT_TRUE(thread.Start([] {}, [] {}));
    thread.Stop();
    thread.Stop();
    thread.Post([&] { reports.Add("too late"); });
    ASSERT_TRUE(thread.Start([] {}, [] {}));
    thread.Post([&] { reports.Add("again"); });

    EXPECT_THAT(reports.WaitFor(1), ElementsAre("again"));
}

TEST(ContextThread, AnExceptionInPostedWorkIsALogLineAndTheThreadGoesOn) {
    const PlatformLog log;
    ContextThread thread("worker");
    Reports<std::string> reports;
    ASSERT_TRUE(thread.Start([] {}, [] {}));
    thread.Post([] { throw std::runtime_error("dropped the lamp"); });
    thread.Post([&] { reports.Add("next"); });

    EXPECT_THAT(reports.WaitFor(1), ElementsAre("next"));
    EXPECT_EQ(log.Count("worker: dropped the lamp"), 1);
}

TEST(ContextThread, ThatCannotBeginIsNotStartedAndMayBeTriedAgain) {
    const PlatformLog log;
    ContextThread thread("worker");
    Reports<std::string> reports;
    EXPECT_FALSE(
        thread.Start([] { throw std::runtime_error("out of memory"); }, [&] { reports.Add("end"); }));
    EXPECT_THAT(reports.Now(), ElementsAre("end"));
    EXPECT_EQ(log.Count("worker: out of memory"), 1);

    ASSERT_TRUE(thread.Start([] {}, [] {}));
    thread.Post([&] { reports.Add("again"); });

    EXPECT_THAT(reports.WaitFor(2), ElementsAre("end", "again"));
}

}  // namespace

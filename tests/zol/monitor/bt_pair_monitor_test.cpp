#include "ZOLBtPairMonitor.h"

#include <cstdint>
#include <initializer_list>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "fake_bt_hid.h"
#include "fake_vconf.h"
#include "monitor_fixture.h"

namespace {

using fakes::bt_hid::Connect;

constexpr int kCounting = 31;
constexpr int kLastConnected = 32;
constexpr int kIndex = 2;
constexpr const char* kIdKey = "file/bluetooth/bt_last_connected_smart_rc";
constexpr const char* kIgnored = "[BtMonitor] BtCountingCb() called between ignoreTime, return";

class BtPairMonitor : public MonitorFixture {
protected:
    /// A monitor of ten minutes that is created but not started.
    TCBtPairMonitor& Make(int method, int repetition = 3, int ignoreTime = 10) {
        m_monitor = std::make_unique<TCBtPairMonitor>(&m_notify, 10, repetition, method, ignoreTime, kIndex);
        EXPECT_TRUE(m_monitor->Create());
        return *m_monitor;
    }
    TCBtPairMonitor& Start(int method, int repetition = 3, int ignoreTime = 10) {
        Make(method, repetition, ignoreTime);
        EXPECT_TRUE(m_monitor->StartMonitoring());
        return *m_monitor;
    }
    static void ConnectAt(std::initializer_list<std::int64_t> seconds) {
        for (const std::int64_t second : seconds) {
            At(second);
            EXPECT_TRUE(Connect());
        }
    }

    std::unique_ptr<TCBtPairMonitor> m_monitor;
};

TEST_F(BtPairMonitor, MemoryThatRunsOutInACallbackIsLoggedThere) {
    Start(kLastConnected);
    fakes::vconf::SetString(kIdKey, "AA:BB:CC:DD:EE:FF");
    CallShortOfMemory([] { Connect(false); });
    EXPECT_GT(Logged("callback failed: std::bad_alloc"), 0);
}

TEST_F(BtPairMonitor, ACallbackCountsOnlyOutsideTheIgnoreTimeAfterTheOneBefore) {
    constexpr int kLongest = std::numeric_limits<int>::max();
    struct {
        const char* what;
        int ignoreTime;
        std::initializer_list<std::int64_t> seconds;
        int counted;
    } const cases[] = {
        {"a burst counts once, each callback ignored anew", 10, {100, 105, 112}, 1},
        {"and again later", 10, {100, 105, 112, 125}, 2},
        {"exactly the ignore time later it is ignored", 10, {100, 110}, 1},
        {"a second after that it counts", 10, {100, 111}, 2},
        {"an ignore time of zero becomes ten", 0, {100, 110, 121}, 2},
        {"a negative one ignores nothing", -1, {100, 100, 100}, 3},
        {"the very first counts, the next is within 68 years", kLongest, {0, 100000}, 1},
        {"the very first counts on a clock that was never set", 10, {5 - fakes::clock::kEpoch}, 1},
        {"after the clock is set back one is ignored", 10, {5000, 100}, 1},
        {"and has set the new time", 10, {5000, 100, 111}, 2},
    };
    for (const auto& [what, ignoreTime, seconds, counted] : cases) {
        fakes::dlog::Clear();
        TCBtPairMonitor& monitor = Start(kCounting, 5, ignoreTime);
        ConnectAt(seconds);
        EXPECT_EQ(monitor.GetCurrentRepetition(), counted) << what;
        EXPECT_EQ(Logged(kIgnored), static_cast<int>(seconds.size()) - counted) << what;
        EXPECT_EQ(Logged("ignoreTime is 0"), ignoreTime == 0 ? 1 : 0) << what;
        EXPECT_EQ(Logged("set default ignoreTime"), ignoreTime == 0 ? 1 : 0) << what;
    }
}

TEST_F(BtPairMonitor, ADisconnectCountsLikeAConnect) {
    Start(kCounting, 2);
    At(0);
    Connect(true);
    At(11);
    Connect(false);
    EXPECT_EQ(m_notify.Hits(), Hits({kIndex}));
    EXPECT_EQ(Logged("[BtMonitor] BtCountingCb() called, connected : 1"), 1);
    EXPECT_EQ(Logged("[BtMonitor] BtCountingCb() called, connected : 0"), 1);
}

TEST_F(BtPairMonitor, EachStepIsLoggedByTheCallbackFromALineOfItsOwn) {
    Start(kCounting, 2);
    ConnectAt({0, 601, 602, 620});
    EXPECT_EQ(m_notify.Hits(), Hits({kIndex}));
    EXPECT_EQ(Logged("[BtMonitor] BtCountingCb(), Current Repetition : 1"), 2);
    EXPECT_EQ(Logged("[BtMonitor] BtCountingCb(), Current Repetition : 2"), 1);
    EXPECT_EQ(Logged("[BtMonitor] CurrentTime > ExpiredTime, set now time to FirstCallTime"), 1);
    std::vector<std::string> texts = {"[BtMonitor] BtCountingCb() called, connected : 1",
                                      kIgnored,
                                      "[BtMonitor] CurrentTime > ExpiredTime, set now time to FirstCallTime",
                                      "[BtMonitor] BtCountingCb(), Current Repetition : 2",
                                      "[BtMonitor] abnormal behavior, send to Notifier",
                                      "[BtMonitor] Send Event success"};
    ExpectLogged(DLOG_PRIORITY_INFO, texts);
    m_notify.Destroy();
    ConnectAt({640, 660});
    ExpectErrors({"[BtMonitor] Send Event fail"});
    texts.emplace_back("[BtMonitor] Send Event fail");
    ExpectPlaces("ZOLBtPairMonitor: BtCountingCb", texts);
}

TEST_F(BtPairMonitor, EachConnectOfTheStoredRemoteIsAHitWithoutAnIgnoreTime) {
    fakes::vconf::SetString(kIdKey, "A");
    Start(kLastConnected);
    ConnectAt({0, 0, 1});
    EXPECT_EQ(m_notify.Hits(), Hits(3, kIndex));
    ExpectErrors({"m_LastConnectedId is same as currentId, abnormal case"});
    ExpectLogged(DLOG_PRIORITY_INFO, {"[BtMonitor] BtLastConnectedCb() called, connected : 1"});
}

TEST_F(BtPairMonitor, ADisconnectStoresTheRemoteOfTheNextHit) {
    fakes::vconf::SetString(kIdKey, "A");
    Start(kLastConnected);
    fakes::vconf::SetString(kIdKey, "B");
    Connect();
    EXPECT_EQ(m_notify.Hits(), Hits());
    EXPECT_EQ(Logged("m_LastConnectedId is different as currentId, new rc pairing case"), 1);
    Connect();
    EXPECT_EQ(m_notify.Hits(), Hits()) << "a connect does not refresh the stored id";
    Connect(false);
    Connect();
    EXPECT_EQ(m_notify.Hits(), Hits({kIndex}));
}

TEST_F(BtPairMonitor, StartedWithAnEmptyKeyTheFirstPairingIsNoHit) {
    fakes::vconf::SetString(kIdKey, "");
    Start(kLastConnected);
    fakes::vconf::SetString(kIdKey, "A");
    Connect();
    EXPECT_EQ(m_notify.Hits(), Hits());
    EXPECT_EQ(Logged("m_LastConnectedId is empty, first pairing case"), 1);
}

TEST_F(BtPairMonitor, IdsAreComparedToTheLastByte) {
    fakes::vconf::SetString(kIdKey, "aa:bb");
    Start(kLastConnected);
    for (const char* const id : {"AA:BB", "aa:b", "aa:bb ", ""}) {
        fakes::vconf::SetString(kIdKey, id);
        Connect();
    }
    EXPECT_EQ(m_notify.Hits(), Hits());
}

TEST_F(BtPairMonitor, AKeyThatCannotBeReadReportsNothingAndKeepsTheStoredId) {
    fakes::vconf::SetString(kIdKey, "A");
    Start(kLastConnected);
    fakes::vconf::Fail(kIdKey, fakes::vconf::FAIL_GET);
    Connect(false);
    Connect();
    EXPECT_EQ(m_notify.Hits(), Hits());
    EXPECT_EQ(Logged("vconf_get_str fail"), 2);
    fakes::vconf::Fail(kIdKey, fakes::vconf::FAIL_NONE);
    Connect();
    EXPECT_EQ(m_notify.Hits(), Hits({kIndex}));
}

TEST_F(BtPairMonitor, WhileTheStoredIdCannotBeReadItDoesNotStartForThenItWouldTakeARepetitionForTheFirst) {
    fakes::vconf::SetString(kIdKey, "A");
    fakes::vconf::Fail(kIdKey, fakes::vconf::FAIL_GET);
    TCBtPairMonitor& monitor = Make(kLastConnected);
    EXPECT_FALSE(monitor.StartMonitoring());
    EXPECT_EQ(Logged("vconf_get_str fail"), 2);
    EXPECT_FALSE(monitor.IsMonitoring());
    fakes::vconf::Fail(kIdKey, fakes::vconf::FAIL_NONE);
    EXPECT_TRUE(monitor.StartMonitoring());
    Connect();
    EXPECT_EQ(m_notify.Hits(), Hits({kIndex}));
}

TEST_F(BtPairMonitor, AnIdThatIsNoneOrThatCountingDoesNotNeedKeepsItFromNothing) {
    EXPECT_TRUE(Make(kLastConnected).StartMonitoring());
    EXPECT_EQ(Logged("vconf_get_str fail"), 1);
    fakes::vconf::SetInt(kIdKey, 1);
    EXPECT_TRUE(Make(kLastConnected).StartMonitoring()) << "nor is a number one";
    fakes::vconf::Fail(kIdKey, fakes::vconf::FAIL_GET);
    EXPECT_TRUE(Make(kCounting).StartMonitoring());
}

TEST_F(BtPairMonitor, AnUnknownMethodIsRefusedWithMinusOneAndARefusalOfThePlatformWithItsResult) {
    EXPECT_FALSE(Make(33).StartMonitoring());
    fakes::bt_hid::FailRegistrations(-22);
    EXPECT_FALSE(Make(kCounting).StartMonitoring());
    EXPECT_EQ(fakes::bt_hid::Registrations(), 0);
    ExpectErrors({"[BtMonitor] fail to register bt callback, return [-1]",
                  "[BtMonitor] fail to register bt callback, return [-22]",
                  "[BtMonitor] RegisterBtCallback() fail"});
}

TEST_F(BtPairMonitor, CallbacksWithoutAMonitorAreLoggedAndIgnored) {
    TCBtPairMonitor::BtCountingCb(true, nullptr, nullptr);
    TCBtPairMonitor::BtLastConnectedCb(false, nullptr, nullptr);
    ExpectLogged(DLOG_PRIORITY_INFO, {"[BtMonitor] BtCountingCb() called, pMonitor is NULL",
                                      "[BtMonitor] BtLastConnectedCb() called, pMonitor is NULL"});
}

TEST_F(BtPairMonitor, ItsTaskIsNamedKnowsNoEventAndCannotBeCreatedTwice) {
    TCBtPairMonitor& monitor = Make(kCounting);
    EXPECT_STREQ(monitor.Name(), "BtMonitor");
    const CSEvent event;
    EXPECT_FALSE(monitor.t_OnEvent(&event));
    EXPECT_FALSE(monitor.Create());
    EXPECT_EQ(Logged("[BtPairMonitor] Created : " + std::to_string(monitor.Id())), 1);
    EXPECT_EQ(Logged("CCTask::Create(\"BtMonitor\")"), 1);
    ExpectLogged(DLOG_PRIORITY_INFO, {"[BtMonitor] t_OnEvent"});
}

TEST_F(BtPairMonitor, ItsEndWithdrawsItsOwnCallbackHoweverOftenItWasStarted) {
    EXPECT_TRUE(Start(kCounting).StartMonitoring());
    EXPECT_TRUE(Connect());
    m_monitor.reset();
    EXPECT_EQ(fakes::bt_hid::Registrations(), 0);

    Start(kCounting);
    TCBtPairMonitor later(&m_notify, 10, 3, kCounting, 10, kIndex);
    ASSERT_TRUE(later.StartMonitoring());
    m_monitor.reset();
    EXPECT_EQ(fakes::bt_hid::Registrations(), 1);
}

TEST_F(BtPairMonitor, CallbacksMayArriveWhileItEnds) {
    Start(kCounting, 1, -1);
    Storm connects([] { return Connect(); });
    m_monitor.reset();
    EXPECT_EQ(fakes::bt_hid::Registrations(), 0);
    EXPECT_EQ(connects.Join(), Logged("[BtMonitor] abnormal behavior, send to Notifier"));
}

}  // namespace

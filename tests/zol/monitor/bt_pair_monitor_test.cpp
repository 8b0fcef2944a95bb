#include "ZOLBtPairMonitor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "dlog.h"
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

TEST_F(BtPairMonitor, ABurstWithinTheIgnoreTimeCountsOnce) {
    TCBtPairMonitor& monitor = Start(kCounting);
    ConnectAt({100, 105, 112});
    EXPECT_EQ(monitor.GetCurrentRepetition(), 1);
    EXPECT_EQ(Logged(kIgnored), 2);
    ConnectAt({125});
    EXPECT_EQ(monitor.GetCurrentRepetition(), 2);
}

TEST_F(BtPairMonitor, ACallbackExactlyTheIgnoreTimeLaterIsIgnored) {
    TCBtPairMonitor& monitor = Start(kCounting);
    ConnectAt({100, 110});
    EXPECT_EQ(monitor.GetCurrentRepetition(), 1);
}

TEST_F(BtPairMonitor, ACallbackOneSecondAfterTheIgnoreTimeCounts) {
    TCBtPairMonitor& monitor = Start(kCounting);
    ConnectAt({100, 111});
    EXPECT_EQ(monitor.GetCurrentRepetition(), 2);
}

TEST_F(BtPairMonitor, AnIgnoreTimeOfZeroBecomesTen) {
    TCBtPairMonitor& monitor = Start(kCounting, 3, 0);
    ConnectAt({100, 110, 121});
    EXPECT_EQ(monitor.GetCurrentRepetition(), 2);
    EXPECT_EQ(Logged("ignoreTime is 0"), 1);
    EXPECT_EQ(Logged("set default ignoreTime"), 1);
}

TEST_F(BtPairMonitor, ANegativeIgnoreTimeIgnoresNothing) {
    TCBtPairMonitor& monitor = Start(kCounting, 5, -1);
    ConnectAt({100, 100, 100});
    EXPECT_EQ(monitor.GetCurrentRepetition(), 3);
}

TEST_F(BtPairMonitor, TheVeryFirstCallbackAlwaysCounts) {
    TCBtPairMonitor& monitor = Start(kCounting, 3, std::numeric_limits<int>::max());
    ConnectAt({0});
    EXPECT_EQ(monitor.GetCurrentRepetition(), 1);
    ConnectAt({100000});
    EXPECT_EQ(monitor.GetCurrentRepetition(), 1) << "this one is within 68 years";
}

TEST_F(BtPairMonitor, TheVeryFirstCallbackCountsOnAClockThatWasNeverSet) {
    TCBtPairMonitor& monitor = Start(kCounting);
    fakes::clock::SetWall(5);
    Connect();
    EXPECT_EQ(monitor.GetCurrentRepetition(), 1);
}

TEST_F(BtPairMonitor, AfterTheClockIsSetBackOneCallbackIsIgnored) {
    TCBtPairMonitor& monitor = Start(kCounting);
    ConnectAt({5000, 100});
    EXPECT_EQ(monitor.GetCurrentRepetition(), 1);
    ConnectAt({111});
    EXPECT_EQ(monitor.GetCurrentRepetition(), 2) << "the ignored one has set the new time";
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
    std::vector<std::string> texts = {"[BtMonitor] BtCountingCb() called, connected : 1",
                                      kIgnored,
                                      "[BtMonitor] CurrentTime > ExpiredTime, set now time to FirstCallTime",
                                      "[BtMonitor] BtCountingCb(), Current Repetition : 2",
                                      "[BtMonitor] abnormal behavior, send to Notifier",
                                      "[BtMonitor] Send Event success"};
    for (const std::string& text : texts) {
        EXPECT_EQ(PriorityOf(text), DLOG_PRIORITY_INFO) << text;
    }
    m_notify.Destroy();
    ConnectAt({640, 660});
    EXPECT_EQ(PriorityOf("[BtMonitor] Send Event fail"), DLOG_PRIORITY_ERROR);
    texts.emplace_back("[BtMonitor] Send Event fail");
    ExpectPlaces("ZOLBtPairMonitor: BtCountingCb", texts);
}

TEST_F(BtPairMonitor, ACallbackExactlyAtTheEndOfThePeriodCounts) {
    Start(kCounting, 2);
    ConnectAt({0, 600});
    EXPECT_EQ(m_notify.Hits(), Hits({kIndex}));
}

TEST_F(BtPairMonitor, TenThousandConnectsInASecondCountOnce) {
    TCBtPairMonitor& monitor = Start(kCounting, 2);
    for (int i = 0; i < 10000; ++i) {
        Connect(i % 2 == 0);
    }
    EXPECT_EQ(monitor.GetCurrentRepetition(), 1);
    EXPECT_EQ(m_notify.Hits(), Hits());
}

TEST_F(BtPairMonitor, TenThousandConnectsOfTheSameRemoteFillTheQueueAndNoMore) {
    fakes::vconf::SetString(kIdKey, "A");
    Start(kLastConnected);
    m_notify.Hold();
    for (int i = 0; i < 10000; ++i) {
        Connect();
    }
    m_notify.ReleaseAndDrain();
    EXPECT_EQ(m_notify.Hits(), Hits(kQueueLength, kIndex));
}

TEST_F(BtPairMonitor, AConnectOfTheStoredRemoteIsAHit) {
    fakes::vconf::SetString(kIdKey, "A");
    Start(kLastConnected);
    Connect();
    EXPECT_EQ(m_notify.Hits(), Hits({kIndex}));
    EXPECT_EQ(PriorityOf("m_LastConnectedId is same as currentId, abnormal case"), DLOG_PRIORITY_ERROR);
    EXPECT_EQ(PriorityOf("[BtMonitor] BtLastConnectedCb() called, connected : 1"), DLOG_PRIORITY_INFO);
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

TEST_F(BtPairMonitor, LastConnectedModeKnowsNoIgnoreTime) {
    fakes::vconf::SetString(kIdKey, "A");
    Start(kLastConnected);
    ConnectAt({0, 0, 1});
    EXPECT_EQ(m_notify.Hits().size(), 3U);
}

TEST_F(BtPairMonitor, AnUnknownMethodIsRefusedWithMinusOne) {
    EXPECT_FALSE(Make(33).StartMonitoring());
    EXPECT_EQ(PriorityOf("[BtMonitor] fail to register bt callback, return [-1]"), DLOG_PRIORITY_ERROR);
    EXPECT_EQ(PriorityOf("[BtMonitor] RegisterBtCallback() fail"), DLOG_PRIORITY_ERROR);
    EXPECT_EQ(fakes::bt_hid::Registrations(), 0);
}

TEST_F(BtPairMonitor, ARefusalOfThePlatformIsLoggedWithItsResult) {
    fakes::bt_hid::FailRegistrations(-22);
    EXPECT_FALSE(Make(kCounting).StartMonitoring());
    EXPECT_EQ(Logged("[BtMonitor] fail to register bt callback, return [-22]"), 1);
}

TEST_F(BtPairMonitor, CallbacksWithoutAMonitorAreLoggedAndIgnored) {
    TCBtPairMonitor::BtCountingCb(true, nullptr, nullptr);
    TCBtPairMonitor::BtLastConnectedCb(false, nullptr, nullptr);
    EXPECT_EQ(PriorityOf("[BtMonitor] BtCountingCb() called, pMonitor is NULL"), DLOG_PRIORITY_INFO);
    EXPECT_EQ(PriorityOf("[BtMonitor] BtLastConnectedCb() called, pMonitor is NULL"), DLOG_PRIORITY_INFO);
}

TEST_F(BtPairMonitor, ItsTaskIsNamedAndKnowsNoEvent) {
    TCBtPairMonitor& monitor = Make(kCounting);
    EXPECT_STREQ(monitor.Name(), "BtMonitor");
    EXPECT_EQ(Logged("[BtPairMonitor] Created : " + std::to_string(monitor.Id())), 1);
    const CSEvent event;
    EXPECT_FALSE(monitor.t_OnEvent(&event));
    EXPECT_EQ(PriorityOf("[BtMonitor] t_OnEvent"), DLOG_PRIORITY_INFO);
}

TEST_F(BtPairMonitor, CreatedTwiceItSaysWhichCheckFailed) {
    EXPECT_FALSE(Make(kCounting).Create());
    EXPECT_EQ(Logged("CCTask::Create(\"BtMonitor\")"), 1);
}

TEST_F(BtPairMonitor, StartedAgainItIsStillRegistered) {
    EXPECT_TRUE(Start(kCounting).StartMonitoring());
    EXPECT_TRUE(Connect());
}

TEST_F(BtPairMonitor, ItsEndWithdrawsTheCallback) {
    Start(kCounting);
    m_monitor.reset();
    EXPECT_EQ(fakes::bt_hid::Registrations(), 0);
}

TEST_F(BtPairMonitor, ItsEndLeavesTheCallbackOfALaterMonitorAlone) {
    Start(kCounting);
    TCBtPairMonitor second(&m_notify, 10, 3, kCounting, 10, kIndex);
    ASSERT_TRUE(second.StartMonitoring());
    m_monitor.reset();
    EXPECT_EQ(fakes::bt_hid::Registrations(), 1);
}

TEST_F(BtPairMonitor, CallbacksMayArriveWhileItEnds) {
    Start(kCounting, 1, -1);
    std::atomic<int> connects{0};
    std::thread platform([&connects] {
        while (Connect()) {
            ++connects;
        }
    });
    while (connects < 10) {
        std::this_thread::yield();
    }
    m_monitor.reset();
    platform.join();
    EXPECT_EQ(fakes::bt_hid::Registrations(), 0);
    EXPECT_EQ(Logged("[BtMonitor] abnormal behavior, send to Notifier"), connects);
}

}  // namespace

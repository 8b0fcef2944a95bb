#include "ZOLMonitorManager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ZOLInformationStorage.h"
#include "ZOLPolicy.h"
#include "dlog.h"
#include "fake_bt_hid.h"
#include "fake_was.h"
#include "monitor_fixture.h"

namespace {

using fakes::was::Install;
using fakes::was::RegisteredIds;
using zol::ZOLPolicyMonitor;

ZOLPolicyMonitor Item(int type, const std::string& id, int method, int repetition = 1) {
    ZOLPolicyMonitor item;
    item.type = type;
    item.id = id;
    item.name = "Name";
    item.method = method;
    item.duration = 10;
    item.repetition = repetition;
    return item;
}
ZOLPolicyMonitor Pairing(const std::string& reserve1 = "null", int method = 31, int repetition = 1) {
    ZOLPolicyMonitor item = Item(zol::ZOL_BT_PAIR, "", method, repetition);
    item.reserve1 = reserve1;
    return item;
}
ZOLPolicyMonitor Installing(const std::string& id) {
    return Item(zol::APP_INSTALL, id, 11);
}
ZOLPolicyMonitor Launching(const std::string& id) {
    return Item(zol::APP_LAUNCH, id, 21);
}

class MonitorManager : public MonitorFixture {
protected:
    MonitorManager() {
        SetPolicy({});
        EXPECT_TRUE(m_manager->Create());
    }
    ~MonitorManager() override { SetPolicy({}); }

    static void SetPolicy(std::vector<ZOLPolicyMonitor> items) {
        const auto count = static_cast<unsigned>(items.size());
        zol::TCInformationStorage::Instance()->SetZOLMonitorInformation(count, std::move(items));
    }
    bool Start(std::vector<ZOLPolicyMonitor> items) {
        SetPolicy(std::move(items));
        return m_manager->StartMonitoring();
    }
    /// Starts a policy with one pairing item and says which ignore time the monitor was given.
    static void ExpectIgnoreTime(const std::string& reserve1, const std::string& seconds) {
        fakes::dlog::Clear();
        TCMonitorManager manager(nullptr);
        SetPolicy({Pairing(reserve1)});
        EXPECT_TRUE(manager.StartMonitoring());
        EXPECT_EQ(Logged("> ignoreTime is " + seconds), 1) << reserve1;
    }

    std::unique_ptr<TCMonitorManager> m_manager = std::make_unique<TCMonitorManager>(&m_notify);
};

TEST_F(MonitorManager, AnEmptyPolicyStartsNothing) {
    EXPECT_TRUE(Start({}));
    EXPECT_EQ(fakes::bt_hid::Registrations(), 0);
    EXPECT_TRUE(RegisteredIds().empty());
    EXPECT_EQ(PriorityOf(" --------> StartMonitoring() begin"), DLOG_PRIORITY_INFO);
    EXPECT_EQ(PriorityOf("Start Initialize"), DLOG_PRIORITY_INFO);
    EXPECT_EQ(PriorityOf(" --------> StartMonitoring() end"), DLOG_PRIORITY_INFO);
}

TEST_F(MonitorManager, AHitCarriesTheItemsPositionAmongItemsOfEveryType) {
    EXPECT_TRUE(Start({Launching("l"), Item(99, "x", 0), Installing("a"), Pairing(), Installing("b")}));
    Install("b");
    Install("a");
    fakes::bt_hid::Connect();
    EXPECT_EQ(m_notify.Hits(), Hits({4, 2, 3}));
}

TEST_F(MonitorManager, OfTwoPairingItemsTheFirstIsMonitored) {
    EXPECT_TRUE(Start({Pairing("null", 31, 1), Pairing("null", 32, 1)}));
    fakes::bt_hid::Connect();
    EXPECT_EQ(m_notify.Hits(), Hits({0}));
    EXPECT_EQ(fakes::bt_hid::RegistrationsMade(), 1);
    EXPECT_EQ(PriorityOf("BtPairMonitoring is already exist. return false"), DLOG_PRIORITY_ERROR);
    EXPECT_EQ(PriorityOf("fail to init BT PAIR"), DLOG_PRIORITY_ERROR);
    EXPECT_EQ(Logged("BT PAIR monitoring started."), 1);
}

TEST_F(MonitorManager, OfTwoInstallItemsWithOneIdTheFirstWins) {
    EXPECT_TRUE(Start({Installing("a"), Installing("a")}));
    EXPECT_EQ(Install("a"), 1);
    EXPECT_EQ(m_notify.Hits(), Hits({0}));
    EXPECT_EQ(PriorityOf("AppId key is already exist. return false"), DLOG_PRIORITY_ERROR);
    EXPECT_EQ(PriorityOf("fail to init APP INSTALL"), DLOG_PRIORITY_ERROR);
}

TEST_F(MonitorManager, AnInstallItemWithoutAnIdIsRefused) {
    EXPECT_TRUE(Start({Installing("")}));
    EXPECT_TRUE(RegisteredIds().empty());
    EXPECT_EQ(PriorityOf("AppId is empty"), DLOG_PRIORITY_ERROR);
    EXPECT_EQ(Logged("fail to init APP INSTALL"), 1);
}

TEST_F(MonitorManager, LaunchItemsAreSkipped) {
    EXPECT_TRUE(Start({Launching("a")}));
    EXPECT_EQ(PriorityOf("APP LAUNCH , skip"), DLOG_PRIORITY_INFO);
    EXPECT_EQ(Logged("APP LAUNCH not implemented"), 0);
}

TEST_F(MonitorManager, InstallMonitorsStartInTheOrderOfTheirIds) {
    EXPECT_TRUE(Start({Installing("c"), Installing("a"), Installing("b")}));
    EXPECT_EQ(RegisteredIds(), std::vector<std::string>({"a", "b", "c"}));
    EXPECT_EQ(Logged("APP INSTALL monitoring started."), 3);
}

TEST_F(MonitorManager, TheFirstInstallMonitorThatCannotStartEndsTheStart) {
    fakes::was::FailRegistrations("b", -1);
    EXPECT_FALSE(Start({Installing("c"), Installing("a"), Installing("b")}));
    EXPECT_EQ(RegisteredIds(), std::vector<std::string>({"a"}));
    EXPECT_EQ(PriorityOf("fail to start APP INSTALL"), DLOG_PRIORITY_ERROR);
    EXPECT_EQ(Logged("StartMonitoring() end"), 0);
}

TEST_F(MonitorManager, APairingMonitorThatCannotStartEndsTheStart) {
    EXPECT_FALSE(Start({Installing("a"), Pairing("null", 33)}));
    EXPECT_TRUE(RegisteredIds().empty());
    EXPECT_EQ(PriorityOf("fail to start BT PAIR"), DLOG_PRIORITY_ERROR);
}

TEST_F(MonitorManager, AnIgnoreTimeThatIsNoNumberIsTheDefault) {
    ExpectIgnoreTime("null", "0");
    EXPECT_EQ(Logged("set default ignoreTime"), 1);
    EXPECT_EQ(Logged("invalid ignoreTime, set to default value"), 0);
    ExpectIgnoreTime("abc", "0");
    EXPECT_EQ(Logged("invalid ignoreTime, set to default value"), 0);
    ExpectIgnoreTime("", "0");
}

TEST_F(MonitorManager, ANegativeIgnoreTimeIsLoggedAndTheDefault) {
    ExpectIgnoreTime("-5", "0");
    EXPECT_EQ(Logged("set default ignoreTime"), 1);
    EXPECT_EQ(PriorityOf("invalid ignoreTime, set to default value"), DLOG_PRIORITY_ERROR);
}

TEST_F(MonitorManager, AnIgnoreTimeIsTheNumberAtTheBeginning) {
    ExpectIgnoreTime("30", "30");
    ExpectIgnoreTime(" 12abc", "12");
}

TEST_F(MonitorManager, AnIgnoreTimeOutOfRangeIsHeldAt32Bits) {
    ExpectIgnoreTime("2147483647", "2147483647");
    ExpectIgnoreTime("2147483648", "2147483647");
    ExpectIgnoreTime("4294967301", "2147483647");
    ExpectIgnoreTime("99999999999999999999999999", "2147483647");
    EXPECT_EQ(Logged("invalid ignoreTime"), 0);
    ExpectIgnoreTime("-99999999999999999999999999", "0");
    EXPECT_EQ(Logged("invalid ignoreTime, set to default value"), 1);
}

TEST_F(MonitorManager, DefaultAndGivenIgnoreTimesTakeEffect) {
    EXPECT_TRUE(Start({Pairing("-5")}));
    for (const int second : {0, 10, 21}) {
        At(second);
        fakes::bt_hid::Connect();
    }
    EXPECT_EQ(m_notify.Hits(), Hits({0, 0})) << "the one at 10 seconds is ignored";
}

TEST_F(MonitorManager, NegativeDurationAndRepetitionAreTakenAsTheyAre) {
    ZOLPolicyMonitor everyOne = Installing("every");
    everyOne.duration = -1000000000;
    everyOne.repetition = -3;
    ZOLPolicyMonitor none = Installing("none");
    none.duration = -1;
    none.repetition = 2;
    EXPECT_TRUE(Start({everyOne, none}));
    for (int second = 0; second < 3; ++second) {
        At(second);
        Install("every");
        Install("none");
    }
    EXPECT_EQ(m_notify.Hits(), Hits({0, 0, 0}));
}

TEST_F(MonitorManager, WithoutANotifyManagerEveryHitIsLost) {
    TCMonitorManager manager(nullptr);
    SetPolicy({Installing("a")});
    EXPECT_TRUE(manager.StartMonitoring());
    Install("a");
    EXPECT_EQ(Logged("m_pNotify is NULL"), 1);
    EXPECT_EQ(Logged("[InstallMonitor] Send Event fail"), 1);
}

TEST_F(MonitorManager, ItsTaskIsNamedAndAcceptsTypeZeroOnly) {
    EXPECT_STREQ(m_manager->Name(), "ZolMonitorManage") << "16 characters are kept";
    EXPECT_EQ(PriorityOf("[TCMonitorManager] Created"), DLOG_PRIORITY_INFO);
    CSEvent event;
    event.receiver = m_manager.get();
    EXPECT_TRUE(CCTask::Send(&event, true));
    EXPECT_TRUE(m_manager->t_OnEvent(&event));
    EXPECT_EQ(Logged("[TCMonitorManager::t_OnEvent] TYPE:0"), 2);
    EXPECT_EQ(Logged("ASSERT"), 0);
    event.type = 1;
    m_manager->t_OnEvent(&event);
    EXPECT_EQ(Logged("ASSERT: !\"[TCMonitorManager] Unknown Event Type\" [zol/src/ZOLMonitorManager"), 1);
    m_manager->t_OnEvent(nullptr);
    EXPECT_EQ(Logged("ASSERT: event [zol/src/ZOLMonitorManager"), 1);
}

TEST_F(MonitorManager, CreatedTwiceItSaysWhichCheckFailed) {
    EXPECT_FALSE(m_manager->Create());
    EXPECT_EQ(Logged("CCTask::Create(\"ZolMonitorManager\")"), 1);
}

TEST_F(MonitorManager, DestroyEndsTheNotifyManagerAndNothingElse) {
    EXPECT_TRUE(Start({Pairing("1"), Installing("a")}));
    m_manager->Destroy();
    EXPECT_FALSE(m_notify.CCTask::FlagCreate());
    EXPECT_TRUE(m_manager->CCTask::FlagCreate());
    EXPECT_EQ(fakes::bt_hid::Registrations(), 1);
    EXPECT_EQ(RegisteredIds().size(), 1U);
    EXPECT_EQ(PriorityOf("[TCMonitorManager] Destroyed"), DLOG_PRIORITY_INFO);
    m_manager->Destroy();
    EXPECT_EQ(Logged("ASSERT: m_pNotify [zol/src/ZOLMonitorManager"), 1);
}

TEST_F(MonitorManager, ItsEndWithdrawsEveryCallbackAndLeavesTheNotifyManagerAlone) {
    EXPECT_TRUE(Start({Pairing(), Installing("a"), Installing("b")}));
    m_manager.reset();
    EXPECT_EQ(fakes::bt_hid::Registrations(), 0);
    EXPECT_TRUE(RegisteredIds().empty());
    EXPECT_TRUE(m_notify.CCTask::FlagCreate());
}

TEST_F(MonitorManager, CallbacksMayArriveWhileItEnds) {
    EXPECT_TRUE(Start({Pairing("1", 31, 1000), Installing("a"), Installing("b")}));
    std::atomic<int> events{0};
    std::thread remote([&events] {
        while (fakes::bt_hid::Connect()) {
            ++events;
        }
    });
    std::thread service([&events] {
        while (Install("a") + Install("b") > 0) {
            ++events;
        }
    });
    while (events < 10) {
        std::this_thread::yield();
    }
    m_manager.reset();
    remote.join();
    service.join();
    fakes::dlog::Clear();
    EXPECT_FALSE(fakes::bt_hid::Connect());
    EXPECT_EQ(Install("a"), 0);
    EXPECT_EQ(Logged("Cb()"), 0);
}

}  // namespace

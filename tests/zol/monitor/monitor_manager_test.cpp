#include "ZOLMonitorManager.h"

#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "ZOLInformationStorage.h"
#include "ZOLPolicy.h"
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

    std::unique_ptr<TCMonitorManager> m_manager = std::make_unique<TCMonitorManager>(&m_notify);
};

TEST_F(MonitorManager, AnEmptyPolicyStartsNothing) {
    EXPECT_TRUE(Start({}));
    EXPECT_EQ(fakes::bt_hid::Registrations(), 0);
    EXPECT_TRUE(RegisteredIds().empty());
    ExpectLogged(DLOG_PRIORITY_INFO, {" --------> StartMonitoring() begin", "Start Initialize",
                                      " --------> StartMonitoring() end"});
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
    EXPECT_EQ(Logged("BT PAIR monitoring started."), 1);
    ExpectErrors({"BtPairMonitoring is already exist. return false", "fail to init BT PAIR"});
}

TEST_F(MonitorManager, OfTwoInstallItemsWithOneIdTheFirstWinsAndOneWithoutAnIdIsRefused) {
    EXPECT_TRUE(Start({Installing("a"), Installing("a"), Installing("")}));
    EXPECT_EQ(Install("a"), 1);
    EXPECT_EQ(m_notify.Hits(), Hits({0}));
    EXPECT_EQ(RegisteredIds(), std::vector<std::string>({"a"}));
    EXPECT_EQ(Logged("APP INSTALL monitoring started."), 1);
    EXPECT_EQ(Logged("fail to init APP INSTALL"), 2);
    ExpectErrors({"AppId key is already exist. return false", "AppId is empty", "fail to init APP INSTALL"});
}

TEST_F(MonitorManager, AnInstallMonitorForWhichThereWasNoMemoryIsMadeWithTheRest) {
    SetPolicy({Installing("a")});
    for (std::size_t allocation = 1; Logged("new TCAppInstallMonitor() is NULL") == 0; ++allocation) {
        ASSERT_LT(allocation, 1000U);
        m_manager.reset();
        m_manager = std::make_unique<TCMonitorManager>(&m_notify);
        ASSERT_TRUE(m_manager->Create());
        FailAllocation(allocation);
        try {
            static_cast<void>(m_manager->StartMonitoring());
        } catch (const std::bad_alloc&) {
        }
        FailAllocation(0);
    }
    EXPECT_FALSE(m_manager->IsWatchingAll());
    EXPECT_TRUE(RegisteredIds().empty());

    m_manager->WatchRest();

    EXPECT_TRUE(m_manager->IsWatchingAll());
    EXPECT_EQ(RegisteredIds(), std::vector<std::string>({"a"}));
}

TEST_F(MonitorManager, LaunchItemsAreSkipped) {
    EXPECT_TRUE(Start({Launching("a")}));
    ExpectLogged(DLOG_PRIORITY_INFO, {"APP LAUNCH , skip"});
    EXPECT_EQ(Logged("APP LAUNCH not implemented"), 0);
}

TEST_F(MonitorManager, TheFirstInstallMonitorThatCannotStartEndsTheStart) {
    fakes::was::FailRegistrations("b", -1);
    EXPECT_FALSE(Start({Installing("c"), Installing("a"), Installing("b")}));
    EXPECT_EQ(RegisteredIds(), std::vector<std::string>({"a"}));
    ExpectErrors({"fail to start APP INSTALL"});
    EXPECT_FALSE(m_manager->IsWatchingAll());
    EXPECT_EQ(Logged("StartMonitoring() end"), 0);
}

TEST_F(MonitorManager, APairingMonitorThatCannotStartEndsTheStart) {
    EXPECT_FALSE(Start({Installing("a"), Pairing("null", 33)}));
    EXPECT_TRUE(RegisteredIds().empty());
    ExpectErrors({"fail to start BT PAIR"});
}

TEST_F(MonitorManager, AnIgnoreTimeIsTheNumberAtItsBeginningHeldAt32BitsAndTheDefaultWithoutOne) {
    const std::vector<std::pair<const char*, int>> cases{{"null", 0},
                                                         {"abc", 0},
                                                         {"", 0},
                                                         {"30", 30},
                                                         {" 12abc", 12},
                                                         {"2147483647", 2147483647},
                                                         {"2147483648", 2147483647},
                                                         {"4294967301", 2147483647},
                                                         {"99999999999999999999999999", 2147483647},
                                                         {"-5", 0},
                                                         {"-99999999999999999999999999", 0}};
    for (const auto& [text, seconds] : cases) {
        fakes::dlog::Clear();
        TCMonitorManager manager(nullptr);
        SetPolicy({Pairing(text)});
        EXPECT_TRUE(manager.StartMonitoring());
        EXPECT_EQ(Logged("> ignoreTime is " + std::to_string(seconds)), 1) << text;
        EXPECT_EQ(Logged("set default ignoreTime"), seconds == 0 ? 1 : 0) << text;
        EXPECT_EQ(Logged("invalid ignoreTime, set to default value"), text[0] == '-' ? 1 : 0) << text;
    }
    ExpectErrors({"invalid ignoreTime, set to default value"});
}

TEST_F(MonitorManager, TheDefaultIgnoreTimeTakesEffect) {
    EXPECT_TRUE(Start({Pairing("-5")}));
    for (const int second : {0, 10, 21}) {
        At(second);
        fakes::bt_hid::Connect();
    }
    EXPECT_EQ(m_notify.Hits(), Hits({0, 0})) << "the one at 10 seconds is ignored";
}

TEST_F(MonitorManager, WithoutANotifyManagerEveryHitIsLost) {
    TCMonitorManager manager(nullptr);
    SetPolicy({Installing("a")});
    EXPECT_TRUE(manager.StartMonitoring());
    Install("a");
    EXPECT_EQ(Logged("m_pNotify is NULL"), 1);
    EXPECT_EQ(Logged("[InstallMonitor] Send Event fail"), 1);
}

TEST_F(MonitorManager, ItsTaskIsNamedAcceptsTypeZeroOnlyAndCannotBeCreatedTwice) {
    EXPECT_STREQ(m_manager->Name(), "ZolMonitorManage") << "16 characters are kept";
    ExpectLogged(DLOG_PRIORITY_INFO, {"[TCMonitorManager] Create", "[TCMonitorManager] Created"});
    CSEvent event;
    event.receiver = m_manager.get();
    EXPECT_TRUE(CCTask::Send(&event, true));
    EXPECT_TRUE(m_manager->t_OnEvent(&event));
    EXPECT_EQ(Logged("[TCMonitorManager::t_OnEvent] TYPE:0"), 2);
    EXPECT_EQ(Assertions(), 0);
    event.type = 1;
    m_manager->t_OnEvent(&event);
    m_manager->t_OnEvent(nullptr);
    ExpectAssertedOnceEach({"!\"[TCMonitorManager] Unknown Event Type\" [zol/src/ZOLMonitorManager",
                            "event [zol/src/ZOLMonitorManager"});
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
    m_manager->Destroy();
    ExpectLogged(DLOG_PRIORITY_INFO, {"[TCMonitorManager] Destroy", "[TCMonitorManager] Destroyed"});
    ExpectAssertedOnceEach({"m_pNotify [zol/src/ZOLMonitorManager"});
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
    Storm remote([] { return fakes::bt_hid::Connect(); });
    Storm service([] { return Install("a") + Install("b") > 0; });
    m_manager.reset();
    remote.Join();
    service.Join();
    fakes::dlog::Clear();
    EXPECT_FALSE(fakes::bt_hid::Connect());
    EXPECT_EQ(Install("a"), 0);
    EXPECT_EQ(Logged("Cb()"), 0);
}

}  // namespace

#include "ZOLAppInstallMonitor.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "fake_was.h"
#include "monitor_fixture.h"

namespace {

using fakes::was::Install;
using fakes::was::RegisteredIds;

constexpr int kMethod = 11;
constexpr int kIndex = 3;
constexpr std::int64_t kMinute = 60;  // seconds
constexpr const char* kId = "org.kaldo.example";

class AppInstallMonitor : public MonitorFixture {
protected:
    /// A monitor of 60 minutes that is created but not started.
    TCAppInstallMonitor& Make(const std::string& id = kId, int repetition = 2) {
        m_monitor = std::make_unique<TCAppInstallMonitor>(&m_notify, id, 60, repetition, kMethod, kIndex);
        EXPECT_TRUE(m_monitor->Create());
        return *m_monitor;
    }
    TCAppInstallMonitor& Start(const std::string& id = kId, int repetition = 2) {
        Make(id, repetition);
        EXPECT_TRUE(m_monitor->StartMonitoring());
        return *m_monitor;
    }
    static void InstallAt(std::initializer_list<std::int64_t> seconds) {
        for (const std::int64_t second : seconds) {
            At(second);
            EXPECT_EQ(Install(kId), 1);
        }
    }
    bool Post(std::uint32_t type) {
        CSEvent event;
        event.receiver = m_monitor.get();
        event.type = type;
        return CCTask::Send(&event, true);
    }

    std::unique_ptr<TCAppInstallMonitor> m_monitor;
};

TEST_F(AppInstallMonitor, TwoInstallsWithinAnHourAreAHitAndSixtyOneMinutesApartNone) {
    TCAppInstallMonitor& monitor = Start();
    InstallAt({0, 30 * kMinute});
    EXPECT_EQ(m_notify.Hits(), Hits({kIndex}));
    InstallAt({100 * kMinute, 161 * kMinute});
    EXPECT_EQ(m_notify.Hits(), Hits({kIndex}));
    EXPECT_EQ(monitor.GetCurrentRepetition(), 1);
    InstallAt({221 * kMinute});
    EXPECT_EQ(m_notify.Hits(), Hits({kIndex, kIndex})) << "exactly at the end";
}

TEST_F(AppInstallMonitor, OtherEventsChangeNothing) {
    TCAppInstallMonitor& monitor = Start(kId, 1);
    for (const int code : {0, 1, 99, 101, 200}) {
        Install(kId, static_cast<was_notify_event_e>(code));
    }
    EXPECT_EQ(m_notify.Hits(), Hits());
    EXPECT_EQ(monitor.GetCurrentRepetition(), 0);
    EXPECT_FALSE(monitor.GetFirstCalled());
    EXPECT_EQ(Logged("[InstallMonitor] AppInstallCb(), event : 200"), 1);
}

TEST_F(AppInstallMonitor, EachStepIsLoggedByTheCallbackFromALineOfItsOwn) {
    Start();
    InstallAt({0, 61 * kMinute, 62 * kMinute});
    EXPECT_EQ(m_notify.Hits(), Hits({kIndex}));
    EXPECT_EQ(Logged("[InstallMonitor] AppInstallCb(), Current Repetition : 1"), 2);
    EXPECT_EQ(Logged("[InstallMonitor] AppInstallCb(), Current Repetition : 2"), 1);
    EXPECT_EQ(Logged("[InstallMonitor] CurrentTime > ExpireTime, set now time to FirstCallTime"), 1);
    std::vector<std::string> texts = {
        "[InstallMonitor] CurrentTime > ExpireTime, set now time to FirstCallTime",
        "[InstallMonitor] AppInstallCb(), Current Repetition : 2",
        "[InstallMonitor] abnormal behavior, send to Notifier", "[InstallMonitor] Send Event success"};
    ExpectLogged(DLOG_PRIORITY_INFO, texts);
    m_notify.Destroy();
    InstallAt({0, 1});
    ExpectErrors({"[InstallMonitor] Send Event fail"});
    texts.emplace_back("[InstallMonitor] Send Event fail");
    ExpectPlaces("ZOLAppInstallMonitor: AppInstallCb", texts);
}

TEST_F(AppInstallMonitor, AStormOfHitsFillsTheQueueAndTheRestIsLoggedAsLost) {
    Start(kId, 1);
    m_notify.Hold();
    for (int i = 0; i < 10000; ++i) {
        Install(kId);
    }
    m_notify.ReleaseAndDrain();
    EXPECT_EQ(m_notify.Hits(), Hits(kQueueLength, kIndex));
    EXPECT_EQ(Logged("[InstallMonitor] Send Event success"), static_cast<int>(kQueueLength));
    EXPECT_EQ(Logged("[InstallMonitor] Send Event fail"), 10000 - static_cast<int>(kQueueLength));
}

TEST_F(AppInstallMonitor, IdsAreCutTo127Characters) {
    for (const std::size_t length : {127U, 128U, 1000U}) {
        Start(std::string(length, 'a'));
        EXPECT_EQ(RegisteredIds(), std::vector<std::string>({std::string(127, 'a')})) << length;
        m_monitor.reset();
    }
}

TEST_F(AppInstallMonitor, IdsThatCouldLeaveTheApplicationsFoldersAreNotWatched) {
    for (const char* const id : {"../evil", "a/b", ".."}) {
        EXPECT_FALSE(Make(id).StartMonitoring()) << id;
    }
    EXPECT_TRUE(RegisteredIds().empty());
}

TEST_F(AppInstallMonitor, ARefusalOfTheServiceIsLoggedWithItsResultAlsoThroughTheTask) {
    fakes::was::FailRegistrations(kId, -5);
    EXPECT_FALSE(Make().StartMonitoring());
    EXPECT_EQ(Logged("[InstallMonitor] RegisterCallback() fail"), 2);
    EXPECT_TRUE(Post(0));
    EXPECT_EQ(Logged("[InstallMonitor] RegisterCallback() fail"), 4);
    ExpectErrors({"[InstallMonitor] RegisterCallback() fail, return [-5]"});
}

TEST_F(AppInstallMonitor, SaysWhatItWatchesAndWhichCheckFailed) {
    EXPECT_FALSE(Make().Create()) << "a second time";
    EXPECT_STREQ(m_monitor->Name(), "InstallMonitor");
    ExpectLogged(DLOG_PRIORITY_INFO, {"[INSTALL MONITOR] org.kaldo.example, 60, 2, 11"});
    EXPECT_EQ(Logged("[TCAppInstallMonitor] Created : " + std::to_string(m_monitor->Id())), 1);
    EXPECT_EQ(Logged("CCTask::Create(\"InstallMonitor\")"), 1);
}

TEST_F(AppInstallMonitor, ACallbackWithoutAMonitorIsAnError) {
    TCAppInstallMonitor::AppInstallCb(kId, WAS_NOTIFY_INSTALL_COMPLETED, 0, 0, nullptr);
    ExpectErrors({"[InstallMonitor] AppInstallCb() called, pMonitor is NULL"});
}

TEST_F(AppInstallMonitor, AnEventOfTypeZeroStartsItOnItsOwnTaskAndAnyOtherAsserts) {
    Make();
    EXPECT_TRUE(Post(0));
    EXPECT_EQ(RegisteredIds(), std::vector<std::string>({kId}));
    EXPECT_EQ(Logged("[TCAppInstallMonitor::t_OnEvent] TYPE:0"), 1);
    EXPECT_EQ(Logged("[TCAppInstallMonitor::t_OnEvent] monitoring start"), 1);
    CSEvent event;
    event.type = 0;
    EXPECT_TRUE(m_monitor->t_OnEvent(&event));
    event.type = 1;
    EXPECT_FALSE(m_monitor->t_OnEvent(&event));
    EXPECT_FALSE(m_monitor->t_OnEvent(nullptr));
    ExpectAssertedOnceEach({"!\"[TCAppInstallMonitor] Unknown Event Type\" [zol/src/ZOLAppInstallMonitor",
                            "event [zol/src/ZOLAppInstallMonitor"});
}

TEST_F(AppInstallMonitor, StartedAgainItIsStillRegisteredOnce) {
    EXPECT_TRUE(Start().StartMonitoring());
    InstallAt({0});
    EXPECT_EQ(m_monitor->GetCurrentRepetition(), 1);
}

TEST_F(AppInstallMonitor, ItsEndWithdrawsItsRegistrationOnly) {
    Start();
    TCAppInstallMonitor other(&m_notify, "other", 60, 2, kMethod, 0);
    ASSERT_TRUE(other.StartMonitoring());
    m_monitor.reset();
    EXPECT_EQ(RegisteredIds(), std::vector<std::string>({"other"}));
}

TEST_F(AppInstallMonitor, ARegistrationThatItsTaskStillMakesEndsWithIt) {
    Make();
    CSEvent start;
    start.receiver = m_monitor.get();
    EXPECT_TRUE(CCTask::Send(&start, false));
    m_monitor.reset();
    EXPECT_TRUE(RegisteredIds().empty());
}

TEST_F(AppInstallMonitor, CallbacksMayArriveWhileItEnds) {
    Start(kId, 1);
    Storm installs([] { return Install(kId) > 0; });
    m_monitor.reset();
    EXPECT_TRUE(RegisteredIds().empty());
    EXPECT_EQ(installs.Join(), Logged("[InstallMonitor] abnormal behavior, send to Notifier"));
}

}  // namespace

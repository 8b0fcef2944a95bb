#include <boost/thread/thread.hpp>
#include <chrono>
#include <string>
#include <vector>

#include "ZOLCVLogger.h"
#include "dlog.h"
#include "fake_clock.h"
#include "fake_dlog.h"
#include "policy_manager_fixture.h"

namespace {

using fakes::dlog::Count;
using fakes::dlog::Has;
using testing::ElementsAre;
using testing::Return;

constexpr const char* kVersionKey = "db/private/tvs-cv/policy_version";

class PolicyManager : public PolicyManagerTest {
protected:
    /// Starts without a stored policy and hands it the first one.
    zol::TCPolicyManager& StartAndPush(const std::string& xml) {
        zol::TCPolicyManager& manager = Start();
        fakes::dlog::Clear();
        EXPECT_TRUE(manager.UpdatePolicy(xml));
        return manager;
    }
    /// Marks the moments of the policy that is stored.
    static void MarkSchedule() {
        fakes::vconf::SetString(zol::TCScheduler::KEY_START_TIME, "11");
        fakes::vconf::SetString(zol::TCScheduler::KEY_FIRST_BOOT_TIME, "22");
        fakes::vconf::SetInt(kVersionKey, 33);
    }
    static void ExpectScheduleUntouched() {
        EXPECT_EQ(fakes::vconf::GetString(zol::TCScheduler::KEY_START_TIME), "11");
        EXPECT_EQ(fakes::vconf::GetString(zol::TCScheduler::KEY_FIRST_BOOT_TIME), "22");
        EXPECT_EQ(fakes::vconf::GetInt(kVersionKey), 33);
    }
    static void LetOneSchedulerPassGoBy() {
        ASSERT_TRUE(fakes::clock::PassSleeps(std::chrono::seconds(5), 6));
    }
};

TEST_F(PolicyManager, WithoutAStoredPolicyNothingRunsAndTheFlagOfTheLastProcessIsCleared) {
    fakes::vconf::SetBool(kRunningKey, true);
    Start();

    EXPECT_EQ(fakes::vconf::GetInt(kRunningKey), 0);
    EXPECT_EQ(fakes::vconf::Registrations(), 0);
    EXPECT_FALSE(Has("TCNotifyManager()"));
    EXPECT_FALSE(Has("Current policy:"));
    ExpectLogged(DLOG_PRIORITY_DEBUG, {"Policy /var/lib/zol/policy.xml does not exist"});
}

TEST_F(PolicyManager, AStartBuildsTheSchedulerClearsTheFlagAppliesAndThenShowsThePolicy) {
    StartWith(PolicyFor("db/a"));

    EXPECT_TRUE(IsRunning());
    EXPECT_EQ(fakes::vconf::Registrations("db/a"), 1);
    EXPECT_EQ(Applied().vconfMonitors.at(0).key, "db/a");
    ExpectInOrder({"Loading start time from vconf", "vconf_set_bool(db/zol/corvel_policy) : 0 sucessful",
                   "Set policy information.", "bye", "vconfPolicyCount[1]", "monitorList[0]", "totalCount[1]",
                   "TCNotifyManager()", "[TCVconfChecker] Create", "[db/a] registered",
                   "vconf_set_bool(db/zol/corvel_policy) : 1 sucessful",
                   "Current policy:", "monitorInfo cnt = 1",
                   "key[db/a], condition[IS], type[INT], intValue[1], strValue[null]"});
    ExpectErrors({"Set policy information.", "vconfPolicyCount[1]", "Current policy:"});
}

TEST_F(PolicyManager, AStartThatIsInterruptedWhileMakingItsFoldersGoesOn) {
    fakes::MakeDeviceFolder(ZOL_PATH_STATE_DIR);
    StorePolicy(PolicyFor("db/a"));
    boost::thread starter([this] {
        while (!boost::this_thread::interruption_requested()) {
            boost::this_thread::yield();
        }
        Start();
    });
    starter.interrupt();
    starter.join();

    EXPECT_TRUE(IsRunning());
    ExpectErrors({"TCDirsManager::Initialize interrupted"});
}

TEST_F(PolicyManager, AReloadedPolicyKeepsItsStart) {
    fakes::vconf::SetString(zol::TCScheduler::KEY_START_TIME, "1600000000");
    StartWith(PolicyFor("db/a"));

    EXPECT_EQ(fakes::vconf::GetString(zol::TCScheduler::KEY_START_TIME), "1600000000");
}

TEST_F(PolicyManager, APolicyThatIsWatchedAlreadyIsNotWatchedAgain) {
    StartWith(PolicyFor("db/a"));
    StorePolicy(PolicyFor("db/b"));

    m_manager->ReloadSchedule();

    ExpectErrors({"Monitoring is already running."});
    EXPECT_EQ(fakes::vconf::Registrations("db/a"), 1);
    EXPECT_EQ(fakes::vconf::Registrations("db/b"), 0);
    EXPECT_TRUE(IsRunning());
}

TEST_F(PolicyManager, AFlagThatCannotBeReadCountsAsWhatWasLastWrittenThere) {
    fakes::vconf::Fail(kRunningKey, fakes::vconf::FAIL_GET);
    StartWith(PolicyFor("db/a"));
    ExpectErrors({"vconf_get_bool(db/zol/corvel_policy) failed"});
    EXPECT_EQ(fakes::vconf::Registrations("db/a"), 1) << "it was cleared just before";

    EXPECT_TRUE(m_manager->UpdatePolicy(PolicyFor("db/b")));
    ExpectErrors({"Monitoring is already running."});
    EXPECT_EQ(StoredPolicy(), PolicyFor("db/b"));
    EXPECT_EQ(fakes::vconf::Registrations("db/b"), 0);
}

TEST_F(PolicyManager, AFlagOfTheLastProcessThatCannotBeClearedDoesNotKeepThePolicyFromBeingWatched) {
    fakes::vconf::SetBool(kRunningKey, true);
    fakes::vconf::Fail(kRunningKey, fakes::vconf::FAIL_SET);
    Start();
    ExpectErrors({"vconf_set_bool(db/zol/corvel_policy) failed\n"});

    EXPECT_TRUE(m_manager->UpdatePolicy(PolicyFor("db/a")));
    EXPECT_EQ(fakes::vconf::Registrations("db/a"), 1);

    EXPECT_TRUE(m_manager->UpdatePolicy(PolicyFor("db/b")));
    EXPECT_EQ(fakes::vconf::Registrations("db/b"), 0) << "monitoring runs, whatever the store says";
}

TEST_F(PolicyManager, AFlagThatCouldNotBeWrittenIsWrittenAsSoonAsItCanBe) {
    fakes::vconf::SetBool(kRunningKey, true);
    fakes::vconf::Fail(kRunningKey, fakes::vconf::FAIL_SET);
    Start();

    EXPECT_TRUE(LetRetryCome());
    EXPECT_TRUE(LetRetryCome()) << "for as long as it fails";
    EXPECT_TRUE(IsRunning());

    fakes::vconf::Fail(kRunningKey, fakes::vconf::FAIL_NONE);
    EXPECT_TRUE(LetRetryCome());
    EXPECT_FALSE(IsRunning());
    EXPECT_FALSE(LetRetryCome()) << "written";
}

TEST_F(PolicyManager, AFlagThatIsChangedByHandCountsOnceItHasBeenWritten) {
    StartWith(PolicyFor("db/a"));
    fakes::vconf::SetBool(kRunningKey, false);

    EXPECT_TRUE(m_manager->UpdatePolicy(PolicyFor("db/b")));
    EXPECT_EQ(fakes::vconf::Registrations("db/b"), 1);
}

TEST_F(PolicyManager, AnUpdateIsStoredByteForByteAndApplied) {
    const std::string xml = "\xEF\xBB\xBF<?xml version=\"1.0\"?>\r\n\t" + PolicyFor("db/\xC3\xA4") + "\r\n\n";
    StartAndPush(xml);

    EXPECT_EQ(StoredPolicy(), xml);
    EXPECT_TRUE(IsRunning());
    EXPECT_EQ(fakes::vconf::Registrations("db/\xC3\xA4"), 1);
    ExpectInOrder({"Policy update", "Storing policy", "Policy written, size: " + std::to_string(xml.size()),
                   "Update policy information.", "vconfPolicyCount[1]",
                   "vconf_set_bool(db/zol/corvel_policy) : 1 sucessful"});
    ExpectErrors({"Policy update", "Update policy information."});
    ExpectLogged(DLOG_PRIORITY_DEBUG, {"Policy written, size: "});
}

TEST_F(PolicyManager, AnUpdateStartsThePolicyNowWithoutAVersionAndTakesThePowerOnMarkOff) {
    Start();
    fakes::vconf::SetString(zol::TCScheduler::KEY_START_TIME, "1");
    fakes::vconf::SetBool(kPowerOnKey, true);
    EXPECT_TRUE(m_manager->UpdatePolicy(PolicyFor("db/a")));

    EXPECT_EQ(fakes::vconf::GetString(zol::TCScheduler::KEY_START_TIME),
              std::to_string(m_clock.GetCurrentTime()));
    EXPECT_EQ(fakes::vconf::GetString(zol::TCScheduler::KEY_FIRST_BOOT_TIME), "0");
    EXPECT_EQ(fakes::vconf::GetInt(kVersionKey), -1) << "documents carry none";
    EXPECT_EQ(fakes::vconf::GetInt(kPowerOnKey), 0);
}

TEST_F(PolicyManager, APolicyOfMonitorsAloneIsCommandsOnly) {
    StartWith(PolicyFor("db/a"));
    MarkSchedule();
    fakes::vconf::SetBool(kPowerOnKey, true);
    EXPECT_TRUE(m_manager->UpdatePolicy(Document("<monitor kind=\"3\" method=\"31\"/>")));

    EXPECT_EQ(StoredPolicy(), PolicyFor("db/a"));
    EXPECT_EQ(fakes::vconf::GetInt(kRunningKey), 0);
    EXPECT_EQ(fakes::vconf::GetInt(kPowerOnKey), 0);
    EXPECT_EQ(Applied().vconfMonitors.at(0).key, "db/a");
    EXPECT_EQ(fakes::vconf::Registrations("db/a"), 1);
    ExpectScheduleUntouched();
    ExpectLogged(DLOG_PRIORITY_DEBUG, {"Policy contains commands only, old policy should be left intact"});
}

TEST_F(PolicyManager, AMalformedUpdateIsRefusedAndClearsTheFlag) {
    StartWith(PolicyFor("db/a"));
    fakes::vconf::SetBool(kPowerOnKey, true);
    EXPECT_FALSE(m_manager->UpdatePolicy(PolicyFor("db/b") + "</zolitem>"));
    EXPECT_FALSE(m_manager->UpdatePolicy("<zolitem></zol>"));

    EXPECT_EQ(StoredPolicy(), PolicyFor("db/a"));
    EXPECT_EQ(fakes::vconf::GetInt(kRunningKey), 0);
    EXPECT_EQ(fakes::vconf::GetInt(kPowerOnKey), 0);
    ExpectErrors({"Error occurred while parsing policy, policy update failed"});
}

TEST_F(PolicyManager, AnUpdateWhileMonitoringRunsIsStoredAndWaitsForTheNextStart) {
    StartWith(PolicyFor("db/a"));
    MarkSchedule();
    fakes::vconf::SetBool(kPowerOnKey, true);
    fakes::dlog::Clear();
    EXPECT_TRUE(m_manager->UpdatePolicy(PolicyFor("db/b")));

    EXPECT_EQ(StoredPolicy(), PolicyFor("db/b"));
    EXPECT_EQ(Applied().vconfMonitors.at(0).key, "db/a");
    EXPECT_EQ(fakes::vconf::Registrations("db/b"), 0);
    EXPECT_EQ(fakes::vconf::GetInt(kPowerOnKey), 1);
    EXPECT_TRUE(IsRunning());
    ExpectScheduleUntouched();
    ExpectErrors({"Monitoring is already running."});

    Start();
    EXPECT_EQ(Applied().vconfMonitors.at(0).key, "db/b");
    EXPECT_EQ(fakes::vconf::Registrations("db/a"), 0);
    EXPECT_EQ(fakes::vconf::Registrations("db/b"), 1);
}

TEST_F(PolicyManager, AnUpdateAfterACommandsOnlyOneMakesAFurtherSetOfTasks) {
    StartWith(PolicyFor("db/a"));
    EXPECT_TRUE(m_manager->UpdatePolicy(Document("")));
    EXPECT_TRUE(m_manager->UpdatePolicy(PolicyFor("db/b")));

    EXPECT_EQ(Count("TCNotifyManager()"), 2);
    EXPECT_EQ(fakes::vconf::Registrations("db/a"), 1);
    EXPECT_EQ(fakes::vconf::Registrations("db/b"), 1);
    EXPECT_TRUE(IsRunning());
}

TEST_F(PolicyManager, InvalidItemsAreTakenOutBeforeAnythingIsWatched) {
    StartAndPush(
        Document("<zols key=\"greater\" condition=\"GREATER\" type=\"INT\" greater=\"10\"/>"
                 "<zols key=\"between\" condition=\"BETWEEN\" type=\"INT\" greater=\"-1\" less=\"7\"/>"
                 "<zols key=\"string\" condition=\"IS\" type=\"STRING\"/>"
                 "<monitor kind=\"3\" method=\"33\"/>",
                 9));

    ASSERT_EQ(Applied().vconfMonitors.size(), 1U);
    EXPECT_EQ(Applied().vconfMonitors[0].key, "between");
    EXPECT_TRUE(Applied().policyMonitors.empty());
    EXPECT_EQ(Applied().count, 0U);  // the monitors were counted last
    EXPECT_EQ(Count("removed"), 3);
    ExpectErrors({"removed", "ZOL_BT_PAIR, method is not valid [33]"});
    ExpectInOrder({"vconfPolicyCount[1]", "monitorList[0]", "totalCount[1]"});
}

TEST_F(PolicyManager, ValidItemsKeepTheirOrderWhateverIsTakenOutBetweenThem) {
    const std::string invalid =
        "<zols key=\"x\" condition=\"is\" type=\"INT\"/><monitor kind=\"3\" method=\"33\"/>";
    const auto valid = [](const std::string& name) {
        return ItemFor(name) + "<monitor kind=\"1\" id=\"" + name + "\" name=\"App\" method=\"11\"/>";
    };
    StartAndPush(Document(invalid + valid("a") + invalid + invalid + valid("b") + valid("c") + invalid));

    std::vector<std::string> names;
    for (const auto& item : Applied().vconfMonitors) {
        names.push_back(item.key);
    }
    for (const auto& monitor : Applied().policyMonitors) {
        names.push_back(monitor.id);
    }
    EXPECT_THAT(names, ElementsAre("a", "b", "c", "a", "b", "c"));
}

TEST_F(PolicyManager, APolicyOfInvalidItemsOnlyMakesNoTask) {
    StartAndPush(
        Document("<zols key=\"a\" condition=\"is\" type=\"INT\" intvalue=\"1\"/>"
                 "<monitor kind=\"1\" method=\"12\"/>"));

    EXPECT_EQ(fakes::vconf::GetInt(kRunningKey), 0);
    EXPECT_EQ(fakes::vconf::Registrations(), 0);
    EXPECT_FALSE(Has("TCNotifyManager()"));
    ExpectErrors({"policy_monitorCnt is zero"});
}

TEST_F(PolicyManager, AnItemThatHoldsAlreadyIsReportedAtOnceAndNotWatched) {
    fakes::vconf::SetInt("db/a", 1);
    StartAndPush(Document(ItemFor("db/a") + ItemFor("db/b")));

    EXPECT_EQ(Count("m_Notify() CALL"), 1);
    EXPECT_EQ(fakes::vconf::Registrations("db/a"), 0);
    EXPECT_EQ(fakes::vconf::Registrations("db/b"), 1);
}

TEST_F(PolicyManager, ExpiryEndsInALineInTheLogAndNothingElse) {
    StartAndPush(Document("<zol_expired_time time=\"10\"/>" + ItemFor("db/a")));
    LetOneSchedulerPassGoBy();
    ASSERT_TRUE(fakes::dlog::WaitFor("Disabled ZOL due to scheduled event!"));

    EXPECT_TRUE(IsRunning());
    EXPECT_TRUE(fakes::DeviceFileExists(ZOL_PATH_POLICY));
    EXPECT_EQ(fakes::vconf::Registrations("db/a"), 1);
    ExpectErrors({"Removing policy"});
}

TEST_F(PolicyManager, AStoredPolicyExpiresAtStartOnlyWhenItIsOverdue) {
    for (const int age : {900, 2000}) {
        fakes::vconf::SetString(zol::TCScheduler::KEY_START_TIME,
                                std::to_string(m_clock.GetCurrentTime() - age));
        StartWith(PolicyFor("db/a"));
        LetOneSchedulerPassGoBy();
        ASSERT_TRUE(fakes::clock::AwaitSleeper(std::chrono::seconds(5)));

        EXPECT_EQ(Count("Removing policy"), age > 1000 ? 1 : 0);
        EXPECT_TRUE(IsRunning());
    }
}

TEST_F(PolicyManager, TellsWhetherAPolicyIsStored) {
    Start();
    EXPECT_FALSE(m_manager->IsPolicyExists());
    m_manager->RemoveExpiredPolicy();
    EXPECT_FALSE(Has("need to check ExpiredPolicy !!!"));

    StorePolicy(PolicyFor("db/a"));
    EXPECT_TRUE(m_manager->IsPolicyExists());
    m_manager->RemoveExpiredPolicy();
    EXPECT_EQ(StoredPolicy(), PolicyFor("db/a"));
    ExpectErrors({"policy file exists !!!", "need to check ExpiredPolicy !!!"});
    ExpectLogged(DLOG_PRIORITY_DEBUG, {"Policy files does not exists"});
}

TEST_F(PolicyManager, PreparingPowerOnSetsTheMarkAndCheckingThePreparationTakesItOff) {
    Start().PreparePowerOn(false);
    EXPECT_EQ(fakes::vconf::GetInt(kPowerOnKey), 1);
    ExpectInOrder({"Preparing power on", "Power on prepared"});
    EXPECT_FALSE(Has("Power on already prepared"));

    m_manager->PreparePowerOn(true);
    EXPECT_EQ(fakes::vconf::GetInt(kPowerOnKey), 0);
    EXPECT_EQ(Count("Power on prepared"), 1);

    m_manager->PreparePowerOn(true);
    EXPECT_EQ(fakes::vconf::GetInt(kPowerOnKey), 0) << "there was no preparation to check";
    EXPECT_EQ(Count("Power on prepared"), 2);
    EXPECT_EQ(Count("Power on already prepared"), 1);
    ExpectLogged(DLOG_PRIORITY_DEBUG, {"Power on prepared", "Power on already prepared"});
}

TEST_F(PolicyManager, APowerOnMarkThatCannotBeReadOrWrittenHoldsNothingUp) {
    fakes::vconf::SetBool(kPowerOnKey, true);
    fakes::vconf::Fail(kPowerOnKey, fakes::vconf::FAIL_GET | fakes::vconf::FAIL_SET);
    StartAndPush(PolicyFor("db/a"));
    ExpectErrors({"Unable to set db/private/tvs-cv/power_on_prepared"});
    m_manager->PreparePowerOn(true);
    m_manager->PreparePowerOn(false);

    EXPECT_EQ(Count("Unable to set db/private/tvs-cv/power_on_prepared"), 3);
    EXPECT_EQ(Count("Power on prepared"), 2);
    EXPECT_FALSE(Has("Power on already prepared"));
}

TEST_F(PolicyManager, EveryReloadAsksTheUsageLoggerForTheVolumeFirst) {
    zol::TCCVLogger logger;
    zol::TCPolicyManager manager(m_clock, nullptr, &logger);
    manager.ReloadSchedule();
    ExpectInOrder({"LogVolumeLevel(", "Policy /var/lib/zol/policy.xml does not exist", "LogVolumeLevel(",
                   "Policy /var/lib/zol/policy.xml does not exist"});
}

TEST_F(PolicyManager, PowerOffIsToldToEveryClientWithoutATimeLimit) {
    EXPECT_CALL(m_server, SendNotification(5, -1))
        .WillOnce(Return(1))
        .WillOnce(Return(7))
        .WillOnce(Return(0));
    EXPECT_TRUE(Start().NotifyPowerOff());
    EXPECT_TRUE(m_manager->NotifyPowerOff());
    EXPECT_FALSE(m_manager->NotifyPowerOff());

    zol::TCPolicyManager serverless(m_clock, nullptr, nullptr);
    EXPECT_FALSE(serverless.NotifyPowerOff());
    ExpectLogged(DLOG_PRIORITY_DEBUG,
                 {"No application responded to power off notification!", "Dbus server is null!"});
}

}  // namespace

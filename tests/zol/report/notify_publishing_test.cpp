#include <gmock/gmock.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "dlog.h"
#include "fake_clock.h"
#include "fake_dlog.h"
#include "kpi_events.h"
#include "notify_fixture.h"

namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

using KpiDescription = NotifyFixture;
using PathQueue = NotifyFixture;

const std::string kDropped = std::string(kFolder) + " stays, and no collector is told of it";

TEST_F(KpiDescription, AVconfHitNamesKeyAndValueBeforeTheMonitorItems) {
    HandleHit("db/menu/picture/backlight", 5);

    const std::string expected =
        std::string(kIdentifiers) +
        "key=db/menu/picture/"
        "backlight;value=5;zol_error_type=;app_id=;app_name=;zol_duration=;zol_repetion=;" +
        kTail;
    EXPECT_THAT(SentKpiDescriptions(), ElementsAre(expected));
    ExpectErrors({"kpiDesc : " + expected});
}

TEST_F(KpiDescription, AMonitorHitNamesTheMonitorBeforeKeyAndValue) {
    zol::ZOLPolicyMonitor first;
    zol::ZOLPolicyMonitor second;
    second.type = 1;
    second.id = "org.example.app";
    second.name = "Example";
    second.duration = 60;
    second.repetition = 3;
    SetMonitors({first, second});

    Handle(NOTIFY_ZOL_MONITOR, 1);

    const std::string expected = std::string(kIdentifiers) +
                                 "zol_error_type=1;app_id=org.example.app;app_name=Example;zol_duration=60;"
                                 "zol_repetion=3;key=;value=;" +
                                 kTail;
    EXPECT_THAT(SentKpiDescriptions(), ElementsAre(expected));
    ExpectErrors({"kpiDesc : " + expected});
    EXPECT_EQ(PublishedPath(), kFolder);
}

TEST_F(KpiDescription, AMonitorHitLeavesTheQueuedVconfHitsAlone) {
    SetMonitors({zol::ZOLPolicyMonitor()});
    m_notify->AddNotify(Key("db/a"), 5, "null");

    Handle(NOTIFY_ZOL_MONITOR, 0);
    EXPECT_EQ(SentKpiDescriptions().size(), 1U);

    Handle(NOTIFY_ZOL_VCONF);
    EXPECT_EQ(SentKpiDescriptions().size(), 2U);
}

TEST_F(KpiDescription, AMonitorIndexOutsideTheListSendsNothing) {
    SetMonitors({zol::ZOLPolicyMonitor()});

    Handle(NOTIFY_ZOL_MONITOR, 1);
    Handle(NOTIFY_ZOL_MONITOR, -2);

    EXPECT_THAT(SentKpiDescriptions(), IsEmpty());
    EXPECT_TRUE(fakes::dlog::Has("no monitor at index 1 of 1, nothing is sent"));
    EXPECT_TRUE(fakes::dlog::Has("no monitor at index -2 of 1, nothing is sent"));
}

TEST_F(KpiDescription, MinusOneGivesTheTextAndAnyOtherIntegerAnUnsignedNumber) {
    HandleHit("db/a", -1, "on");
    HandleHit("db/a", 5, "on");
    HandleHit("db/a", -2);

    EXPECT_THAT(SentKpiDescriptions(),
                ElementsAre(HasSubstr("value=on;"), HasSubstr("value=5;"), HasSubstr("value=4294967294;")));
}

TEST_F(KpiDescription, WithoutAKpiManagerItIsAPairOfBraces) {
    m_notify->LoseKpiManager();

    EXPECT_EQ(m_notify->m_GetKpiDescription("db/a", 5, "on"), "{}");
    EXPECT_EQ(m_notify->m_GetKpiDescription(0), "{}");
}

TEST_F(PathQueue, FurtherPathsWaitInTheirOrderUntilTheCollectorHasEmptiedTheKey) {
    for (int report = 0; report < 4; ++report) {
        Handle(NOTIFY_ZOL_VCONF);
        fakes::clock::Advance(1s);
    }
    for (const char* second : {"0", "1", "2", "3"}) {
        EXPECT_EQ(PublishedPath(), std::string("/tmp/zol/tg-1_170000000") + second);
        CollectorEmptiesTheKey();
    }
    EXPECT_EQ(PublishedPath(), "");
    ExpectErrors({"vconfkey is not empty, add current path to list", "vconfkey is empty",
                  "m_notiPathList is empty, return"});
}

TEST_F(PathQueue, AStoreThatCallsBackInsideASetHandsEveryPathOver) {
    fakes::vconf::SetString(kKey, "/tmp/zol/not_taken_yet");
    for (int report = 0; report < 3; ++report) {
        Handle(NOTIFY_ZOL_VCONF);
        fakes::clock::Advance(1s);
    }
    fakes::vconf::DeliverInsideSets();
    const Collector collector;

    CollectorEmptiesTheKey();
    Handle(NOTIFY_ZOL_VCONF);

    EXPECT_THAT(collector.m_taken, ElementsAre(EndsWith("_1700000000"), EndsWith("_1700000001"),
                                               EndsWith("_1700000002"), EndsWith("_1700000003")));
}

TEST_F(PathQueue, EachLineNamesTheOperationThatItComesFrom) {
    for (int report = 0; report < 2; ++report) {
        Handle(NOTIFY_ZOL_VCONF);
    }
    CollectorEmptiesTheKey();
    CollectorEmptiesTheKey();
    fakes::vconf::Unset(kKey);
    Handle(NOTIFY_ZOL_VCONF);

    for (const auto& [operation, text] : std::vector<std::pair<std::string, std::string>>{
             {"m_RegisterVconfKey", "success"},
             {"m_CreateHeaderInfo", "header.json created"},
             {"m_UpdateVconfKey", "vconf_set_str success"},
             {"m_UpdateVconfKey", "vconfkey is not empty, add current path to list"},
             {"m_UpdateVconfKey", "vconf_get_str fail"},
             {"m_vconfCb", "vconf_get_str fail"},
             {"m_vconfCb", "vconfkey is empty"},
             {"m_NotifyFromList", "m_notiPathList is empty, return"}}) {
        EXPECT_THAT(fakes::dlog::Lines(),
                    Contains(Field(&fakes::LogLine::text, MatchesRegex("ZOLNotifyManager: " + operation +
                                                                       "\\([0-9]+\\) > " + text))))
            << operation;
    }
}

TEST_F(PathQueue, AKeyThatCannotBeReadOrWrittenDropsThePath) {
    for (const auto failure : {fakes::vconf::FAIL_GET, fakes::vconf::FAIL_SET}) {
        fakes::vconf::Fail(kKey, failure);
        Handle(NOTIFY_ZOL_VCONF);
        fakes::vconf::Fail(kKey, fakes::vconf::FAIL_NONE);

        CollectorEmptiesTheKey();

        EXPECT_EQ(PublishedPath(), "");
    }
    ExpectErrors({"vconf_get_str fail", "vconf_set_str fail"});
    EXPECT_EQ(fakes::dlog::Count(kDropped), 2);
}

TEST_F(PathQueue, AMissingKeyThatTheConstructionCouldNotEmptyIsMadeByTheNextPath) {
    m_notify.reset();
    fakes::vconf::Unset(kKey);
    fakes::vconf::Fail(kKey, fakes::vconf::FAIL_SET);
    m_notify = std::make_unique<NotifyUnderTest>();
    fakes::vconf::Fail(kKey, fakes::vconf::FAIL_NONE);

    Handle(NOTIFY_ZOL_VCONF);
    EXPECT_EQ(PublishedPath(), kFolder);
    EXPECT_EQ(fakes::dlog::Count(kDropped), 0);

    // Somebody else removed it: that is a key that cannot be read.
    fakes::vconf::Unset(kKey);
    Handle(NOTIFY_ZOL_VCONF);
    EXPECT_EQ(fakes::dlog::Count(kDropped), 1);
}

TEST_F(PathQueue, ThePathOfAnEarlierRunThatCouldNotBeTakenBackHoldsNothingUp) {
    m_notify.reset();
    fakes::vconf::SetString(kKey, "/tmp/zol/of_an_earlier_run");
    fakes::vconf::Fail(kKey, fakes::vconf::FAIL_SET);
    m_notify = std::make_unique<NotifyUnderTest>();
    fakes::vconf::Fail(kKey, fakes::vconf::FAIL_NONE);

    Handle(NOTIFY_ZOL_VCONF);

    EXPECT_EQ(PublishedPath(), kFolder);
}

TEST_F(PathQueue, APathOfThisRunIsNotTakenBackWhenTheKeyWasEmptiedMeanwhile) {
    m_notify.reset();
    fakes::vconf::Fail(kKey, fakes::vconf::FAIL_SET);
    m_notify = std::make_unique<NotifyUnderTest>();
    fakes::vconf::Fail(kKey, fakes::vconf::FAIL_NONE);
    fakes::vconf::SetString(kKey, "");

    Handle(NOTIFY_ZOL_VCONF);
    fakes::clock::Advance(1s);
    Handle(NOTIFY_ZOL_VCONF);

    EXPECT_EQ(PublishedPath(), kFolder);
}

TEST_F(PathQueue, PathsThatStillWaitAtItsEndAreCounted) {
    for (int report = 0; report < 3; ++report) {
        Handle(NOTIFY_ZOL_VCONF);
        fakes::clock::Advance(1s);
    }

    m_notify.reset();

    ExpectErrors({"2 report folders stay that no collector was told of"});
}

TEST_F(PathQueue, AChangeToAnotherPathIsIgnored) {
    fakes::dlog::Clear();

    fakes::vconf::SetString(kKey, "/tmp/zol/of_somebody_else");

    EXPECT_TRUE(fakes::dlog::Lines().empty());
}

TEST_F(PathQueue, ARemovedKeyIsLoggedAndThePathsGoOnWaiting) {
    Handle(NOTIFY_ZOL_VCONF);
    fakes::clock::Advance(1s);
    Handle(NOTIFY_ZOL_VCONF);

    fakes::vconf::Unset(kKey);

    CollectorEmptiesTheKey();
    EXPECT_EQ(PublishedPath(), "/tmp/zol/tg-1_1700000001");
    EXPECT_TRUE(fakes::dlog::Has("vconf_get_str fail"));
}

TEST_F(PathQueue, WaitingForTheCollectorEndsAtOnceWithAKeyThatIsEmptyOrCannotBeRead) {
    m_notify->m_CheckVconfKey();
    ExpectErrors({"vconfkey is empty, exit"});
    fakes::vconf::Fail(kKey, fakes::vconf::FAIL_GET);
    m_notify->m_CheckVconfKey();

    EXPECT_EQ(fakes::clock::SleptUs(), 0U);
    EXPECT_EQ(Logged("vconf_get_str fail"), 1);
}

TEST_F(PathQueue, WaitingForTheCollectorGivesUpAfter900Seconds) {
    fakes::vconf::SetString(kKey, "/tmp/zol/never_taken");

    m_notify->m_CheckVconfKey();

    EXPECT_EQ(fakes::clock::SleptUs(), 900U * 1000000U);
    EXPECT_EQ(fakes::dlog::Count("vconfkey is not empty, waiting["), 900);
    EXPECT_EQ(fakes::dlog::Count("waiting[900]"), 1);
    EXPECT_EQ(fakes::dlog::Count("waiting[1]"), 1);
    EXPECT_FALSE(fakes::dlog::Has("waiting[0]"));
    EXPECT_FALSE(fakes::dlog::Has("vconfkey is empty, exit"));
}

}  // namespace

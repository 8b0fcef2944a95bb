#include <gmock/gmock.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <thread>

#include "dlog.h"
#include "fake_clock.h"
#include "full_disk.h"
#include "kpi_events.h"
#include "notify_fixture.h"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using NotifyManager = NotifyFixture;
using NotifyTask = NotifyFixture;
using NotifyManagerDeathTest = NotifyFixture;

TEST_F(NotifyManager, ItsConstructionEmptiesAndWatchesTheKey) {
    m_notify.reset();
    fakes::vconf::SetString(kKey, "/tmp/zol/old");
    fakes::dlog::Clear();

    m_notify = std::make_unique<NotifyUnderTest>();

    EXPECT_EQ(PublishedPath(), "");
    EXPECT_EQ(fakes::vconf::Registrations(kKey), 1);
    ExpectErrors({"TCNotifyManager()", "> success"});
    EXPECT_EQ(Logged("vconf_set_str fail"), 0);

    fakes::vconf::Fail(kKey, fakes::vconf::FAIL_SET | fakes::vconf::FAIL_NOTIFY);
    const NotifyUnderTest other;
    ExpectErrors({"vconf_set_str fail", "> fail"});
}

TEST_F(NotifyManager, ThreePendingHitsSendThreeEventsOnceAndPublishOnePath) {
    for (const char* key : {"db/a", "db/b", "db/c"}) {
        m_notify->AddNotify(Key(key), -1, "on");
    }
    ExpectErrors({"key[db/c], intValue[-1], strValue[on]"});
    Handle(NOTIFY_ZOL_VCONF);
    EXPECT_EQ(PublishedPath(), kFolder);
    EXPECT_EQ(Logged("vconf_set_str success"), 1);
    Handle(NOTIFY_ZOL_VCONF);

    const std::string same = kIdentifiers;
    EXPECT_THAT(SentKpiDescriptions(),
                ElementsAre(HasSubstr(same + "key=db/a;"), HasSubstr(same + "key=db/b;"),
                            HasSubstr(same + "key=db/c;")));
    std::vector<KPILogFramework::TSKpiEvent> events;
    ASSERT_TRUE(KPILogFramework::CLogger::GetInstance().ListEvents(events));
    EXPECT_EQ(events[0].type, "20_errdata");
    EXPECT_EQ(events[0].category, "ZOL");
    EXPECT_EQ(events[0].eventId, "EV007");
}

TEST_F(NotifyManager, WithoutPendingHitsTheHeaderIsWrittenAndTheFolderPublishedAllTheSame) {
    Handle(NOTIFY_ZOL_VCONF);

    Json::Value expected;
    expected["idtype"] = "HWDUID";
    expected["id"] = "HW-1";
    expected["category"] = "ZOL";
    expected["tgid"] = "tg-1";
    expected["lcid"] = "lc-1";
    expected["evid"] = "1700000000";
    expected["Content-Type"] = "multipart/form-data";
    EXPECT_EQ(Header(), Json::writeString(Json::StreamWriterBuilder(), expected)) << "in its default form";
    EXPECT_EQ(PublishedPath(), kFolder);
    EXPECT_THAT(SentKpiDescriptions(), IsEmpty());
    ExpectLogged(DLOG_PRIORITY_INFO, {"header.json created"});
}

TEST_F(NotifyManager, AnIdentifierWithQuotesStaysOneJsonString) {
    fakes::vconf::SetString("db/comss/hwduid", "a\"b\\c");

    Handle(NOTIFY_ZOL_VCONF);

    Json::Value header;
    std::istringstream file(Header());
    ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), file, &header, nullptr));
    EXPECT_EQ(header["id"].asString(), "a\"b\\c");
    EXPECT_EQ(header.size(), 7U);
}

TEST_F(NotifyManager, TheTgidNamesTheFolderWithItsLineFeedAndMissingToo) {
    fakes::WriteDeviceFile("/proc/global_uniqueID", "tg-1\n");
    Handle(NOTIFY_ZOL_VCONF);
    EXPECT_EQ(PublishedPath(), "/tmp/zol/tg-1\n_1700000000");
    EXPECT_TRUE(fakes::DeviceFileExists("/tmp/zol/tg-1\n_1700000000/header.json"));

    CollectorEmptiesTheKey();
    std::filesystem::remove(fakes::Root() + "/proc/global_uniqueID");
    fakes::clock::SetWall(fakes::clock::kEpoch);  // the reads of the missing file take time
    Handle(NOTIFY_ZOL_VCONF);
    EXPECT_EQ(PublishedPath(), "/tmp/zol/NULL_1700000000");
    EXPECT_TRUE(fakes::DeviceFileExists("/tmp/zol/NULL_1700000000/header.json"));
}

TEST_F(NotifyManager, AHeaderThatCannotBeWrittenWholeIsAbsentAndTheReportGoesOut) {
    {
        const FullDisk disk(10);
        Handle(NOTIFY_ZOL_VCONF);
    }

    EXPECT_EQ(PublishedPath(), kFolder);
    EXPECT_TRUE(std::filesystem::is_empty(fakes::Root() + kFolder)) << "nothing half written is left";
    ExpectErrors({std::string("cannot write ") + kFolder + "/header.json: File too large"});
    EXPECT_EQ(Logged("header.json created"), 1);
}

TEST_F(NotifyManager, ASecondReportOfASecondReplacesTheHeaderOnlyWhereItsIdentifiersAreOthers) {
    fakes::WriteDeviceFile("/proc/life_cycleID", "long-ident");
    Handle(NOTIFY_ZOL_VCONF);
    const std::string first = Header();
    {
        const FullDisk disk(0);
        Handle(NOTIFY_ZOL_VCONF);
        EXPECT_EQ(Header(), first) << "not emptied before it is written anew: somebody may read it";
    }
    fakes::WriteDeviceFile("/proc/life_cycleID", "short");

    Handle(NOTIFY_ZOL_VCONF);

    std::string expected = first;
    expected.replace(expected.find("long-ident"), std::strlen("long-ident"), "short");
    EXPECT_EQ(Header(), expected);
}

TEST_F(NotifyManager, ATmpThatIsALinkOfTheImageIsFollowed) {
    fakes::MakeDeviceFolder("/volatile");
    std::filesystem::remove(fakes::Root() + "/tmp");
    std::filesystem::create_directory_symlink("volatile", fakes::Root() + "/tmp");

    Handle(NOTIFY_ZOL_VCONF);

    EXPECT_EQ(PublishedPath(), kFolder);
    EXPECT_TRUE(fakes::DeviceFileExists("/volatile/zol/tg-1_1700000000/header.json"));
}

TEST_F(NotifyManager, AReportRootThatIsALinkIsRefusedAndTheHitsWait) {
    fakes::MakeDeviceFolder("/tmp/elsewhere");
    ASSERT_EQ(chmod((fakes::Root() + "/tmp").c_str(), 01777), 0);
    std::filesystem::create_symlink(fakes::Root() + "/tmp/elsewhere", fakes::Root() + "/tmp/zol");

    HandleHit("db/a", 5);
    EXPECT_EQ(PublishedPath(), "");
    EXPECT_THAT(SentKpiDescriptions(), IsEmpty());
    EXPECT_TRUE(std::filesystem::is_empty(fakes::Root() + "/tmp/elsewhere"));

    std::filesystem::remove(fakes::Root() + "/tmp/zol");
    HandleHit("db/b", 5);
    EXPECT_THAT(SentKpiDescriptions(), ElementsAre(HasSubstr("key=db/a;"), HasSubstr("key=db/b;")));
}

TEST_F(NotifyManager, AReportRootThatAStrangerPutThereIsRefused) {
    constexpr uid_t kStranger = 65534;
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can give a folder away";
    }
    ASSERT_EQ(chmod((fakes::Root() + "/tmp").c_str(), 01777), 0);
    fakes::MakeDeviceFolder("/tmp/zol");
    ASSERT_EQ(chown((fakes::Root() + "/tmp/zol").c_str(), kStranger, kStranger), 0);

    HandleHit("db/a", 5);

    EXPECT_EQ(PublishedPath(), "");
    EXPECT_THAT(SentKpiDescriptions(), IsEmpty());
    EXPECT_TRUE(std::filesystem::is_empty(fakes::Root() + "/tmp/zol"));
}

TEST_F(NotifyManager, APipeInTheHeadersPlaceHoldsNothingUp) {
    fakes::MakeDeviceFolder(kFolder);
    ASSERT_EQ(mkfifo((fakes::Root() + kFolder + "/header.json").c_str(), 0600), 0);

    HandleHit("db/a", 5);

    EXPECT_EQ(PublishedPath(), "");
    ExpectErrors({"file open failed", std::string("cannot write ") + kFolder + "/header.json: "});
}

TEST_F(NotifyManager, AHeaderThatIsWrittenAnewStaysWithItsReader) {
    Handle(NOTIFY_ZOL_VCONF);
    std::ifstream reader(fakes::Root() + kFolder + "/header.json");
    const std::string first = Header();
    fakes::WriteDeviceFile("/proc/life_cycleID", "another");

    Handle(NOTIFY_ZOL_VCONF);

    EXPECT_NE(Header(), first);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(reader), {}), first);
}

TEST_F(NotifyManager, AFolderOrLinkInTheHeadersPlaceEndsTheReport) {
    const std::string header = std::string(kFolder) + "/header.json";
    fakes::MakeDeviceFolder(header);
    HandleHit("db/a", 5);
    std::filesystem::remove(fakes::Root() + header);
    fakes::WriteDeviceFile("/etc/precious", "kept");
    std::filesystem::create_symlink(fakes::Root() + "/etc/precious", fakes::Root() + header);
    HandleHit("db/a", 5);

    EXPECT_EQ(fakes::ReadDeviceFile("/etc/precious"), "kept");
    EXPECT_THAT(SentKpiDescriptions(), IsEmpty());
    EXPECT_EQ(PublishedPath(), "");
    EXPECT_EQ(Logged("file open failed"), 2);
    ExpectErrors({"file open failed"});
}

TEST_F(NotifyManager, TheHeaderMayBeReadByTheCollectorWhateverTheUmask) {
    const mode_t old = umask(0077);
    HandleHit("db/a", 5);
    umask(old);

    struct stat status {};
    ASSERT_EQ(stat((fakes::Root() + kFolder + "/header.json").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0644U);
}

TEST_F(NotifyManager, AnEventLogThatRefusesDoesNotKeepThePathBack) {
    fakes::WriteDeviceFile("/var/lib/zol", "a file where the folder should be");

    HandleHit("db/a", 5);

    EXPECT_EQ(PublishedPath(), kFolder);
    EXPECT_TRUE(fakes::dlog::Has("could not send event log"));
    std::filesystem::remove(fakes::Root() + "/var/lib/zol");
    HandleHit("db/b", 5);
    EXPECT_THAT(SentKpiDescriptions(), ElementsAre(HasSubstr("key=db/a;"), HasSubstr("key=db/b;")));
}

TEST_F(NotifyManager, WithoutAKpiManagerNothingIsMadeOrSent) {
    m_notify->LoseKpiManager();

    HandleHit("db/a", 5);

    EXPECT_FALSE(fakes::DeviceFileExists("/tmp/zol"));
    EXPECT_EQ(PublishedPath(), "");
    ExpectErrors({"m_pKpiManager is NULL"});
}

TEST_F(NotifyManager, EachEventIsLoggedWithItsType) {
    SetMonitors({zol::ZOLPolicyMonitor()});
    Handle(NOTIFY_ZOL_VCONF);
    Handle(NOTIFY_ZOL_MONITOR, 0);

    ExpectLogged(DLOG_PRIORITY_INFO, {"[TCNotifyManager::t_OnEvent] TYPE:0",
                                      "[TCNotifyManager::t_OnEvent] event->type is NOTIFY_ZOL_VCONF",
                                      "[TCNotifyManager::t_OnEvent] TYPE:1",
                                      "[TCNotifyManager::t_OnEvent] event->type is NOTIFY_ZOL_MONITOR",
                                      "[TCNotifyManager::t_OnEvent] event->param.l[0] is 0"});
}

TEST_F(NotifyManagerDeathTest, EventType2AndANullEventStopTheProgram) {
    EXPECT_DEATH(Handle(2), "");
    EXPECT_DEATH(m_notify->t_OnEvent(nullptr), "");
}

TEST_F(NotifyManager, AForgivingImageReportsAnUnknownEventAndGoesOn) {
    SurviveAssertions();

    Handle(2);
    EXPECT_TRUE(m_notify->t_OnEvent(nullptr));

    EXPECT_EQ(PublishedPath(), "");
    ExpectAssertedOnceEach({"!\"[TCNotifyManager] Unknown Event Type\" [zol/src/ZOLNotifyManager:",
                            "event [zol/src/ZOLNotifyManager:"});
}

TEST_F(NotifyTask, APostedEventIsHandledOnTheTask) {
    ASSERT_TRUE(m_notify->Create());
    m_notify->AddNotify(Key("db/a"), 5, "null");

    ASSERT_TRUE(Post(/*sync=*/false));

    ASSERT_TRUE(fakes::dlog::WaitFor("vconf_set_str success"));
    EXPECT_EQ(PublishedPath(), kFolder);
    EXPECT_STREQ(m_notify->Name(), "ZolNotifyManager");
}

TEST_F(NotifyTask, DestroyEndsTheTaskAndItsEndWithdrawsTheWatchToo) {
    ASSERT_TRUE(m_notify->Create());
    m_notify->Destroy();
    EXPECT_EQ(fakes::vconf::Registrations(kKey), 1);
    EXPECT_FALSE(Post(/*sync=*/false));
    ExpectLogged(DLOG_PRIORITY_INFO, {"[TCNotifyManager] Create", "[TCNotifyManager] Created",
                                      "[TCNotifyManager] Destroy", "[TCNotifyManager] Destroyed"});

    ASSERT_TRUE(m_notify->Create());
    m_notify.reset();
    EXPECT_EQ(fakes::vconf::Registrations(kKey), 0);
}

TEST_F(NotifyTask, NoPathIsLostWhenReportsAndTheCollectorMeet) {
    constexpr std::size_t kReports = 40;
    const Collector collector;
    ASSERT_TRUE(m_notify->Create());

    std::thread reporter([this] {
        for (std::size_t report = 0; report < kReports; ++report) {
            m_notify->AddNotify(Key("db/a"), 5, "null");
            // Each report then has a second, and so a folder, of its own.
            EXPECT_TRUE(Post(/*sync=*/true));
            fakes::clock::Advance(1s);
        }
    });
    EXPECT_TRUE(Eventually([&] {
        fakes::vconf::Deliver();
        return collector.m_taken.size() >= kReports;
    }));
    reporter.join();

    EXPECT_EQ(std::set<std::string>(collector.m_taken.begin(), collector.m_taken.end()).size(), kReports);
    EXPECT_EQ(collector.m_taken.size(), kReports);
    EXPECT_EQ(SentKpiDescriptions().size(), kReports);
}

}  // namespace

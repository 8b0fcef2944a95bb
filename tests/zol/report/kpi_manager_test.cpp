#include "ZOLKpiManager.h"

#include <cstdlib>
#include <filesystem>

#include "KPILogFramework.h"
#include "device_test.h"
#include "dlog.h"
#include "fake_clock.h"
#include "fake_runtime_info.h"
#include "fake_vconf.h"
#include "runtime_info.h"

namespace {

constexpr const char* kHwduidKey = "db/comss/hwduid";
constexpr const char* kTgidFile = "/proc/global_uniqueID";
constexpr const char* kLcidFile = "/proc/life_cycleID";
constexpr const char* kChipFile = "/proc/soq_chipid_val";

class KpiManager : public DeviceTest {
protected:
    /// What is read from a file with this content.
    std::string Read(const char* file, const std::string& content, void (TCKpiManager::*read)(), int index) {
        fakes::WriteDeviceFile(file, content);
        (m_kpi.*read)();
        return m_kpi.Get(index);
    }

    TCKpiManager m_kpi;
};

/// What the given code leaves in the release mode, in a process that never asked for it before: the marker is
/// looked for once in the life of a process. The child ends with the mode on standard error.
template <class Code>
[[noreturn]] void PrintReleaseModeAfter(Code code) {
    TCKpiManager kpi;
    code(kpi);
    std::fprintf(stderr, "mode=%s.", kpi.Get(KPI_RELEASE_MODE).c_str());
    std::_Exit(0);
}

TEST_F(KpiManager, EveryIdentifierIsEmptyAtFirstAndNullOutsideTheTable) {
    for (int index = 0; index < KPI_COUNT; ++index) {
        EXPECT_EQ(m_kpi.Get(index), "") << index;
    }
    EXPECT_EQ(m_kpi.Get(8), "NULL");
    EXPECT_EQ(m_kpi.Get(-1), "NULL");
    ExpectErrors({"TCKpiManager()"});
}

TEST_F(KpiManager, AnHwduidIsCutTo13CharactersAndAMissingOneIsNull) {
    fakes::vconf::SetString(kHwduidKey, "ABCDEFGHIJKLMNOPQRST");
    m_kpi.m_GetHWDuid();
    EXPECT_EQ(m_kpi.Get(KPI_HWDUID), "ABCDEFGHIJKLM");
    ExpectLogged(DLOG_PRIORITY_INFO, {"vconf_get_str(db/comss/hwduid) success"});

    fakes::vconf::Unset(kHwduidKey);
    m_kpi.m_GetHWDuid();
    EXPECT_EQ(m_kpi.Get(KPI_HWDUID), "NULL");
    ExpectErrors({"vconf_get_str(db/comss/hwduid) failed"});
}

TEST_F(KpiManager, TheFirst36BytesOfATgidFileAndTheFirst10OfAnLcidFileCountLineFeedsToo) {
    const auto tgid = [this](const std::string& content) {
        return Read(kTgidFile, content, &TCKpiManager::m_GetTgid, KPI_TGID);
    };
    EXPECT_EQ(tgid("tg-1\n"), "tg-1\n");
    EXPECT_EQ(tgid(std::string(36, 'a') + "bcd"), std::string(36, 'a'));
    EXPECT_EQ(Read(kLcidFile, "0123456789ab", &TCKpiManager::m_GetLcid, KPI_LCID), "0123456789");
    EXPECT_EQ(fakes::clock::SleptUs(), 0U);
}

TEST_F(KpiManager, ATgidFileThatIsMissingOrEmptyIsTriedThreeTimes) {
    m_kpi.m_GetTgid();
    EXPECT_EQ(m_kpi.Get(KPI_TGID), "NULL");
    EXPECT_EQ(fakes::clock::SleptUs(), 30000U);
    const std::string open = "file open failed. again for tgid value ";
    EXPECT_EQ(Logged(open), 3);
    ExpectErrors({open + "(1)", open + "(2)", open + "(3)"});

    EXPECT_EQ(Read(kTgidFile, "", &TCKpiManager::m_GetTgid, KPI_TGID), "NULL");
    EXPECT_EQ(fakes::clock::SleptUs(), 60000U);
    const std::string read = "file read failed. try again for tgid value ";
    EXPECT_EQ(Logged(read), 3);
    ExpectErrors({read + "(1)", read + "(3)"});
}

TEST_F(KpiManager, AnLcidFileThatIsMissingOrEmptyIsLoggedOnce) {
    m_kpi.m_GetLcid();
    EXPECT_EQ(m_kpi.Get(KPI_LCID), "NULL");
    EXPECT_EQ(Logged("file open failed"), 1);

    EXPECT_EQ(Read(kLcidFile, "", &TCKpiManager::m_GetLcid, KPI_LCID), "NULL");
    EXPECT_EQ(Logged("file read failed\n"), 1);
    ExpectErrors({"file read failed\n"});
}

TEST_F(KpiManager, TheEvidIsTheWallClockInWholeSeconds) {
    for (const std::int64_t seconds : {std::int64_t{1700000123}, std::int64_t{4102444800}}) {
        fakes::clock::SetWall(seconds, 999999999);
        m_kpi.m_GetEvid();
        EXPECT_EQ(m_kpi.Get(KPI_EVID), std::to_string(seconds));
    }

    fakes::clock::FailRealtime(true);
    m_kpi.m_GetEvid();
    EXPECT_EQ(m_kpi.Get(KPI_EVID), "NULL");
    ExpectErrors({"gettimeofday() fail"});
}

TEST_F(KpiManager, TheFourWordsOfAChipIdAreJoinedInUpperCase) {
    m_kpi.m_GetChipId();
    EXPECT_EQ(m_kpi.Get(KPI_CHIP_ID), "NULL");
    const std::vector<std::pair<const char*, const char*>> cases{
        {"0x1 0x2 0xab 0xffffffff\n", "00000001_00000002_000000AB_FFFFFFFF"},
        {"0x7", "00000007_00000000_00000000_00000000"},
        {"", "NULL"},
        {"nonsense", "NULL"},
        {"17", "NULL"}};
    for (const auto& [content, id] : cases) {
        EXPECT_EQ(Read(kChipFile, content, &TCKpiManager::m_GetChipId, KPI_CHIP_ID), id) << content;
    }
}

using ReleaseModeDeathTest = KpiManager;

TEST_F(ReleaseModeDeathTest, AMarkerFileMakesAReleaseImage) {
    fakes::WriteDeviceFile("/etc/release", "");
    EXPECT_EXIT(PrintReleaseModeAfter([](TCKpiManager& kpi) { kpi.m_IsReleaseMode(); }),
                testing::ExitedWithCode(0), "mode=REL\\.");
}

TEST_F(ReleaseModeDeathTest, NoMarkerFileMakesADevelopmentImage) {
    EXPECT_EXIT(PrintReleaseModeAfter([](TCKpiManager& kpi) { kpi.m_IsReleaseMode(); }),
                testing::ExitedWithCode(0), "mode=DEV\\.");
}

TEST_F(ReleaseModeDeathTest, TheSecondCallOfTheProcessYieldsNull) {
    EXPECT_EXIT(PrintReleaseModeAfter([](TCKpiManager& kpi) {
                    TCKpiManager first;
                    first.m_IsReleaseMode();
                    kpi.m_IsReleaseMode();
                }),
                testing::ExitedWithCode(0), "mode=NULL\\.");
}

TEST_F(KpiManager, ShopModeIsYesNoOrAsItWas) {
    m_kpi.m_IsShopMode();
    EXPECT_EQ(m_kpi.Get(KPI_SHOP_MODE), "n") << "an unreadable value counts as 0";
    for (const int mode : {1, 2}) {
        fakes::runtime_info::Set(RUNTIME_INFO_SHOP_MODE, mode);
        m_kpi.m_IsShopMode();
        EXPECT_EQ(m_kpi.Get(KPI_SHOP_MODE), "y");
    }
}

TEST_F(KpiManager, NumbersBecomeDecimalText) {
    EXPECT_EQ(m_kpi.m_IntToString(0), "0");
    EXPECT_EQ(m_kpi.m_IntToString(-2147483647 - 1), "-2147483648");
}

TEST_F(KpiManager, AnEventThatIsSentStandsInTheEventLog) {
    EXPECT_TRUE(m_kpi.SendKPI("20_errdata", "ZOL", "EV007", "{a=1;}"));

    std::vector<KPILogFramework::TSKpiEvent> events;
    ASSERT_TRUE(KPILogFramework::CLogger::GetInstance().ListEvents(events));
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].type, "20_errdata");
    EXPECT_EQ(events[0].category, "ZOL");
    EXPECT_EQ(events[0].eventId, "EV007");
    EXPECT_EQ(events[0].description, "{a=1;}");
    ExpectErrors({"sent 19_errdata KPI"});
}

TEST_F(KpiManager, AnEventThatCannotBeSentIsLoggedWithTheReasonOfTheEventLog) {
    fakes::WriteDeviceFile("/var/lib/zol", "a file where the folder should be");

    EXPECT_FALSE(m_kpi.SendKPI("20_errdata", "ZOL", "EV007", "{a=1;}"));

    ExpectErrors({"ERR(-1): could not send event log"});
    EXPECT_EQ(Logged("sent 19_errdata KPI"), 0);
    // It waits for the next one, which is not to be another test's.
    std::filesystem::remove(fakes::Root() + "/var/lib/zol");
    EXPECT_TRUE(m_kpi.SendKPI("20_errdata", "ZOL", "EV007", "{b=1;}"));
}

}  // namespace

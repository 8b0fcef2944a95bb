#include "ZOLKpiManager.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "KPILogFramework.h"
#include "dlog.h"
#include "fake_clock.h"
#include "fake_dlog.h"
#include "fake_runtime_info.h"
#include "fake_vconf.h"
#include "fakes.h"
#include "runtime_info.h"

namespace {

constexpr const char* kHwduidKey = "db/comss/hwduid";
constexpr const char* kTgidFile = "/proc/global_uniqueID";
constexpr const char* kLcidFile = "/proc/life_cycleID";
constexpr const char* kChipFile = "/proc/soq_chipid_val";

class KpiManager : public testing::Test {
protected:
    KpiManager() { fakes::Reset(); }

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

TEST_F(KpiManager, EveryIdentifierIsEmptyAtFirst) {
    for (int index = 0; index < KPI_COUNT; ++index) {
        EXPECT_EQ(m_kpi.Get(index), "") << index;
    }
    EXPECT_EQ(fakes::dlog::Find("TCKpiManager()").priority, -1) << "logged before Reset";
}

TEST_F(KpiManager, ItsConstructionIsLogged) {
    const TCKpiManager another;
    EXPECT_EQ(fakes::dlog::Find("TCKpiManager()").priority, DLOG_PRIORITY_ERROR);
}

TEST_F(KpiManager, AnIndexOutsideTheTableYieldsNull) {
    EXPECT_EQ(m_kpi.Get(8), "NULL");
    EXPECT_EQ(m_kpi.Get(-1), "NULL");
}

TEST_F(KpiManager, AnHwduidOf20CharactersIsCutTo13) {
    fakes::vconf::SetString(kHwduidKey, "ABCDEFGHIJKLMNOPQRST");

    m_kpi.m_GetHWDuid();

    EXPECT_EQ(m_kpi.Get(KPI_HWDUID), "ABCDEFGHIJKLM");
    EXPECT_EQ(fakes::dlog::Find("vconf_get_str(db/comss/hwduid) success").priority, DLOG_PRIORITY_INFO);
}

TEST_F(KpiManager, AMissingHwduidIsNullAndReplacesTheOldOne) {
    fakes::vconf::SetString(kHwduidKey, "OLD");
    m_kpi.m_GetHWDuid();
    fakes::vconf::Unset(kHwduidKey);

    m_kpi.m_GetHWDuid();

    EXPECT_EQ(m_kpi.Get(KPI_HWDUID), "NULL");
    EXPECT_EQ(fakes::dlog::Find("vconf_get_str(db/comss/hwduid) failed").priority, DLOG_PRIORITY_ERROR);
}

TEST_F(KpiManager, TheLineFeedOfATgidFileBelongsToTheTgid) {
    fakes::WriteDeviceFile(kTgidFile, "tg-1\n");

    m_kpi.m_GetTgid();

    EXPECT_EQ(m_kpi.Get(KPI_TGID), "tg-1\n");
    EXPECT_EQ(fakes::clock::SleptUs(), 0U);
}

TEST_F(KpiManager, OfATgidFileOnlyTheFirst36BytesCount) {
    fakes::WriteDeviceFile(kTgidFile, std::string(36, 'a') + "bcd");

    m_kpi.m_GetTgid();

    EXPECT_EQ(m_kpi.Get(KPI_TGID), std::string(36, 'a'));
}

TEST_F(KpiManager, AMissingTgidFileIsTriedThreeTimes) {
    m_kpi.m_GetTgid();

    EXPECT_EQ(m_kpi.Get(KPI_TGID), "NULL");
    for (const char* attempt : {"(1)", "(2)", "(3)"}) {
        const std::string text = std::string("file open failed. again for tgid value ") + attempt;
        EXPECT_EQ(fakes::dlog::Find(text).priority, DLOG_PRIORITY_ERROR);
    }
    EXPECT_EQ(fakes::dlog::Count("file open failed. again"), 3);
    EXPECT_EQ(fakes::clock::SleptUs(), 30000U);
}

TEST_F(KpiManager, AnEmptyTgidFileIsReadThreeTimes) {
    fakes::WriteDeviceFile(kTgidFile, "");

    m_kpi.m_GetTgid();

    EXPECT_EQ(m_kpi.Get(KPI_TGID), "NULL");
    EXPECT_EQ(fakes::dlog::Count("file read failed. try again for tgid value (1)"), 1);
    EXPECT_EQ(fakes::dlog::Count("file read failed. try again for tgid value (3)"), 1);
    EXPECT_EQ(fakes::dlog::Count("file read failed. try again for tgid value"), 3);
    EXPECT_EQ(fakes::clock::SleptUs(), 30000U);
}

TEST_F(KpiManager, ATgidFileThatIsAFolderIsNoTgid) {
    fakes::MakeDeviceFolder(kTgidFile);

    m_kpi.m_GetTgid();

    EXPECT_EQ(m_kpi.Get(KPI_TGID), "NULL");
}

TEST_F(KpiManager, OfALcidFileOnlyTheFirst10BytesCount) {
    fakes::WriteDeviceFile(kLcidFile, "0123456789ab");

    m_kpi.m_GetLcid();

    EXPECT_EQ(m_kpi.Get(KPI_LCID), "0123456789");
}

TEST_F(KpiManager, AMissingLcidFileIsLoggedOnce) {
    m_kpi.m_GetLcid();

    EXPECT_EQ(m_kpi.Get(KPI_LCID), "NULL");
    EXPECT_EQ(fakes::dlog::Count("file open failed"), 1);
}

TEST_F(KpiManager, AnEmptyLcidFileIsLoggedWithItsLineFeed) {
    fakes::WriteDeviceFile(kLcidFile, "");

    m_kpi.m_GetLcid();

    EXPECT_EQ(m_kpi.Get(KPI_LCID), "NULL");
    EXPECT_EQ(fakes::dlog::Find("file read failed\n").priority, DLOG_PRIORITY_ERROR);
}

TEST_F(KpiManager, TheEvidIsTheWallClockInWholeSeconds) {
    fakes::clock::SetWall(1700000123, 999999999);

    m_kpi.m_GetEvid();

    EXPECT_EQ(m_kpi.Get(KPI_EVID), "1700000123");
}

TEST_F(KpiManager, AnEvidAfter2038KeepsItsTenDigits) {
    fakes::clock::SetWall(4102444800, 0);

    m_kpi.m_GetEvid();

    EXPECT_EQ(m_kpi.Get(KPI_EVID), "4102444800");
}

TEST_F(KpiManager, AClockThatCannotBeReadGivesNoEvid) {
    fakes::clock::FailRealtime(true);

    m_kpi.m_GetEvid();

    EXPECT_EQ(m_kpi.Get(KPI_EVID), "NULL");
    EXPECT_EQ(fakes::dlog::Find("gettimeofday() fail").priority, DLOG_PRIORITY_ERROR);
}

TEST_F(KpiManager, TheFourWordsOfAChipIdAreJoinedInUpperCase) {
    fakes::WriteDeviceFile(kChipFile, "0x1 0x2 0xab 0xffffffff\n");

    m_kpi.m_GetChipId();

    EXPECT_EQ(m_kpi.Get(KPI_CHIP_ID), "00000001_00000002_000000AB_FFFFFFFF");
}

TEST_F(KpiManager, MissingWordsOfAChipIdAreZero) {
    fakes::WriteDeviceFile(kChipFile, "0x7");

    m_kpi.m_GetChipId();

    EXPECT_EQ(m_kpi.Get(KPI_CHIP_ID), "00000007_00000000_00000000_00000000");
}

TEST_F(KpiManager, AChipFileThatIsMissingOrHoldsNoNumberGivesNull) {
    m_kpi.m_GetChipId();
    EXPECT_EQ(m_kpi.Get(KPI_CHIP_ID), "NULL");

    for (const char* content : {"", "nonsense", "17"}) {
        fakes::WriteDeviceFile(kChipFile, content);
        m_kpi.m_GetChipId();
        EXPECT_EQ(m_kpi.Get(KPI_CHIP_ID), "NULL") << content;
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

    fakes::runtime_info::Set(RUNTIME_INFO_SHOP_MODE, 1);
    m_kpi.m_IsShopMode();
    EXPECT_EQ(m_kpi.Get(KPI_SHOP_MODE), "y");

    fakes::runtime_info::Set(RUNTIME_INFO_SHOP_MODE, 2);
    m_kpi.m_IsShopMode();
    EXPECT_EQ(m_kpi.Get(KPI_SHOP_MODE), "y");
}

TEST_F(KpiManager, ReadingAllLeavesTheLastFourAlone) {
    fakes::vconf::SetString(kHwduidKey, "HW");
    fakes::WriteDeviceFile(kTgidFile, "tg");
    fakes::WriteDeviceFile(kLcidFile, "lc");
    fakes::WriteDeviceFile(kChipFile, "0x1");

    m_kpi.GetAllInformation();

    EXPECT_EQ(m_kpi.Get(0), "HW");
    EXPECT_EQ(m_kpi.Get(1), "tg");
    EXPECT_EQ(m_kpi.Get(2), "lc");
    EXPECT_EQ(m_kpi.Get(3), "1700000000");
    for (int index = KPI_CHIP_ID; index < KPI_COUNT; ++index) {
        EXPECT_EQ(m_kpi.Get(index), "") << index;
    }
}

TEST_F(KpiManager, NumbersBecomeDecimalText) {
    EXPECT_EQ(m_kpi.m_IntToString(0), "0");
    EXPECT_EQ(m_kpi.m_IntToString(-2147483647 - 1), "-2147483648");
}

TEST_F(KpiManager, AnEventThatIsSentStandsInTheEventLog) {
    std::vector<KPILogFramework::TSKpiEvent> before;
    ASSERT_TRUE(KPILogFramework::CLogger::GetInstance().ListEvents(before));

    EXPECT_TRUE(m_kpi.SendKPI("20_errdata", "ZOL", "EV007", "{a=1;}"));

    std::vector<KPILogFramework::TSKpiEvent> after;
    ASSERT_TRUE(KPILogFramework::CLogger::GetInstance().ListEvents(after));
    ASSERT_EQ(after.size(), before.size() + 1);
    EXPECT_EQ(after.back().type, "20_errdata");
    EXPECT_EQ(after.back().category, "ZOL");
    EXPECT_EQ(after.back().eventId, "EV007");
    EXPECT_EQ(after.back().description, "{a=1;}");
    EXPECT_EQ(fakes::dlog::Find("sent 19_errdata KPI").priority, DLOG_PRIORITY_ERROR);
}

TEST_F(KpiManager, AnEventThatCannotBeSentIsLoggedWithTheReasonOfTheEventLog) {
    fakes::WriteDeviceFile("/var/lib/zol", "a file where the folder should be");

    EXPECT_FALSE(m_kpi.SendKPI("20_errdata", "ZOL", "EV007", "{a=1;}"));

    EXPECT_EQ(fakes::dlog::Find("ERR(-1): could not send event log").priority, DLOG_PRIORITY_ERROR);
    EXPECT_FALSE(fakes::dlog::Has("sent 19_errdata KPI"));
}

}  // namespace

#include "ZOLCVLogger.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "TCDebug.h"
#include "cv/TCScopeHandler.h"
#include "cv/TCTrapPattern.h"
#include "device_paths.h"
#include "device_test.h"
#include "dlog.h"
#include "fake_vconf.h"

namespace {

constexpr const char* kFocus = "memory/boot/dyboost/lumo_onfocus";
constexpr const char* kSelect = "memory/boot/dyboost/lumo_onselect";
constexpr const char* kLaunch = "db/factory/RSC_Launch";
constexpr const char* kForeground = "db/factory/RSC_FG";
constexpr const char* kBackground = "db/factory/RSC_BG";
constexpr const char* kVolume = "file/private/sound/volume/Master";

class UsageLogger : public DeviceTest {
protected:
    UsageLogger() {
        Tracing().Reload();
        Tracing().Clear();
        cv::TCTrapPattern::Instance().Clear();
        Tracing().SetActive(true);
        m_logger = std::make_unique<zol::TCCVLogger>();
    }
    ~UsageLogger() override { Tracing().SetActive(false); }

    static cv::TCScopeHandler& Tracing() { return cv::TCScopeHandler::Instance(); }
    static std::vector<cv::TSEvent> Events() { return Tracing().Items(); }

    static void SetRsc(int launch, int foreground, int background) {
        fakes::vconf::SetInt(kForeground, foreground);
        fakes::vconf::SetInt(kBackground, background);
        fakes::vconf::SetInt(kLaunch, launch);
    }

    std::unique_ptr<zol::TCCVLogger> m_logger;
};

TEST_F(UsageLogger, WatchesItsFiveKeysAndSaysSo) {
    for (const char* key : {kFocus, kSelect, kLaunch, kForeground, kBackground}) {
        EXPECT_EQ(fakes::vconf::Registrations(key), 1) << key;
    }
    EXPECT_EQ(fakes::vconf::Registrations(), 5);

    EXPECT_EQ(fakes::dlog::Lines().size(), 2U);
    ExpectInOrder({"[TCCVLogger] start", "m_LoggingCsfs() end"});
}

TEST_F(UsageLogger, AllItsLinesAreOfPriorityInfo) {
    fakes::vconf::Fail(kFocus, fakes::vconf::FAIL_NOTIFY);
    const zol::TCCVLogger refused;
    fakes::vconf::SetString(kFocus, "tile");
    fakes::vconf::SetString(kSelect, "tile");
    fakes::vconf::Unset(kSelect);
    SetRsc(1, 2, 3);
    fakes::vconf::Unset(kLaunch);
    m_logger->LogVolumeLevel();

    for (const fakes::LogLine& line : fakes::dlog::Lines()) {
        EXPECT_EQ(line.priority, DLOG_PRIORITY_INFO) << line.text;
    }
}

TEST_F(UsageLogger, ItsLinesNameItOnTheSecondChannel) {
    TCDebug::EnableFileLog(true);

    fakes::vconf::SetString(kFocus, "tile");
    m_logger->LogVolumeLevel();

    TCDebug::EnableFileLog(false);
    const std::string log = fakes::ReadDeviceFile("/var/log/zol/debug.log");
    EXPECT_NE(log.find("zol::CVLogger m_ScreenScrollCb("), std::string::npos) << log;
    EXPECT_NE(log.find("zol::CVLogger LogVolumeLevel("), std::string::npos) << log;
}

TEST_F(UsageLogger, ItsCallbacksStayRegisteredWhenItGoesAndReportOn) {
    fakes::dlog::Clear();

    m_logger.reset();
    EXPECT_TRUE(fakes::dlog::Lines().empty());
    fakes::vconf::SetString(kFocus, "late");

    EXPECT_EQ(fakes::vconf::Registrations(), 5);
    EXPECT_EQ(fakes::dlog::Count("late"), 1);
    ASSERT_EQ(Events().size(), 1U);
    EXPECT_EQ(Events()[0].TextOf(Events()[0].items[0]), "late");
}

TEST_F(UsageLogger, AKeyThatCannotBeWatchedIsLoggedAndTheOthersAreWatched) {
    fakes::Reset();
    const std::vector<std::pair<const char*, const char*>> keys{
        {kFocus, "register m_ScreenScrollCb fail"},
        {kSelect, "register m_ScreenSelectCb fail"},
        {kLaunch, "register m_GetRSCCb about VCONFKEY_RSC_LAUNCH fail"},
        {kForeground, "register m_GetRSCCb about VCONFKEY_RSC_FG fail"},
        {kBackground, "register m_GetRSCCb about VCONFKEY_RSC_FG fail"}};  // the foreground's text
    for (const auto& [key, text] : keys) {
        fakes::Reset();
        fakes::vconf::Fail(key, fakes::vconf::FAIL_NOTIFY);

        const zol::TCCVLogger logger;

        EXPECT_EQ(fakes::vconf::Registrations(), 4) << key;
        EXPECT_EQ(fakes::vconf::Registrations(key), 0);
        EXPECT_EQ(Logged(text), 1) << key;
        EXPECT_EQ(Logged("m_LoggingCsfs() end"), 1);
    }
}

TEST_F(UsageLogger, AFocusChangeOrSelectionIsLoggedAndRecordedWithItsText) {
    for (const auto& [key, callback] :
         {std::pair(kFocus, "m_ScreenScrollCb"), {kSelect, "m_ScreenSelectCb"}}) {
        Tracing().Clear();
        fakes::vconf::SetString(key, std::string("%s of ") + key);

        ASSERT_EQ(Events().size(), 1U);
        const cv::TSEvent event = Events()[0];
        EXPECT_STREQ(event.site->function, callback);
        ASSERT_EQ(event.itemCount, 1);
        EXPECT_EQ(event.TextOf(event.items[0]), std::string("%s of ") + key);
        ExpectPlaces(std::string("ZOLCVLogger: ") + callback, {std::string("%s of ") + key});
    }
}

TEST_F(UsageLogger, AChangeOfAnUnsetOrUnreadableFocusKeyLogsThatTheValueIsNullAndRecordsNothing) {
    fakes::vconf::SetString(kFocus, "x");
    Tracing().Clear();

    fakes::vconf::Unset(kFocus);
    EXPECT_EQ(fakes::dlog::Count("value is null"), 1);
    fakes::vconf::SetInt(kFocus, 5);
    EXPECT_EQ(fakes::dlog::Count("value is null"), 2);
    fakes::vconf::Fail(kSelect, fakes::vconf::FAIL_GET);
    fakes::vconf::SetString(kSelect, "x");
    EXPECT_EQ(fakes::dlog::Count("value is null"), 3);

    EXPECT_TRUE(Events().empty());
}

TEST_F(UsageLogger, AnRscChangeIsLoggedAndRecordedWithItsTextAndThreeNumbers) {
    SetRsc(1, -2, 3);

    ASSERT_EQ(Events().size(), 1U);
    const cv::TSEvent event = Events()[0];
    ASSERT_EQ(event.itemCount, 4);
    EXPECT_EQ(event.TextOf(event.items[0]), "Change RSC vconf value");
    EXPECT_EQ(event.items[0].size, 22U);
    const std::vector<std::int64_t> expected = {1, -2, 3};
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(static_cast<std::int64_t>(event.items[i + 1].bits), expected[i]);
        EXPECT_EQ(event.items[i + 1].size, 4U);
    }
    EXPECT_EQ(Logged("iRSC_Launch = 1, iRSC_FG = -2, iRSC_BG = 3"), 1);
}

TEST_F(UsageLogger, EachOfTheThreeRscKeysReportsAllThree) {
    SetRsc(1, 2, 3);
    for (const char* key : {kLaunch, kForeground, kBackground}) {
        Tracing().Clear();
        fakes::vconf::SetInt(key, 9);
        EXPECT_EQ(Events().size(), 1U) << key;
    }
}

TEST_F(UsageLogger, AnRscKeyThatCannotBeReadLogsThatTheValueIsNullAndRecordsNothing) {
    SetRsc(1, 2, 3);
    for (const char* missing : {kLaunch, kForeground, kBackground}) {
        fakes::vconf::Fail(missing, fakes::vconf::FAIL_GET);
        Tracing().Clear();
        fakes::dlog::Clear();

        fakes::vconf::SetInt(kLaunch, 4);

        EXPECT_EQ(fakes::dlog::Count("value is null"), 1) << missing;
        EXPECT_FALSE(fakes::dlog::Has("iRSC_Launch")) << missing;
        EXPECT_TRUE(Events().empty()) << missing;
        fakes::vconf::Fail(missing, fakes::vconf::FAIL_NONE);
    }
}

TEST_F(UsageLogger, ACallbackWithoutNodeOrUserDataDoesNothing) {
    SetRsc(1, 2, 3);
    fakes::vconf::SetString(kFocus, "x");
    fakes::vconf::SetString(kSelect, "x");
    fakes::dlog::Clear();
    Tracing().Clear();
    keynode_t node{kFocus, VCONF_TYPE_STRING, 0, "x"};

    for (const vconf_callback_fn callback :
         {zol::TCCVLogger::m_ScreenScrollCb, zol::TCCVLogger::m_ScreenSelectCb,
          zol::TCCVLogger::m_GetRSCCb}) {
        callback(nullptr, m_logger.get());
        callback(&node, nullptr);
    }

    EXPECT_TRUE(fakes::dlog::Lines().empty());
    EXPECT_TRUE(Events().empty());
}

TEST_F(UsageLogger, TheVolumeLevelOrMinusOneIsRecordedInFourBytesAndLogged) {
    m_logger->LogVolumeLevel();
    fakes::vconf::SetInt(kVolume, 42);
    m_logger->LogVolumeLevel();

    ASSERT_EQ(Events().size(), 2U);
    EXPECT_EQ(static_cast<std::int64_t>(Events()[0].items[0].bits), -1);
    EXPECT_EQ(Events()[1].items[0].bits, 42U);
    EXPECT_EQ(Events()[1].items[0].size, 4U);
    ExpectInOrder({"volume level : -1", "volume level : 42"});
}

TEST_F(UsageLogger, AVolumeOrFocusThatMeetsATrapConditionIsQueued) {
    fakes::WriteDeviceFile(ZOL_PATH_TRAP_CONF,
                           "loud ZOLCVLogger:LogVolumeLevel 0 signed > 80\n"
                           "none ZOLCVLogger:LogVolumeLevel 0 unsigned == 4294967295\n"
                           "text ZOLCVLogger:LogVolumeLevel 0 text == 81\n"
                           "shop ZOLCVLogger:m_ScreenScrollCb 0 text begins store\n");
    ASSERT_EQ(Tracing().Reload(), 4);

    m_logger->LogVolumeLevel();
    for (const int volume : {80, 81}) {
        fakes::vconf::SetInt(kVolume, volume);
        m_logger->LogVolumeLevel();
    }
    fakes::vconf::SetString(kFocus, "home");
    fakes::vconf::SetString(kFocus, "store_tile");

    std::vector<std::string> matches;
    for (const cv::TSTrapMatch& match : cv::TCTrapPattern::Instance().Items()) {
        matches.emplace_back(match.name);
    }
    EXPECT_EQ(matches, (std::vector<std::string>{"none", "loud", "text", "shop"}));
    EXPECT_STREQ(cv::TCTrapPattern::Instance().Items().back().value, "store_tile");
}

TEST_F(UsageLogger, WithTracingInactiveEveryCallbackStillLogsAndRecordsNothing) {
    Tracing().SetActive(false);

    fakes::vconf::SetString(kFocus, "focus_text");
    fakes::vconf::SetString(kSelect, "select_text");
    SetRsc(1, 2, 3);
    m_logger->LogVolumeLevel();

    EXPECT_TRUE(Events().empty());
    ExpectInOrder(
        {"focus_text", "select_text", "iRSC_Launch = 1, iRSC_FG = 2, iRSC_BG = 3", "volume level : -1"});
}

}  // namespace

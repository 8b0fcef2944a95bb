#include "TCDebug.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "device_paths.h"
#include "fake_clock.h"
#include "fake_dlog.h"
#include "fakes.h"
#include "files.h"
#include "waiting.h"

namespace {

namespace fs = std::filesystem;
constexpr std::size_t kHalfLimit = 524288;

class DebugChannel : public testing::Test {
protected:
    DebugChannel() {
        TCDebug::EnableFileLog(false);
        fakes::Reset();
    }
    ~DebugChannel() override {
        TCDebug::EnableFileLog(false);
        TCDebug::EnableConsoleLog(false);
    }

    static void Say(const char* text) { TCDebug::m_instance->External("TCSomeone", "Act", 42, "%s", text); }

    static std::string Host(const std::string& path = ZOL_PATH_DEBUG_LOG) { return fakes::Root() + path; }
    static std::vector<std::string> Lines() { return ReadLines(Host()); }
    /// One line is in the file, and it ends with this.
    static void ExpectOnly(const char* text) {
        EXPECT_THAT(Lines(), testing::ElementsAre(testing::EndsWith(text)));
    }
};

TEST_F(DebugChannel, IsOffUntilSomebodySwitchesItOn) {
    EXPECT_FALSE(TCDebug::m_instance->OutputEnabled());

    Say("unheard");

    EXPECT_FALSE(fakes::DeviceFileExists(ZOL_PATH_DEBUG_LOG));
}

TEST_F(DebugChannel, ALineHoldsDateTimeClassFunctionLineAndMessage) {
    fakes::clock::SetWall(1700000000, 7000000);
    TCDebug::EnableFileLog(true);

    TCDebug::m_instance->External("zol::TCScheduler", "m_Run", 17, "%s %d", "event", 3);

    EXPECT_THAT(Lines(), testing::ElementsAre(testing::MatchesRegex(
                             "20[0-9]{2}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}[.]007 "
                             "zol::TCScheduler m_Run[(]17[)] event 3")));
}

TEST_F(DebugChannel, TheSecondAndThirdByteOfTheObjectAreItsTwoFlags) {
    const auto bytes = [] {
        const auto* raw = reinterpret_cast<const unsigned char*>(TCDebug::m_instance);
        return std::vector<int>(raw, raw + 3);
    };
    EXPECT_EQ(bytes(), (std::vector<int>{1, 0, 0}));

    TCDebug::EnableFileLog(true);
    EXPECT_EQ(bytes(), (std::vector<int>{1, 1, 0}));

    TCDebug::EnableConsoleLog(true);
    EXPECT_EQ(bytes(), (std::vector<int>{1, 1, 1}));
}

TEST_F(DebugChannel, TheConsoleCopyGoesToStandardErrorAndLeavesTheFileAlone) {
    TCDebug::EnableConsoleLog(true);
    testing::internal::CaptureStderr();

    Say("hello");

    EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("TCSomeone Act(42) hello\n"));
    EXPECT_FALSE(fakes::DeviceFileExists(ZOL_PATH_DEBUG_LOG));
}

TEST_F(DebugChannel, AMessageWithLineFeedsStaysOneLine) {
    TCDebug::EnableFileLog(true);

    Say("file read failed\n");
    Say("a\nforged\x1b line\t");

    EXPECT_THAT(Lines(), testing::ElementsAre(testing::EndsWith(") file read failed"),
                                              testing::EndsWith(") a forged  line ")));
}

TEST_F(DebugChannel, ALineThatIsTooLongIsCut) {
    TCDebug::EnableFileLog(true);

    Say(std::string(10000, 'x').c_str());
    Say("after");

    EXPECT_THAT(Lines(), testing::ElementsAre(testing::SizeIs(2303), testing::EndsWith("after")));
}

TEST_F(DebugChannel, AnEarlierFileIsContinued) {
    fakes::WriteDeviceFile(ZOL_PATH_DEBUG_LOG, "before\n");
    TCDebug::EnableFileLog(true);

    Say("after");

    EXPECT_THAT(Lines(), testing::ElementsAre("before", testing::EndsWith("after")));
}

TEST_F(DebugChannel, AFullFileIsSetAsideInPlaceOfTheOneBeforeAndBothStayBelowAMebibyte) {
    TCDebug::EnableFileLog(true);
    const std::string text(2000, 'y');

    for (int i = 0; i < 1200; ++i) {
        Say(text.c_str());
    }

    Files files = ReadFolder(Host(ZOL_PATH_LOG_DIR));
    EXPECT_EQ(files.size(), 2U);
    EXPECT_LE(files["debug.log"].size(), kHalfLimit);
    EXPECT_LE(files["debug.log.1"].size(), kHalfLimit);
    EXPECT_GE(files["debug.log.1"].size(), kHalfLimit - 4096);
}

TEST_F(DebugChannel, SwitchingOnAgainTriesAFileThatCouldNotBeOpened) {
    fakes::MakeDeviceFolder(ZOL_PATH_DEBUG_LOG);
    TCDebug::EnableFileLog(true);
    Say("lost");
    fs::remove(Host());

    Say("lost too");
    EXPECT_FALSE(fakes::DeviceFileExists(ZOL_PATH_DEBUG_LOG));
    TCDebug::EnableFileLog(true);
    Say("kept");

    ExpectOnly("kept");
}

TEST_F(DebugChannel, AFileThatCouldNotBeOpenedIsTriedAgainASecondLater) {
    fakes::MakeDeviceFolder(ZOL_PATH_DEBUG_LOG);
    TCDebug::EnableFileLog(true);
    Say("lost");
    fs::remove(Host());

    fakes::clock::Advance(std::chrono::milliseconds(999));
    Say("lost too");
    EXPECT_FALSE(fakes::DeviceFileExists(ZOL_PATH_DEBUG_LOG));
    fakes::clock::Advance(std::chrono::milliseconds(1));
    Say("kept");

    ExpectOnly("kept");
    EXPECT_EQ(fakes::dlog::Count(ZOL_PATH_DEBUG_LOG), 1);
}

TEST_F(DebugChannel, LinesOfSeveralThreadsStayWhole) {
    TCDebug::EnableFileLog(true);
    OnThreads(4, [](int) {
        for (int line = 0; line < 200; ++line) {
            Say("0123456789abcdef");
        }
    });

    const std::vector<std::string> lines = Lines();
    EXPECT_EQ(lines.size(), 800U);
    EXPECT_THAT(lines, testing::Each(testing::EndsWith("TCSomeone Act(42) 0123456789abcdef")));
}

TEST_F(DebugChannel, AFailedAssertionIsOnThePlatformLogAndInTheFile) {
    TCDebug::EnableFileLog(true);

    TCDebug::Assert("zol/src/ZOLScheduler", 12);

    EXPECT_TRUE(fakes::dlog::Has("ASSERT: [zol/src/ZOLScheduler:12]"));
    ExpectOnly("ASSERT: [zol/src/ZOLScheduler:12]");
}

}  // namespace

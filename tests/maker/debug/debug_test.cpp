#include "TCDebug.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "device_paths.h"
#include "fake_clock.h"
#include "fake_dlog.h"
#include "fakes.h"

namespace {

namespace fs = std::filesystem;
constexpr const char* kOldLog = ZOL_PATH_DEBUG_LOG ".1";
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

    static std::vector<std::string> Lines(const std::string& path = ZOL_PATH_DEBUG_LOG) {
        std::istringstream text(fakes::ReadDeviceFile(path));
        std::vector<std::string> lines;
        for (std::string line; std::getline(text, line);) {
            lines.push_back(line);
        }
        return lines;
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

    ASSERT_EQ(Lines().size(), 1U);
    EXPECT_THAT(Lines()[0],
                testing::MatchesRegex("20[0-9]{2}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}[.]007 "
                                      "zol::TCScheduler m_Run[(]17[)] event 3"));
}

TEST_F(DebugChannel, TheSecondAndThirdByteOfTheObjectAreItsTwoFlags) {
    const auto bytes = [] {
        std::vector<int> flags(3);
        unsigned char raw[3];
        std::memcpy(raw, static_cast<const void*>(TCDebug::m_instance), sizeof(raw));
        flags.assign(raw, raw + 3);
        return flags;
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

    ASSERT_EQ(Lines().size(), 2U);
    EXPECT_THAT(Lines()[0], testing::EndsWith(") file read failed"));
    EXPECT_THAT(Lines()[1], testing::EndsWith(") a forged  line "));
}

TEST_F(DebugChannel, ALineThatIsTooLongIsCut) {
    TCDebug::EnableFileLog(true);

    Say(std::string(10000, 'x').c_str());
    Say("after");

    ASSERT_EQ(Lines().size(), 2U);
    EXPECT_EQ(Lines()[0].size(), 2303U);
    EXPECT_THAT(Lines()[1], testing::EndsWith("after"));
}

TEST_F(DebugChannel, ANewFileIsReadableByOwnerAndGroupOnly) {
    TCDebug::EnableFileLog(true);

    Say("hello");

    struct stat status {};
    ASSERT_EQ(stat((fakes::Root() + ZOL_PATH_DEBUG_LOG).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0137, 0U);
}

TEST_F(DebugChannel, AnEarlierFileIsContinued) {
    fakes::WriteDeviceFile(ZOL_PATH_DEBUG_LOG, "before\n");
    TCDebug::EnableFileLog(true);

    Say("after");

    ASSERT_EQ(Lines().size(), 2U);
    EXPECT_EQ(Lines()[0], "before");
}

TEST_F(DebugChannel, AFullFileIsSetAsideAndTheOneBeforeItIsDropped) {
    fakes::WriteDeviceFile(kOldLog, "oldest\n");
    fakes::WriteDeviceFile(ZOL_PATH_DEBUG_LOG, std::string(kHalfLimit, 'a'));
    TCDebug::EnableFileLog(true);

    Say("fresh");

    EXPECT_EQ(fakes::ReadDeviceFile(kOldLog), std::string(kHalfLimit, 'a'));
    ASSERT_EQ(Lines().size(), 1U);
    EXPECT_THAT(Lines()[0], testing::EndsWith("fresh"));
}

TEST_F(DebugChannel, BothFilesTogetherStayBelowAMebibyte) {
    TCDebug::EnableFileLog(true);
    const std::string text(2000, 'y');

    for (int i = 0; i < 1200; ++i) {
        Say(text.c_str());
    }

    const auto size = [](const std::string& path) { return fs::file_size(fakes::Root() + path); };
    EXPECT_LE(size(ZOL_PATH_DEBUG_LOG), kHalfLimit);
    EXPECT_LE(size(kOldLog), kHalfLimit);
    EXPECT_GE(size(kOldLog), kHalfLimit - 4096);
}

TEST_F(DebugChannel, ALinkInPlaceOfTheFileIsRefusedAndSaidOnce) {
    fakes::WriteDeviceFile("/etc/precious", "keep");
    fakes::MakeDeviceFolder(ZOL_PATH_LOG_DIR);
    fs::create_symlink(fakes::Root() + "/etc/precious", fakes::Root() + ZOL_PATH_DEBUG_LOG);
    TCDebug::EnableFileLog(true);

    Say("one");
    Say("two");

    EXPECT_EQ(fakes::ReadDeviceFile("/etc/precious"), "keep");
    EXPECT_EQ(fakes::dlog::Count("the debug log " ZOL_PATH_DEBUG_LOG " cannot be opened"), 1);
}

TEST_F(DebugChannel, APipeInPlaceOfTheFileDoesNotHangTheWriter) {
    fakes::MakeDeviceFolder(ZOL_PATH_LOG_DIR);
    ASSERT_EQ(mkfifo((fakes::Root() + ZOL_PATH_DEBUG_LOG).c_str(), 0600), 0);
    TCDebug::EnableFileLog(true);

    Say("one");

    EXPECT_EQ(fakes::dlog::Count(ZOL_PATH_DEBUG_LOG), 1);
}

TEST_F(DebugChannel, SwitchingOnAgainTriesAFileThatCouldNotBeOpened) {
    fakes::MakeDeviceFolder(ZOL_PATH_DEBUG_LOG);
    TCDebug::EnableFileLog(true);
    Say("lost");
    fs::remove(fakes::Root() + ZOL_PATH_DEBUG_LOG);

    Say("lost too");
    EXPECT_FALSE(fakes::DeviceFileExists(ZOL_PATH_DEBUG_LOG));
    TCDebug::EnableFileLog(true);
    Say("kept");

    ASSERT_EQ(Lines().size(), 1U);
    EXPECT_THAT(Lines()[0], testing::EndsWith("kept"));
}

TEST_F(DebugChannel, AFileThatCouldNotBeOpenedIsTriedAgainASecondLater) {
    fakes::MakeDeviceFolder(ZOL_PATH_DEBUG_LOG);
    TCDebug::EnableFileLog(true);
    Say("lost");
    fs::remove(fakes::Root() + ZOL_PATH_DEBUG_LOG);

    fakes::clock::Advance(std::chrono::milliseconds(999));
    Say("lost too");
    EXPECT_FALSE(fakes::DeviceFileExists(ZOL_PATH_DEBUG_LOG));
    fakes::clock::Advance(std::chrono::milliseconds(1));
    Say("kept");

    ASSERT_EQ(Lines().size(), 1U);
    EXPECT_THAT(Lines()[0], testing::EndsWith("kept"));
    EXPECT_EQ(fakes::dlog::Count(ZOL_PATH_DEBUG_LOG), 1);
}

TEST_F(DebugChannel, ADeletedFileIsMadeAnewWithItsFolder) {
    TCDebug::EnableFileLog(true);
    Say("gone");
    fs::remove_all(fakes::Root() + ZOL_PATH_LOG_DIR);

    Say("kept");

    ASSERT_EQ(Lines().size(), 1U);
    EXPECT_THAT(Lines()[0], testing::EndsWith("kept"));
}

TEST_F(DebugChannel, LinesOfSeveralThreadsStayWhole) {
    TCDebug::EnableFileLog(true);
    constexpr int kThreads = 4;
    constexpr int kLines = 200;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);

    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([] {
            for (int line = 0; line < kLines; ++line) {
                Say("0123456789abcdef");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    const std::vector<std::string> lines = Lines();
    EXPECT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLines));
    EXPECT_THAT(lines, testing::Each(testing::EndsWith("TCSomeone Act(42) 0123456789abcdef")));
}

TEST_F(DebugChannel, AFailedAssertionIsOnThePlatformLogAndInTheFile) {
    TCDebug::EnableFileLog(true);

    TCDebug::Assert("zol/src/ZOLScheduler", 12);

    EXPECT_TRUE(fakes::dlog::Has("ASSERT: [zol/src/ZOLScheduler:12]"));
    ASSERT_EQ(Lines().size(), 1U);
    EXPECT_THAT(Lines()[0], testing::EndsWith("ASSERT: [zol/src/ZOLScheduler:12]"));
}

}  // namespace

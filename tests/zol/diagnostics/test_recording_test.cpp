#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "TCDebug.h"
#include "ZOLCVLogger.h"
#include "base/unique_fd.h"
#include "cv/TCScopeHandler.h"
#include "dlog.h"
#include "fake_dlog.h"
#include "test_recording_fixture.h"
#include "time_zone.h"

namespace fs = std::filesystem;

namespace {

/// Where the filter of the focus lines gets its last one as soon as the recorder waits for it; negative:
/// nowhere.
std::atomic<int> g_filter{-1};
constexpr int kRecordersWait = 5000;

}  // namespace

/// Stands before the C library's, for the whole test program.
extern "C" int poll(pollfd* descriptors, nfds_t count, int timeout) {
    using Poll = int (*)(pollfd*, nfds_t, int);
    static const auto wait = reinterpret_cast<Poll>(dlsym(RTLD_NEXT, "poll"));
    if (g_filter >= 0 && timeout == kRecordersWait) {
        EXPECT_GT(dprintf(g_filter, "OnFocused at last\n"), 0);
    }
    return wait(descriptors, count, timeout);
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using TestRecording = RecordingFixture;

TEST_F(TestRecording, AStartSetsTheStateFollowsTheLogShowsAToastAndASecondOneDoesNot) {
    std::ofstream(m_stick + "/recorded_scenario.txt") << "old";

    Start();

    EXPECT_EQ(fakes::vconf::GetInt(kStateKey), 1);
    EXPECT_FALSE(fs::exists(m_stick + "/recorded_scenario.txt")) << "of an earlier recording";
    EXPECT_THAT(ToolCalls(), testing::Contains(kStartToast));
    const std::string follower =
        "[TestRecording] StartDlog cmd is dlogutil -v kerneltime CSFS | grep OnFocused > " + m_device +
        "/csfs_log.txt&";
    ExpectInOrder({"[TestRecording] Start recording...",
                   "[TestRecording] value of db/window_system/system_state is 1", follower});

    Start();

    EXPECT_EQ(Logged("[TestRecording] Already recording..."), 1);
    EXPECT_EQ(Logged(follower), 1);
}

TEST_F(TestRecording, AStopWithoutARecordingOnlyLogs) {
    Stop();
    EXPECT_THAT(ToolCalls(), IsEmpty());
    EXPECT_FALSE(fakes::vconf::Exists(kStateKey));
    EXPECT_EQ(Logged("[TestRecording] Recording hasn't been run yet."), 1);

    Start();
    Stop();
    const std::size_t calls = ToolCalls().size();
    Stop();
    EXPECT_EQ(ToolCalls().size(), calls);
    EXPECT_EQ(Logged("[TestRecording] Recording hasn't been run yet."), 2);
}

TEST_F(TestRecording, WithoutAStickNothingIsRecordedButTheToastIsShown) {
    fakes::usb::SetStick("");

    Start();
    Stop();

    EXPECT_FALSE(fakes::vconf::Exists(kStateKey));
    EXPECT_THAT(ToolCalls(), ElementsAre(kStartToast));
    ExpectInOrder({"[TestRecording] failed to get USB device", "[TestRecording] Fail to get USB Path",
                   "[TestRecording] Recording hasn't been run yet."});
}

TEST_F(TestRecording, AStopCapturesTheScreenAndPacksEverything) {
    const TimeZone zone("JST-9");
    Start();
    std::ofstream(m_stick + "/recorded_scenario.txt") << "scenario";
    std::ofstream(m_stick + "/csfs_log.txt") << "focus";

    Stop();

    EXPECT_EQ(fakes::vconf::GetInt(kStateKey), 0);
    ASSERT_EQ(fakes::capture::Requests().size(), 1U);
    const fakes::capture::Request capture = fakes::capture::Requests()[0];
    EXPECT_EQ(capture.file, m_device + "/ScreenCapture/Capturefile_20231115071320");
    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] now time is 20231115071320"));
    EXPECT_EQ(capture.request.width, 960);
    EXPECT_EQ(capture.request.height, 540);
    EXPECT_THAT(std::vector<int>({capture.request.plane, capture.request.rotation, capture.request.format,
                                  capture.request.quality}),
                ElementsAre(3, 0, 1, 100));
    const std::string names = ListArchive();
    for (const char* name :
         {"recorded_scenario.txt", "csfs_log.txt", "dumpCV/", "ScreenCapture/Capturefile_"}) {
        EXPECT_THAT(names, testing::HasSubstr(name));
    }
    EXPECT_THAT(ToolCalls(),
                testing::IsSupersetOf({std::string(kStopToast), std::string("killall dlogutil")}));
}

TEST_F(TestRecording, ItsLinesAreErrorsButTheLastOne) {
    Start();
    Start();
    Stop();
    Stop();
    fakes::usb::SetStick("");
    Start();

    ExpectErrors({"[TestRecording] Start recording...", "value of db/window_system/system_state is 1",
                  "[TestRecording] StartDlog cmd is", "[TestRecording] Already recording...",
                  "[TestRecording] Stop recording...", "value of db/window_system/system_state is 0",
                  "[TestRecording] now time is", "[TestRecording] Recording hasn't been run yet.",
                  "[TestRecording] failed to get USB device", "[TestRecording] Fail to get USB Path"});
    ExpectLogged(DLOG_PRIORITY_INFO, {"[TestRecording] Done making tar file."});
}

TEST_F(TestRecording, WhatItLogsIsThePathOfTheDevice) {
    fs::create_directory(m_stick + "/ScreenCapture");
    fakes::capture::Fail(true);
    Start();
    Stop();

    for (const fakes::LogLine& line : fakes::dlog::Lines()) {
        EXPECT_THAT(line.text, testing::Not(testing::HasSubstr(fakes::Root())));
    }
}

TEST_F(TestRecording, FocusLinesThatAreWrittenAfterTheFollowersEndAreInTheArchive) {
    const std::string killed = fakes::Root() + "/killed";
    const std::string flush = fakes::Root() + "/flush";
    ASSERT_EQ(mkfifo(killed.c_str(), 0600), 0);
    ASSERT_EQ(mkfifo(flush.c_str(), 0600), 0);
    // Both ends, so that none of the tools waits for the other to open it.
    const base::UniqueFd toFilter(open(flush.c_str(), O_RDWR | O_CLOEXEC));
    Tool("dlogutil", "read -r line < '" + killed + "'");
    Tool("killall", "echo > '" + killed + "'");
    Tool("grep", "cat > /dev/null; read -r line < '" + flush + "'; echo \"$line\"");
    fakes::keys::Press(kStart);

    g_filter = toFilter.Get();
    Stop();
    g_filter = -1;

    EXPECT_EQ(Unpack("csfs_log.txt"), "OnFocused at last\n");
    EXPECT_FALSE(fakes::dlog::Has("still being written"));
}

TEST_F(TestRecording, AStopClosesWhatARecordingHoldsOpen) {
    const auto openFiles = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
    Start();
    const auto recording = openFiles();
    Stop();
    EXPECT_EQ(openFiles(), recording - 1) << "the pipe to the focus log's writers";
}

TEST_F(TestRecording, TheStartToastComesAfterTheRecordingHasBegunAndTheStopToastBeforeItEnds) {
    std::ofstream(m_stick + "/recorded_scenario.txt") << "old";
    const std::string note = " >> '" + Calls().string() + "'";
    const std::string scenario = "'" + m_stick + "/recorded_scenario.txt'";
    Tool("dlogutil", ":");
    Tool("app_launcher", "[ -e " + scenario + " ] && echo early" + note + "; echo \"$6\"" + note);
    Start();

    Stop();

    EXPECT_THAT(ToolCalls(),
                ElementsAre("Recording started...", "Recording finishing...", "killall dlogutil"));
}

TEST_F(TestRecording, TheTraceDumpIsSavedWithItsTrapsAndClearedFromTheRecording) {
    cv::TCScopeHandler& tracing = cv::TCScopeHandler::Instance();
    fakes::WriteDeviceFile("/etc/zol/traps.conf", "loud ZOLCVLogger:LogVolumeLevel 0 signed == -1\n");
    ASSERT_EQ(tracing.Reload(), 1);
    tracing.SetActive(true);
    zol::TCCVLogger().LogVolumeLevel();
    tracing.SetActive(false);
    Start();

    Stop();

    const std::string dump = Read(m_stick + "/dumpCV/trace.json");
    EXPECT_THAT(dump, testing::HasSubstr("LogVolumeLevel"));
    EXPECT_THAT(dump, testing::HasSubstr("loud"));
    EXPECT_EQ(fakes::ReadDeviceFile("/tmp/zol/CV_dump/trace.json"), dump);
    EXPECT_THAT(tracing.Items(), IsEmpty());
}

TEST_F(TestRecording, ItAsksForTheTwoCombinationsOnlyAndIgnoresOthers) {
    std::vector<int> wanted(128);
    wanted[95] = 1;
    wanted[96] = 1;
    EXPECT_EQ(fakes::keys::Wanted(), wanted);

    TCTestRecording::keyCombinationHandlerCb(94, nullptr);
    TCTestRecording::keyCombinationHandlerCb(97, nullptr);
    EXPECT_THAT(fakes::dlog::Lines(), IsEmpty());
}

TEST_F(TestRecording, AnOrdinaryPathGivesThePlainTarCommand) {
    Tool("tar", "echo \"tar $*\" >> '" + Calls().string() + "'");
    Start();

    Stop();

    EXPECT_EQ(ToolCalls().back(), "tar -cvzf " + m_stick + "/testrecording.tar.gz -C " + m_stick +
                                      " recorded_scenario.txt -C " + m_stick + " csfs_log.txt -C " + m_stick +
                                      " dumpCV -C " + m_stick + " ScreenCapture");
}

TEST_F(TestRecording, AMountPathIsNeverReadAsShellCode) {
    const std::string marker = fakes::Root() + "/broken-out";
    fs::current_path(fakes::Root());
    Plug("/media/a 'b\" $(touch broken-out) `id` ;& stick");
    Start();
    std::ofstream(m_stick + "/csfs_log.txt") << "focus";

    Stop();

    fs::current_path("/");
    EXPECT_FALSE(fs::exists(marker));
    EXPECT_THAT(ListArchive(), testing::HasSubstr("csfs_log.txt"));
}

TEST_F(TestRecording, CapturesAndDumpsOfAnEarlierRecordingAreReplaced) {
    for (const char* folder : {"/ScreenCapture", "/dumpCV"}) {
        fs::create_directories(m_stick + folder);
        std::ofstream(m_stick + folder + "/old") << "old";
    }
    Start();

    Stop();

    EXPECT_FALSE(fs::exists(m_stick + "/ScreenCapture/old"));
    EXPECT_FALSE(fs::exists(m_stick + "/dumpCV/old"));
}

TEST_F(TestRecording, ItsLinesNameTheKeyInputManagerOnTheSecondChannel) {
    TCDebug::EnableFileLog(true);

    Stop();

    TCDebug::EnableFileLog(false);
    EXPECT_THAT(fakes::ReadDeviceFile("/var/log/zol/debug.log"), testing::HasSubstr("zol::KeyInputManager"));
}

TEST_F(TestRecording, ASecondCallListensAnewAndItsEndEndsListening) {
    m_recording.setKeyCombinationHandler();
    Start();
    EXPECT_TRUE(Recording());
    Stop();
    m_recording.removeKeyCombinationHandler();
    {
        TCTestRecording other;
        other.setKeyCombinationHandler();
        EXPECT_TRUE(fakes::keys::HandlerRegistered());
    }

    EXPECT_FALSE(fakes::keys::HandlerRegistered());
    EXPECT_EQ(fakes::keys::OpenServices(), 0);
}

TEST_F(TestRecording, WithoutTheKeyServiceNothingIsRegistered) {
    m_recording.removeKeyCombinationHandler();
    fakes::keys::FailInitialize(true);

    m_recording.setKeyCombinationHandler();

    EXPECT_FALSE(fakes::keys::HandlerRegistered());
}

TEST_F(TestRecording, ItsTaskTakesNoEventsAndItsEndEndsListening) {
    struct Recorder : TCTestRecording {
        using TCTestRecording::t_OnEvent;
    } recorder;
    EXPECT_FALSE(recorder.t_OnEvent(nullptr));
    ASSERT_TRUE(m_recording.Create());

    m_recording.Destroy();

    EXPECT_FALSE(fakes::keys::HandlerRegistered());
    EXPECT_EQ(Logged("[TCTestRecording] Destroy"), 1);
    ExpectErrors({"[TestRecording] t_OnEvent"});
}

TEST_F(TestRecording, CreatedTwiceOrWhereItsHandlerIsBoundAlreadyItSaysWhichCheckFailed) {
    SurviveAssertions();
    TCTestRecording other;
    TCTestRecording bound;
    ASSERT_TRUE(other.Create());
    ASSERT_TRUE(bound.CCHandler::Create(&other));

    EXPECT_FALSE(other.Create());
    EXPECT_FALSE(bound.Create());

    EXPECT_FALSE(bound.CCTask::FlagCreate());
    EXPECT_EQ(Logged("_CHECK FAIL: zol/src/ZOLTestRecording:45, CCTask::Create(\"ZOLTestRecording\")"), 1);
    EXPECT_EQ(Logged("_CHECK FAIL: zol/src/ZOLTestRecording:46, CCHandler::Create(this)"), 1);
    bound.CCHandler::Destroy();
    other.Destroy();
}

}  // namespace

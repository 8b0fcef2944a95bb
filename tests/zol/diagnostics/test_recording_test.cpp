#include <gmock/gmock.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "TCDebug.h"
#include "fake_clock.h"
#include "fake_dlog.h"
#include "test_recording_fixture.h"
#include "time_zone.h"

namespace fs = std::filesystem;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using TestRecording = RecordingFixture;

TEST_F(TestRecording, AStartSetsTheStateFollowsTheLogAndShowsAToast) {
    Start();

    EXPECT_EQ(fakes::vconf::GetInt(kStateKey), 1);
    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] Start recording..."));
    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] value of db/window_system/system_state is 1"));
    EXPECT_TRUE(
        fakes::dlog::Has("[TestRecording] StartDlog cmd is dlogutil -v kerneltime CSFS | grep OnFocused > " +
                         m_device + "/csfs_log.txt&"));
    EXPECT_THAT(ToolCalls(), testing::Contains(kStartToast));
}

TEST_F(TestRecording, TheScenarioOfAnEarlierRecordingIsRemovedAtTheStart) {
    std::ofstream(m_stick + "/recorded_scenario.txt") << "old";

    Start();

    EXPECT_FALSE(fs::exists(m_stick + "/recorded_scenario.txt"));
}

TEST_F(TestRecording, AStopWithoutARecordingOnlyLogs) {
    Stop();

    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] Recording hasn't been run yet."));
    EXPECT_THAT(ToolCalls(), IsEmpty());
    EXPECT_FALSE(fakes::vconf::Exists(kStateKey));
}

TEST_F(TestRecording, ASecondStartDoesNotRestartTheFocusLog) {
    Start();

    Start();

    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] Already recording..."));
    EXPECT_EQ(fakes::dlog::Count("StartDlog cmd is"), 1);
}

TEST_F(TestRecording, ASecondStopAfterAFinishedRecordingOnlyLogs) {
    Start();
    Stop();
    const std::size_t calls = ToolCalls().size();

    Stop();

    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] Recording hasn't been run yet."));
    EXPECT_EQ(ToolCalls().size(), calls);
}

TEST_F(TestRecording, WithoutAStickNothingIsRecordedButTheToastIsShown) {
    fakes::usb::SetStick("");

    Start();
    Stop();

    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] failed to get USB device"));
    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] Fail to get USB Path"));
    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] Recording hasn't been run yet."));
    EXPECT_FALSE(fakes::vconf::Exists(kStateKey));
    EXPECT_THAT(ToolCalls(), ElementsAre(kStartToast));
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

    for (const char* text :
         {"Start recording...", "value of db/window_system/system_state is 1", "StartDlog cmd is",
          "Already recording...", "Stop recording...", "value of db/window_system/system_state is 0",
          "now time is", "Recording hasn't been run yet.", "failed to get USB device",
          "Fail to get USB Path"}) {
        EXPECT_EQ(fakes::dlog::Find(std::string("[TestRecording] ") + text).priority, 6) << text;
    }
    EXPECT_EQ(fakes::dlog::Find("[TestRecording] Done making tar file.").priority, 4);
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
    // Opening either end of a pipe waits for the other one.
    const std::string hold = fakes::Root() + "/hold";
    ASSERT_EQ(mkfifo(hold.c_str(), 0600), 0);
    Tool("dlogutil", "cat '" + hold + "'; echo OnFocused at last");
    fakes::keys::Press(kStart);
    fakes::clock::SleepAdvances(false);

    std::thread stop(Stop);
    // It waits for the filter behind the follower.
    EXPECT_TRUE(fakes::clock::AwaitSleeper(std::chrono::milliseconds(10)));
    std::ofstream{hold};
    Offspring::AwaitEnd();
    fakes::clock::SleepAdvances(true);
    fakes::clock::Advance(std::chrono::milliseconds(10));
    stop.join();

    EXPECT_EQ(Unpack("csfs_log.txt"), "OnFocused at last\n");
    EXPECT_FALSE(fakes::dlog::Has("still being written"));
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

TEST_F(TestRecording, OtherCombinationsAreIgnored) {
    TCTestRecording::keyCombinationHandlerCb(94, nullptr);
    TCTestRecording::keyCombinationHandlerCb(97, nullptr);

    EXPECT_THAT(fakes::dlog::Lines(), IsEmpty());
}

TEST_F(TestRecording, ItsLinesNameTheKeyInputManagerOnTheSecondChannel) {
    TCDebug::EnableFileLog(true);

    Stop();

    TCDebug::EnableFileLog(false);
    EXPECT_THAT(fakes::ReadDeviceFile("/var/log/zol/debug.log"), testing::HasSubstr("zol::KeyInputManager"));
}

TEST_F(TestRecording, WithoutTheKeyServiceNothingIsRegistered) {
    m_recording.removeKeyCombinationHandler();
    fakes::keys::FailInitialize(true);
    TCTestRecording other;

    other.setKeyCombinationHandler();

    EXPECT_FALSE(fakes::keys::HandlerRegistered());
    fakes::keys::FailInitialize(false);
    m_recording.setKeyCombinationHandler();
}

TEST_F(TestRecording, EventsAreNoneOfItsTasks) {
    struct Recorder : TCTestRecording {
        using TCTestRecording::t_OnEvent;
    } recorder;

    EXPECT_FALSE(recorder.t_OnEvent(nullptr));

    EXPECT_EQ(fakes::dlog::Find("[TestRecording] t_OnEvent").priority, 6);
}

TEST_F(TestRecording, ItsTaskComesAndGoesAndEndsListening) {
    TCTestRecording other;
    ASSERT_TRUE(other.Create());

    other.Destroy();

    EXPECT_FALSE(fakes::keys::HandlerRegistered());
    EXPECT_TRUE(fakes::dlog::Has("[TCTestRecording] Destroy"));
    m_recording.setKeyCombinationHandler();
}

TEST_F(TestRecording, CreatedTwiceItSaysThatItsTaskCannotBe) {
    fakes::WriteDeviceFile("/etc/release", "");  // a failed assertion returns there
    TCTestRecording other;
    ASSERT_TRUE(other.Create());

    EXPECT_FALSE(other.Create());

    EXPECT_TRUE(
        fakes::dlog::Has("_CHECK FAIL: zol/src/ZOLTestRecording:45, CCTask::Create(\"ZOLTestRecording\")"));
    other.Destroy();
    m_recording.setKeyCombinationHandler();
}

TEST_F(TestRecording, WhereItsHandlerIsBoundAlreadyItSaysSoAndItsTaskEnds) {
    fakes::WriteDeviceFile("/etc/release", "");  // a failed assertion returns there
    TCTestRecording other;
    TCTestRecording bound;
    ASSERT_TRUE(other.Create());
    ASSERT_TRUE(bound.CCHandler::Create(&other));

    EXPECT_FALSE(bound.Create());

    EXPECT_TRUE(fakes::dlog::Has("_CHECK FAIL: zol/src/ZOLTestRecording:46, CCHandler::Create(this)"));
    EXPECT_FALSE(bound.CCTask::FlagCreate());
    bound.CCHandler::Destroy();
    other.Destroy();
    m_recording.setKeyCombinationHandler();
}

}  // namespace

#include "ZOLTestRecording.h"

#include <gmock/gmock.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "TCDebug.h"
#include "ZOLShellQuote.h"
#include "fake_clock.h"
#include "fake_diagnostics.h"
#include "fake_dlog.h"
#include "fake_vconf.h"
#include "fakes.h"

namespace fs = std::filesystem;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kStart = 95;
constexpr int kStop = 96;
constexpr const char* kStateKey = "db/window_system/system_state";

constexpr const char* kStartToast =
    "app_launcher -s org.kaldo.alert-syspopup type toast text Recording started... timeout 5";
constexpr const char* kStopToast =
    "app_launcher -s org.kaldo.alert-syspopup type toast text Recording finishing... timeout 10";

/// A tool that runs for as long as its file exists: at the latest the test's end ends it.
const std::string kLingering = "while [ -e \"$0\" ]; do sleep 0.1; done; ";

std::string SearchPath() {
    const char* path = std::getenv("PATH");
    return path != nullptr ? path : "";
}

std::string Read(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

/// The tools that the recorder calls stand in as scripts that note how they were called.
class TestRecording : public testing::Test {
protected:
    TestRecording() : m_path(SearchPath()) {
        fakes::Reset();
        m_tools = fs::path(fakes::Root()) / "tools";
        fs::create_directories(m_tools);
        for (const char* name : {"app_launcher", "dlogutil", "killall"}) {
            Tool(name, "echo \"" + std::string(name) + "${*:+ $*}\" >> '" + Calls().string() + "'");
        }
        setenv("PATH", (m_tools.string() + ":" + m_path).c_str(), 1);
        m_stick = fakes::Root() + "/media/stick";
        Plug(m_stick);
        m_recording.setKeyCombinationHandler();
    }

    ~TestRecording() override {
        // The recording is one of the process: leave it idle for the next test.
        if (Recording()) {
            Plug(m_stick);
            fakes::keys::Press(kStop);
        }
        m_recording.removeKeyCombinationHandler();
        setenv("PATH", m_path.c_str(), 1);
    }

    void Tool(const std::string& name, const std::string& body) const {
        std::ofstream(m_tools / name) << "#!/bin/sh\n" << body << '\n';
        fs::permissions(m_tools / name, fs::perms::all);
    }

    static fs::path Calls() { return fs::path(fakes::Root()) / "calls"; }

    /// The calls of the tools so far, one each.
    static std::vector<std::string> ToolCalls() {
        std::istringstream text(Read(Calls()));
        std::vector<std::string> calls;
        for (std::string line; std::getline(text, line);) {
            calls.push_back(line);
        }
        return calls;
    }

    /// Plugs a stick in that is mounted at this path of the machine; the platform tells the device's path.
    static void Plug(const std::string& mountPath) {
        fs::create_directories(mountPath);
        fakes::usb::SetStick(mountPath.substr(fakes::Root().size()));
    }

    static bool Recording() { return fakes::vconf::GetInt(kStateKey, 0) == 1; }

    /// Names in an archive, as tar lists them.
    static std::string ListArchive(const std::string& archive) {
        const std::string list = fakes::Root() + "/list";
        const std::string command =
            "tar -tzf " + zol::ShellQuote(archive) + " | sort > " + zol::ShellQuote(list);
        EXPECT_EQ(std::system(command.c_str()), 0);
        return Read(list);
    }

    std::string m_path;
    fs::path m_tools;
    std::string m_stick;
    TCTestRecording m_recording;
};

TEST_F(TestRecording, AStartSetsTheStateFollowsTheLogAndShowsAToast) {
    fakes::keys::Press(kStart);

    EXPECT_EQ(fakes::vconf::GetInt(kStateKey), 1);
    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] Start recording..."));
    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] value of db/window_system/system_state is 1"));
    EXPECT_TRUE(
        fakes::dlog::Has("[TestRecording] StartDlog cmd is dlogutil -v kerneltime CSFS | grep OnFocused > " +
                         m_stick + "/csfs_log.txt&"));
    EXPECT_THAT(ToolCalls(), testing::Contains(kStartToast));
}

TEST_F(TestRecording, TheScenarioOfAnEarlierRecordingIsRemovedAtTheStart) {
    std::ofstream(m_stick + "/recorded_scenario.txt") << "old";

    fakes::keys::Press(kStart);

    EXPECT_FALSE(fs::exists(m_stick + "/recorded_scenario.txt"));
}

TEST_F(TestRecording, AStopWithoutARecordingOnlyLogs) {
    fakes::keys::Press(kStop);

    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] Recording hasn't been run yet."));
    EXPECT_THAT(ToolCalls(), IsEmpty());
    EXPECT_FALSE(fakes::vconf::Exists(kStateKey));
}

TEST_F(TestRecording, ASecondStartDoesNotRestartTheFocusLog) {
    fakes::keys::Press(kStart);

    fakes::keys::Press(kStart);

    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] Already recording..."));
    EXPECT_EQ(fakes::dlog::Count("StartDlog cmd is"), 1);
}

TEST_F(TestRecording, ASecondStopAfterAFinishedRecordingOnlyLogs) {
    fakes::keys::Press(kStart);
    fakes::keys::Press(kStop);
    const std::size_t calls = ToolCalls().size();

    fakes::keys::Press(kStop);

    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] Recording hasn't been run yet."));
    EXPECT_EQ(ToolCalls().size(), calls);
}

TEST_F(TestRecording, WithoutAStickNothingIsRecordedButTheToastIsShown) {
    fakes::usb::SetStick("");

    fakes::keys::Press(kStart);
    fakes::keys::Press(kStop);

    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] failed to get USB device"));
    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] Fail to get USB Path"));
    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] Recording hasn't been run yet."));
    EXPECT_FALSE(fakes::vconf::Exists(kStateKey));
    EXPECT_THAT(ToolCalls(), ElementsAre(kStartToast));
}

TEST_F(TestRecording, EveryFailureOfTheUsbServiceIsToldAndTheServiceClosed) {
    fakes::usb::Fail(fakes::usb::FAIL_INIT);
    fakes::keys::Press(kStart);
    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] failed to initialize usb device\n"));

    fakes::usb::Fail(fakes::usb::FAIL_LIST);
    fakes::keys::Press(kStart);
    EXPECT_TRUE(fakes::dlog::Has("[TestRecording]failed to get mass storage list from usb-server\n"));

    fakes::usb::Fail(fakes::usb::FAIL_MOUNTPATH);
    fakes::keys::Press(kStart);
    EXPECT_EQ(fakes::dlog::Count("[TestRecording] Fail to get USB Path"), 3);
    EXPECT_EQ(fakes::usb::OpenServices(), 0);
}

TEST_F(TestRecording, AStateThatCannotBeWrittenStartsNothing) {
    fakes::vconf::Fail(kStateKey, fakes::vconf::FAIL_SET);

    fakes::keys::Press(kStart);
    fakes::keys::Press(kStop);

    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] vconf set failed for : 1"));
    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] Recording hasn't been run yet."));
}

TEST_F(TestRecording, AStopCapturesTheScreenAndPacksEverything) {
    fakes::keys::Press(kStart);
    std::ofstream(m_stick + "/recorded_scenario.txt") << "scenario";
    std::ofstream(m_stick + "/csfs_log.txt") << "focus";

    fakes::keys::Press(kStop);

    EXPECT_EQ(fakes::vconf::GetInt(kStateKey), 0);
    ASSERT_EQ(fakes::capture::Requests().size(), 1U);
    const fakes::capture::Request capture = fakes::capture::Requests()[0];
    EXPECT_EQ(capture.file.rfind(m_stick + "/ScreenCapture/Capturefile_20231114", 0), 0U) << capture.file;
    EXPECT_EQ(capture.request.width, 960);
    EXPECT_EQ(capture.request.height, 540);
    EXPECT_THAT(std::vector<int>({capture.request.plane, capture.request.rotation, capture.request.format,
                                  capture.request.quality}),
                ElementsAre(3, 0, 1, 100));
    const std::string names = ListArchive(m_stick + "/testrecording.tar.gz");
    for (const char* name :
         {"recorded_scenario.txt", "csfs_log.txt", "dumpCV/", "ScreenCapture/Capturefile_"}) {
        EXPECT_THAT(names, testing::HasSubstr(name));
    }
    EXPECT_THAT(ToolCalls(),
                testing::IsSupersetOf({std::string(kStopToast), std::string("killall dlogutil")}));
    EXPECT_EQ(fakes::dlog::Find("[TestRecording] Done making tar file.").priority, 4);
}

TEST_F(TestRecording, FocusLinesThatAreWrittenAfterTheFollowersEndAreInTheArchive) {
    Tool("dlogutil", kLingering + "echo OnFocused at last");
    Tool("killall", "rm '" + (m_tools / "dlogutil").string() + "'");
    fakes::keys::Press(kStart);

    fakes::keys::Press(kStop);

    const std::string unpack = "tar -xzOf " + zol::ShellQuote(m_stick + "/testrecording.tar.gz") +
                               " csfs_log.txt > " + zol::ShellQuote(fakes::Root() + "/unpacked");
    EXPECT_EQ(std::system(unpack.c_str()), 0);
    EXPECT_EQ(Read(fakes::Root() + "/unpacked"), "OnFocused at last\n");
}

TEST_F(TestRecording, AFollowerThatDoesNotEndIsToldAndTheRestIsPacked) {
    Tool("dlogutil", kLingering);
    fakes::keys::Press(kStart);

    fakes::keys::Press(kStop);

    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] the focus log is still being written"));
    EXPECT_THAT(ListArchive(m_stick + "/testrecording.tar.gz"), testing::HasSubstr("dumpCV/"));
}

TEST_F(TestRecording, TheArchiveHoldsWhatExistsWhenTheRestIsMissing) {
    fakes::capture::Fail(true);
    fakes::keys::Press(kStart);
    std::ofstream(m_stick + "/csfs_log.txt") << "focus";

    fakes::keys::Press(kStop);

    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] dc_request_capture_to_file_sync failed"));
    const std::string names = ListArchive(m_stick + "/testrecording.tar.gz");
    EXPECT_THAT(names, testing::HasSubstr("csfs_log.txt"));
    EXPECT_THAT(names, testing::HasSubstr("ScreenCapture/"));
    EXPECT_THAT(names, testing::Not(testing::HasSubstr("recorded_scenario.txt")));
}

TEST_F(TestRecording, AnOrdinaryPathGivesThePlainTarCommand) {
    Tool("tar", "echo \"tar $*\" >> '" + Calls().string() + "'");
    fakes::keys::Press(kStart);

    fakes::keys::Press(kStop);

    EXPECT_EQ(ToolCalls().back(), "tar -cvzf " + m_stick + "/testrecording.tar.gz -C " + m_stick +
                                      " recorded_scenario.txt -C " + m_stick + " csfs_log.txt -C " + m_stick +
                                      " dumpCV -C " + m_stick + " ScreenCapture");
}

TEST_F(TestRecording, AMountPathIsNeverReadAsShellCode) {
    const std::string marker = fakes::Root() + "/broken-out";
    m_stick = fakes::Root() + "/media/a 'b\" $(touch " + "broken-out" + ") `id` ;& stick";
    fs::current_path(fakes::Root());
    Plug(m_stick);
    fakes::keys::Press(kStart);
    std::ofstream(m_stick + "/csfs_log.txt") << "focus";

    fakes::keys::Press(kStop);

    fs::current_path("/");
    EXPECT_FALSE(fs::exists(marker));
    EXPECT_THAT(ListArchive(m_stick + "/testrecording.tar.gz"), testing::HasSubstr("csfs_log.txt"));
}

TEST_F(TestRecording, AStickThatVanishesEndsTheRecordingWithoutAnArchive) {
    fakes::keys::Press(kStart);
    fakes::usb::SetStick("");

    fakes::keys::Press(kStop);

    EXPECT_EQ(fakes::dlog::Count("[TestRecording] Fail to get USB Path"), 2);
    EXPECT_FALSE(fs::exists(m_stick + "/testrecording.tar.gz"));
    // The state could not be told; the recording goes on until there is a stick again.
    EXPECT_EQ(fakes::vconf::GetInt(kStateKey), 1);
}

TEST_F(TestRecording, AStickWithAFolderInTheScenariosPlaceRecordsAllTheSame) {
    // A folder is no file: it is left alone and packed.
    fs::create_directories(m_stick + "/recorded_scenario.txt");

    fakes::keys::Press(kStart);

    EXPECT_TRUE(Recording());
    EXPECT_TRUE(fakes::dlog::Has("StartDlog cmd is"));
}

TEST_F(TestRecording, AShellThatCannotBeAwaitedKeepsTheRecordingActive) {
    fakes::keys::Press(kStart);
    // The kernel reaps the shell by itself then, and waiting for it fails.
    std::signal(SIGCHLD, SIG_IGN);

    fakes::keys::Press(kStop);

    std::signal(SIGCHLD, SIG_DFL);
    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] Fail to run shell"));
    EXPECT_EQ(fakes::vconf::GetInt(kStateKey), 1);
    EXPECT_FALSE(fs::exists(m_stick + "/testrecording.tar.gz"));
}

TEST_F(TestRecording, AToastThatFailsDoesNotKeepTheRecordingFromEnding) {
    Tool("app_launcher", "exit 3");
    fakes::keys::Press(kStart);

    fakes::keys::Press(kStop);

    EXPECT_FALSE(fakes::dlog::Has("[TestRecording] Fail to run shell"));
    EXPECT_EQ(fakes::vconf::GetInt(kStateKey), 0);
    EXPECT_TRUE(fs::exists(m_stick + "/testrecording.tar.gz"));
}

TEST_F(TestRecording, CapturesAndDumpsOfAnEarlierRecordingAreReplaced) {
    for (const char* folder : {"/ScreenCapture", "/dumpCV"}) {
        fs::create_directories(m_stick + folder);
        std::ofstream(m_stick + folder + "/old") << "old";
    }
    fakes::keys::Press(kStart);

    fakes::keys::Press(kStop);

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

    fakes::keys::Press(kStop);

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

TEST_F(TestRecording, OnAStickThatTakesNothingEachFailingStepIsToldAndTheRecordingEnds) {
    // Nobody can make a file there, root neither.
    fs::remove_all(m_stick);
    fs::create_directory_symlink("/proc/self/fdinfo", m_stick);
    fakes::keys::Press(kStart);

    fakes::keys::Press(kStop);

    EXPECT_TRUE(
        fakes::dlog::Has("Failed to create Screen Capture directory! Dir: " + m_stick + "/ScreenCapture/"));
    EXPECT_TRUE(fakes::dlog::Has("the trace dump cannot be saved in"));
    EXPECT_EQ(fakes::vconf::GetInt(kStateKey), 0);
    fs::remove(m_stick);
}

TEST(ShellQuote, OrdinaryPathsStayAsTheyAre) {
    EXPECT_EQ(zol::ShellQuote("/media/usb-1/a_b.txt"), "/media/usb-1/a_b.txt");
}

TEST(ShellQuote, EverythingElseBecomesOneLiteralWord) {
    EXPECT_EQ(zol::ShellQuote(""), "''");
    EXPECT_EQ(zol::ShellQuote("a b"), "'a b'");
    EXPECT_EQ(zol::ShellQuote("a'b"), "'a'\\''b'");
    EXPECT_EQ(zol::ShellQuote("$(x)"), "'$(x)'");
    EXPECT_EQ(zol::ShellQuote("-rf"), "'-rf'");
}

}  // namespace

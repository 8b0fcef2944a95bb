#include <gmock/gmock.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>

#include "dlog.h"
#include "fake_dlog.h"
#include "test_recording_fixture.h"
#include "unprivileged.h"

namespace fs = std::filesystem;

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

using TestRecordingFaults = RecordingFixture;

/// Lets the calling thread make no process any more; false where the system cannot do that.
bool RefuseProcesses() {
#if defined(__NR_vfork) && defined(__NR_fork)
    constexpr auto kFlags = offsetof(seccomp_data, args);
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_vfork, 5, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_fork, 4, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_clone3, 5, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_clone, 0, 3), BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kFlags),
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, CLONE_THREAD, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAGAIN), BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        // The flags of clone3 are out of reach; without it the C library calls clone.
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS)};
    const sock_fprog program{sizeof(code) / sizeof(code[0]), code};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
#else
    return false;
#endif
}

/// While this lives nothing can be removed from a folder, by root neither.
class Protected {
public:
    explicit Protected(const std::string& folder) : m_folder(folder) {
        chmod(m_folder.c_str(), 0555);
        chmod(fakes::Root().c_str(), 0755);
        m_unprivileged.emplace();
    }
    ~Protected() {
        m_unprivileged.reset();
        chmod(m_folder.c_str(), 0755);
    }
    Protected(const Protected&) = delete;
    Protected& operator=(const Protected&) = delete;

private:
    const std::string m_folder;
    std::optional<Unprivileged> m_unprivileged;
};

TEST_F(TestRecordingFaults, EveryFailureOfTheUsbServiceIsToldAndTheServiceClosed) {
    fakes::usb::Fail(fakes::usb::FAIL_INIT);
    Start();
    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] failed to initialize usb device\n"));

    fakes::usb::Fail(fakes::usb::FAIL_LIST);
    Start();
    EXPECT_TRUE(fakes::dlog::Has("[TestRecording]failed to get mass storage list from usb-server\n"));

    fakes::usb::Fail(fakes::usb::FAIL_MOUNTPATH);
    Start();
    EXPECT_EQ(fakes::dlog::Count("[TestRecording] Fail to get USB Path"), 3);
    EXPECT_EQ(fakes::usb::OpenServices(), 0);
}

TEST_F(TestRecordingFaults, AStateThatCannotBeWrittenStartsNothingAndEndsNothing) {
    fakes::vconf::Fail(kStateKey, fakes::vconf::FAIL_SET);
    Start();
    Stop();
    EXPECT_EQ(Logged("[TestRecording] Recording hasn't been run yet."), 1);

    fakes::vconf::Fail(kStateKey, fakes::vconf::FAIL_NONE);
    Start();
    fakes::vconf::Fail(kStateKey, fakes::vconf::FAIL_SET);
    Stop();
    EXPECT_TRUE(Recording());
    EXPECT_TRUE(fs::exists(m_stick + "/testrecording.tar.gz"));

    fakes::vconf::Fail(kStateKey, fakes::vconf::FAIL_NONE);
    Start();
    EXPECT_EQ(Logged("[TestRecording] Already recording..."), 1);
    ExpectErrors({"[TestRecording] vconf set failed for : 1", "[TestRecording] vconf set failed for : 0"});
}

TEST_F(TestRecordingFaults, AFollowerThatDoesNotEndIsToldAndTheRestIsPacked) {
    Tool("dlogutil", kLingering);
    fakes::keys::Press(kStart);

    Stop();

    EXPECT_THAT(ListArchive(), HasSubstr("dumpCV/"));
    EXPECT_EQ(Logged("[TestRecording] the focus log is still being written"), 1);
}

TEST_F(TestRecordingFaults, TheArchiveHoldsWhatExistsWhenTheRestIsMissing) {
    fakes::capture::Fail(true);
    Start();
    std::ofstream(m_stick + "/csfs_log.txt") << "focus";

    Stop();

    const std::string names = ListArchive();
    EXPECT_THAT(names, HasSubstr("csfs_log.txt"));
    EXPECT_THAT(names, HasSubstr("ScreenCapture/"));
    EXPECT_THAT(names, testing::Not(HasSubstr("recorded_scenario.txt")));
    EXPECT_EQ(Logged("[TestRecording] dc_request_capture_to_file_sync failed"), 1);
}

TEST_F(TestRecordingFaults, AStickThatVanishesEndsTheRecordingWithoutAnArchive) {
    Start();
    fakes::usb::SetStick("");

    Stop();

    EXPECT_FALSE(fs::exists(m_stick + "/testrecording.tar.gz"));
    // The state could not be told; the recording goes on until there is a stick again.
    EXPECT_EQ(fakes::vconf::GetInt(kStateKey), 1);
    EXPECT_EQ(fakes::dlog::Count("[TestRecording] Fail to get USB Path"), 2);
}

TEST_F(TestRecordingFaults, AShellThatCannotBeAwaitedKeepsTheRecordingActive) {
    Start();
    // The kernel reaps the shell by itself then, and waiting for it fails.
    std::signal(SIGCHLD, SIG_IGN);

    Stop();

    std::signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(fakes::vconf::GetInt(kStateKey), 1);
    EXPECT_FALSE(fs::exists(m_stick + "/testrecording.tar.gz"));
    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] Fail to run shell"));
}

TEST_F(TestRecordingFaults, AToastThatFailsDoesNotKeepTheRecordingFromEnding) {
    Tool("app_launcher", "exit 3");
    Start();

    Stop();

    EXPECT_EQ(fakes::vconf::GetInt(kStateKey), 0);
    EXPECT_TRUE(fs::exists(m_stick + "/testrecording.tar.gz"));
    EXPECT_FALSE(fakes::dlog::Has("[TestRecording] Fail to run shell"));
}

TEST_F(TestRecordingFaults, OnAStickThatTakesNothingEachFailingStepIsToldAndTheRecordingEnds) {
    // Nobody can make a file there, root neither.
    fs::remove_all(m_stick);
    fs::create_directory_symlink("/proc/self/fdinfo", m_stick);
    Start();

    Stop();

    EXPECT_EQ(fakes::vconf::GetInt(kStateKey), 0);
    EXPECT_TRUE(
        fakes::dlog::Has("Failed to create Screen Capture directory! Dir: " + m_device + "/ScreenCapture/"));
    EXPECT_TRUE(fakes::dlog::Has("the trace dump cannot be saved in"));
    fs::remove(m_stick);
}

TEST_F(TestRecordingFaults, AShellThatCannotBeStartedIsToldByBothToasts) {
    bool refused = false;
    std::thread([&] {
        refused = RefuseProcesses();
        if (refused) {
            Start();
            Stop();
        }
    }).join();
    if (!refused) {
        GTEST_SKIP() << "the system cannot refuse a thread its processes";
    }

    EXPECT_TRUE(Recording());
    EXPECT_THAT(ToolCalls(), IsEmpty());
    EXPECT_EQ(Logged("[TestRecording] Fail to run shell"), 2);
    EXPECT_EQ(Logged("[TestRecording] cannot run \""), 3) << "two toasts and the focus log";
    ExpectErrors({"[TestRecording] Fail to run shell"});
}

TEST_F(TestRecordingFaults, AnOldScenarioOrFocusLogThatCannotBeRemovedKeepsTheFocusLogFromBegin) {
    for (const char* name : {"/recorded_scenario.txt", "/csfs_log.txt"}) {
        std::ofstream(m_stick + name) << "old";
        fakes::dlog::Clear();
        {
            const Protected stick(m_stick);
            Start();
        }

        EXPECT_EQ(Read(m_stick + name), "old");
        EXPECT_TRUE(Recording());
        EXPECT_EQ(Logged("StartDlog cmd is"), 0);
        ExpectErrors({"Failed to remove recorded scenario file! Dir: " + m_device + name});
        Stop();
        fs::remove(m_stick + name);
    }
}

TEST_F(TestRecordingFaults, FoldersThatAreLinksAreToldAndNotFollowed) {
    fakes::WriteDeviceFile("/etc/target/precious", "keep");
    Start();
    for (const char* name : {"/ScreenCapture", "/dumpCV"}) {
        fs::create_directory_symlink(fakes::Root() + "/etc/target", m_stick + name);
    }

    Stop();

    EXPECT_EQ(fakes::ReadDeviceFile("/etc/target/precious"), "keep");
    EXPECT_EQ(std::distance(fs::directory_iterator(fakes::Root() + "/etc/target"), {}), 1);
    EXPECT_THAT(fakes::capture::Requests(), IsEmpty());
    const std::string refused = "Failed to remove Screen Capture directory! Dir: " + m_device;
    ExpectErrors({refused + "/ScreenCapture/", refused + "/dumpCV/"});
}

TEST_F(TestRecordingFaults, LinksThatCameWithTheStickAreReplacedAndNotFollowed) {
    fakes::WriteDeviceFile("/etc/precious", "keep");
    const std::string precious = fakes::Root() + "/etc/precious";
    const std::string unborn = fakes::Root() + "/etc/unborn";
    for (const std::string& target : {precious, unborn, std::string("/dev/full")}) {
        for (const char* name : {"/recorded_scenario.txt", "/csfs_log.txt", "/testrecording.tar.gz"}) {
            fs::remove(m_stick + name);
            fs::create_symlink(target, m_stick + name);
        }
        Start();
        EXPECT_FALSE(fs::is_symlink(m_stick + "/recorded_scenario.txt")) << target;
        Stop();

        EXPECT_EQ(fs::symlink_status(m_stick + "/csfs_log.txt").type(), fs::file_type::regular) << target;
        EXPECT_THAT(ListArchive(), HasSubstr("csfs_log.txt")) << target;
    }
    EXPECT_EQ(fakes::ReadDeviceFile("/etc/precious"), "keep");
    EXPECT_FALSE(fs::exists(unborn));
}

TEST_F(TestRecordingFaults, PipesAndAFolderInTheFilesPlacesHoldNobodyUp) {
    for (const char* name : {"/csfs_log.txt", "/testrecording.tar.gz"}) {
        ASSERT_EQ(mkfifo((m_stick + name).c_str(), 0600), 0);
    }
    fs::create_directories(m_stick + "/recorded_scenario.txt");
    Start();

    Stop();

    EXPECT_THAT(ListArchive(), HasSubstr("csfs_log.txt"));
    EXPECT_THAT(ListArchive(), HasSubstr("recorded_scenario.txt/")) << "left alone: a folder is no file";
}

TEST_F(TestRecordingFaults, ALinkInTheArchivesPlaceThatCannotBeRemovedIsToldAndNothingIsPacked) {
    fakes::WriteDeviceFile("/etc/precious", "keep");
    Start();
    fs::create_symlink(fakes::Root() + "/etc/precious", m_stick + "/testrecording.tar.gz");
    {
        const Protected stick(m_stick);
        Stop();
    }

    EXPECT_TRUE(fakes::dlog::Has("[TestRecording] Failed to remove the old archive! Dir: " + m_device +
                                 "/testrecording.tar.gz"));
    EXPECT_FALSE(fakes::dlog::Has("Done making tar file."));
    EXPECT_EQ(fakes::ReadDeviceFile("/etc/precious"), "keep");
}

TEST_F(TestRecordingFaults, AStickThatVanishesWhileTheRecordingEndsIsNotMadeAnew) {
    Tool("killall", "rm -r '" + m_stick + "'");
    Start();

    Stop();

    EXPECT_FALSE(fs::exists(m_stick));
    EXPECT_TRUE(
        fakes::dlog::Has("Failed to create Screen Capture directory! Dir: " + m_device + "/ScreenCapture/"));
    EXPECT_TRUE(fakes::dlog::Has("the trace dump cannot be saved in " + m_device + "/dumpCV/"));
}

}  // namespace

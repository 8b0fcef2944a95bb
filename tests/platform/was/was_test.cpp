#include "was.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "failing_new.h"
#include "files.h"
#include "gate.h"
#include "log_lines.h"
#include "reports.h"
#include "temporary_folder.h"
#include "was/install_watch.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

void WriteDown(const char* appId, was_notify_event_e event, int value1, int value2, void* userData) {
    EXPECT_EQ(value1, 0);
    EXPECT_EQ(value2, 0);
    static_cast<Reports<std::string>*>(userData)->Add(std::string(appId) + " " + std::to_string(event));
}

/// A registration for "gate" whose callback holds up all events until the gate is opened.
struct GateApp {
    Gate gate;
    std::atomic<bool> left{false};

    static void Callback(const char* /*appId*/, was_notify_event_e /*event*/, int /*value1*/, int /*value2*/,
                         void* userData) {
        auto* self = static_cast<GateApp*>(userData);
        self->gate.Pass();
        self->left = true;
    }
    void Monitor() {
        was_install_status_request request{};
        std::strcpy(request.app_id, "gate");
        request.callback = Callback;
        request.user_data = this;
        ASSERT_EQ(was_monitor_webapp_install_status(request), 0);
    }
};

class WebApps : public testing::Test {
protected:
    WebApps() {
        setenv("XDG_DATA_HOME", (folder.Path() + "/home").c_str(), 1);
        setenv("XDG_DATA_DIRS", (folder.Path() + "/system:" + folder.Path() + "/more").c_str(), 1);
        fs::create_directories(User());
        fs::create_directories(System());
    }
    ~WebApps() override { was_unmonitor_webapp_install_status(WriteDown, &reports); }

    static was_install_status_request Request(const std::string& id, Reports<std::string>& reports) {
        was_install_status_request request{};
        id.copy(request.app_id, sizeof(request.app_id) - 1);
        request.callback = WriteDown;
        request.user_data = &reports;
        return request;
    }
    int Monitor(const std::string& id) { return was_monitor_webapp_install_status(Request(id, reports)); }
    fs::path User() const { return folder.Path() + "/home/applications"; }
    fs::path System() const { return folder.Path() + "/system/applications"; }
    /// As on a machine that never had an application.
    void RemoveFolders() const {
        fs::remove_all(folder.Path() + "/home");
        fs::remove_all(folder.Path() + "/system");
    }
    /// All reports up to an install of "fence", whose monitoring began before.
    std::vector<std::string> UpToFence(std::size_t before) {
        WriteFile(User() / "fence.tmp", "fence");
        fs::rename(User() / "fence.tmp", User() / "fence.desktop");
        std::vector<std::string> all = reports.WaitFor(before + 1);
        EXPECT_EQ(all.back(), "fence 100");
        all.pop_back();
        return all;
    }
    /// More events than the kernel keeps for one watcher.
    void LoseEvents() const {
        int limit = 0;
        std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
        ASSERT_GT(limit, 0);
        WriteFile(System() / "a", "");
        for (int events = 0; events <= limit; events += 4) {
            fs::rename(System() / "a", System() / "b");
            fs::rename(System() / "b", System() / "a");
        }
    }
    void MonitorAppAndFence() {
        ASSERT_EQ(Monitor("app"), 0);
        ASSERT_EQ(Monitor("fence"), 0);
    }

    TemporaryFolder folder;
    PlatformLog log;
    Reports<std::string> reports;
};

TEST_F(WebApps, AFinishedWriteIsOneInstall) {
    MonitorAppAndFence();
    {
        std::ofstream file(User() / "app.desktop");
        for (int i = 0; i < 100; ++i) {
            file << "X-Line=" << i << std::endl;
        }
    }
    EXPECT_THAT(UpToFence(1), ElementsAre("app 100"));
}

TEST_F(WebApps, ARenameOverTheOldFileIsOneInstall) {
    WriteFile(System() / "app.desktop", "old");
    MonitorAppAndFence();

    // As package managers do it: written beside, the old one linked away, then renamed over it.
    WriteFile(System() / "app.desktop.dpkg-new", "new");
    fs::create_hard_link(System() / "app.desktop", System() / "app.desktop.dpkg-tmp");
    fs::rename(System() / "app.desktop.dpkg-new", System() / "app.desktop");
    fs::remove(System() / "app.desktop.dpkg-tmp");
    EXPECT_THAT(reports.WaitFor(1), ElementsAre("app 100"));

    EXPECT_THAT(UpToFence(1), ElementsAre("app 100"));
}

TEST_F(WebApps, ASymbolicLinkIsOneInstallAlsoWhenItIsReplaced) {
    WriteFile(folder.Path() + "/target", "content");
    MonitorAppAndFence();

    fs::create_symlink(folder.Path() + "/target", User() / "app.desktop");
    reports.WaitFor(1);
    fs::create_symlink(folder.Path() + "/target", User() / "app.tmp");
    fs::rename(User() / "app.tmp", User() / "app.desktop");

    EXPECT_THAT(UpToFence(2), ElementsAre("app 100", "app 100"));
}

TEST_F(WebApps, AHardLinkIsOneInstall) {
    WriteFile(User() / "app.source", "content");
    MonitorAppAndFence();

    fs::create_hard_link(User() / "app.source", User() / "app.desktop");

    EXPECT_THAT(UpToFence(1), ElementsAre("app 100"));
}

TEST_F(WebApps, OpeningForWritingWithoutWritingIsNoInstall) {
    WriteFile(User() / "app.desktop", "content");
    MonitorAppAndFence();

    std::ofstream(User() / "app.desktop", std::ios::app).close();

    EXPECT_THAT(UpToFence(0), IsEmpty());
}

TEST_F(WebApps, WritingTheSameContentAgainIsAnInstall) {
    WriteFile(User() / "app.desktop", "content");
    MonitorAppAndFence();
    // File times advance in ticks; the second write must not share one with the first.
    fs::last_write_time(User() / "app.desktop", fs::file_time_type::clock::now() - std::chrono::hours(1));

    WriteFile(User() / "app.desktop", "content");

    EXPECT_THAT(UpToFence(1), ElementsAre("app 100"));
}

TEST_F(WebApps, ARemovalReportsAnotherCode) {
    WriteFile(User() / "app.desktop", "content");
    MonitorAppAndFence();

    fs::remove(User() / "app.desktop");
    EXPECT_THAT(reports.WaitFor(1), ElementsAre("app 200"));
    WriteFile(User() / "app.desktop", "content");
    EXPECT_THAT(reports.WaitFor(2), ElementsAre("app 200", "app 100"));
    fs::rename(User() / "app.desktop", User() / "app.away");

    EXPECT_THAT(UpToFence(3), ElementsAre("app 200", "app 100", "app 200"));
}

TEST_F(WebApps, AnAppThatIsStillInAnotherFolderIsNotGone) {
    WriteFile(User() / "app.desktop", "content");
    WriteFile(System() / "app.desktop", "content");
    MonitorAppAndFence();

    fs::remove(User() / "app.desktop");
    EXPECT_THAT(UpToFence(0), IsEmpty());
    fs::remove(System() / "app.desktop");

    EXPECT_THAT(reports.WaitFor(2), ElementsAre("fence 100", "app 200"));
}

TEST_F(WebApps, APipeOrAFolderInTheEntrysPlaceIsNoInstallAndHoldsNothingUp) {
    MonitorAppAndFence();

    ASSERT_EQ(mkfifo((User() / "app.desktop").c_str(), 0666), 0);
    EXPECT_THAT(UpToFence(0), IsEmpty());
    fs::remove(User() / "app.desktop");
    fs::create_directory(User() / "app.desktop");
    fs::remove(User() / "app.desktop");
    WriteFile(User() / "app.desktop", "content");

    EXPECT_THAT(reports.WaitFor(2), ElementsAre("fence 100", "app 100"));
}

TEST_F(WebApps, APipeInTheFoldersPlaceHoldsNothingUp) {
    RemoveFolders();
    fs::create_directories(User().parent_path());
    ASSERT_EQ(mkfifo(User().c_str(), 0666), 0);
    MonitorAppAndFence();

    fs::remove(User());
    WriteFile(User() / "app.desktop", "content");

    EXPECT_THAT(reports.WaitFor(1), ElementsAre("app 100"));
}

TEST_F(WebApps, FoldersThatAppearLaterAreWatchedToo) {
    RemoveFolders();
    MonitorAppAndFence();

    WriteFile(System() / "app.desktop", "content");
    EXPECT_THAT(reports.WaitFor(1), ElementsAre("app 100"));
    fs::create_directories(User());
    EXPECT_THAT(UpToFence(1), ElementsAre("app 100"));
}

TEST_F(WebApps, AFolderThatComesWithTheAppInItIsOneInstall) {
    RemoveFolders();
    MonitorAppAndFence();
    WriteFile(folder.Path() + "/prepared/applications/app.desktop", "content");

    fs::rename(folder.Path() + "/prepared", folder.Path() + "/more");
    EXPECT_THAT(reports.WaitFor(1), ElementsAre("app 100"));
    fs::create_directories(User());

    EXPECT_THAT(UpToFence(1), ElementsAre("app 100"));
}

TEST_F(WebApps, AFolderThatGoesAwayTakesItsAppsAndIsWatchedAgainWhenItIsBack) {
    WriteFile(System() / "app.desktop", "content");
    MonitorAppAndFence();

    fs::remove_all(folder.Path() + "/system");
    EXPECT_THAT(reports.WaitFor(1), ElementsAre("app 200"));
    WriteFile(System() / "app.desktop", "content");
    EXPECT_THAT(reports.WaitFor(2), ElementsAre("app 200", "app 100"));
    fs::rename(System(), folder.Path() + "/elsewhere");
    EXPECT_THAT(reports.WaitFor(3), ElementsAre("app 200", "app 100", "app 200"));
    fs::rename(folder.Path() + "/elsewhere", System());

    EXPECT_THAT(reports.WaitFor(4), ElementsAre("app 200", "app 100", "app 200", "app 100"));
}

TEST_F(WebApps, OneFolderUnderTwoNamesIsOneFolder) {
    fs::create_directory_symlink(folder.Path() + "/system", folder.Path() + "/more");
    MonitorAppAndFence();

    WriteFile(System() / "app.desktop", "content");
    EXPECT_THAT(reports.WaitFor(1), ElementsAre("app 100"));
    fs::remove(System() / "app.desktop");

    EXPECT_THAT(UpToFence(2), ElementsAre("app 100", "app 200"));
}

TEST_F(WebApps, WhatHappenedWhenEventsWereLostIsToldOnce) {
    fs::create_directory_symlink(folder.Path() + "/system", folder.Path() + "/more");
    MonitorAppAndFence();
    GateApp app;
    app.Monitor();
    WriteFile(System() / "gate.desktop", "content");
    ASSERT_TRUE(app.gate.AwaitArrival());

    // Told before the events are lost; then one that can only be found by looking, and a folder that went.
    WriteFile(System() / "app.desktop", "content");
    LoseEvents();
    fs::rename(User(), folder.Path() + "/away");
    fs::create_directories(User());
    app.gate.Open();

    EXPECT_THAT(reports.WaitFor(1), ElementsAre("app 100"));
    EXPECT_TRUE(log.WaitFor("events of watched folders were lost"));
    EXPECT_THAT(UpToFence(1), ElementsAre("app 100"));
    EXPECT_EQ(was_unmonitor_webapp_install_status(GateApp::Callback, &app), 0);
}

TEST_F(WebApps, OtherFilesAndOtherIdsAreNotTold) {
    MonitorAppAndFence();

    WriteFile(User() / "app", "content");
    WriteFile(User() / "app.desktop.bak", "content");
    WriteFile(User() / "apps.desktop", "content");
    WriteFile(User() / ".desktop", "content");
    fs::create_directory(User() / "app.desktop");

    EXPECT_THAT(UpToFence(0), IsEmpty());
}

TEST_F(WebApps, AnIdThatCouldLeaveTheFoldersIsRefused) {
    for (const char* id : {"", ".", "..", "/", "../app", "a/b", "/etc/passwd"}) {
        EXPECT_LT(Monitor(id), 0) << id;
    }
    was_install_status_request endless = Request("app", reports);
    std::fill(std::begin(endless.app_id), std::end(endless.app_id), 'a');
    EXPECT_LT(was_monitor_webapp_install_status(endless), 0);
    was_install_status_request deaf = Request("app", reports);
    deaf.callback = nullptr;
    EXPECT_LT(was_monitor_webapp_install_status(deaf), 0);
}

TEST_F(WebApps, AnIdOf127CharactersIsWatched) {
    const std::string id(127, 'i');
    ASSERT_EQ(Monitor(id), 0);

    WriteFile(User() / (id + ".desktop"), "content");

    EXPECT_THAT(reports.WaitFor(1), ElementsAre(id + " 100"));
}

TEST_F(WebApps, WithdrawingEndsTheReportsOfThatRegistrationOnly) {
    Reports<std::string> others;
    MonitorAppAndFence();
    ASSERT_EQ(was_monitor_webapp_install_status(Request("app", others)), 0);

    EXPECT_EQ(was_unmonitor_webapp_install_status(WriteDown, &reports), 0);
    EXPECT_EQ(was_unmonitor_webapp_install_status(WriteDown, &reports), -1);
    WriteFile(User() / "app.desktop", "content");

    EXPECT_THAT(others.WaitFor(1), ElementsAre("app 100"));
    EXPECT_THAT(reports.Now(), IsEmpty());
    EXPECT_EQ(was_unmonitor_webapp_install_status(WriteDown, &others), 0);
}

TEST_F(WebApps, WithdrawingWaitsForACallbackThatRuns) {
    GateApp app;
    app.Monitor();
    WriteFile(User() / "gate.desktop", "content");
    ASSERT_TRUE(app.gate.AwaitArrival());

    Reports<int> leaving;
    bool leftBeforeTheEnd = true;
    std::thread withdrawing([&] {
        leaving.Add(1);
        EXPECT_EQ(was_unmonitor_webapp_install_status(GateApp::Callback, &app), 0);
        leftBeforeTheEnd = !app.left;
    });
    leaving.WaitFor(1);
    app.gate.Open();
    withdrawing.join();
    EXPECT_FALSE(leftBeforeTheEnd);
}

TEST_F(WebApps, WithdrawingDuringAStormEndsIt) {
    MonitorAppAndFence();
    Reports<std::string> storm;
    ASSERT_EQ(was_monitor_webapp_install_status(Request("storm", storm)), 0);
    std::atomic<bool> enough{false};
    std::thread writer([&] {
        while (!enough) {
            WriteFile(User() / "storm.tmp", "content");
            fs::rename(User() / "storm.tmp", User() / "storm.desktop");
        }
    });
    storm.WaitFor(1);

    EXPECT_EQ(was_unmonitor_webapp_install_status(WriteDown, &storm), 0);
    const std::size_t told = storm.Now().size();
    WriteFile(User() / "app.desktop", "content");
    EXPECT_THAT(reports.WaitFor(1), ElementsAre("app 100"));
    enough = true;
    writer.join();

    EXPECT_EQ(storm.Now().size(), told);
}

TEST(ApplicationsFolders, TheUsersFolderComesFirstAndRelativeOnesAreIgnored) {
    setenv("XDG_DATA_HOME", "/home/tv/.data/", 1);
    setenv("XDG_DATA_DIRS", "/usr/share:relative::/opt/share/:/usr/share/", 1);
    EXPECT_THAT(
        platform::ApplicationsFolders(),
        ElementsAre("/home/tv/.data/applications", "/usr/share/applications", "/opt/share/applications"));
}

TEST(ApplicationsFolders, TheDefaultsLieBelowTheDeviceRoot) {
    unsetenv("XDG_DATA_HOME");
    unsetenv("XDG_DATA_DIRS");
    setenv("HOME", "/home/tv", 1);
    const std::string root = fs::canonical(std::getenv("ZOL_ROOT")).string();
    EXPECT_THAT(platform::ApplicationsFolders(),
                ElementsAre(root + "/home/tv/.local/share/applications",
                            root + "/usr/local/share/applications", root + "/usr/share/applications"));
}

TEST_F(WebApps, WithoutMemoryARegistrationIsRefusedAndNothingIsThrown) {
    EXPECT_GT(RunShortOfMemory([this] { return Monitor("app") == 0; }), 0);

    ASSERT_EQ(Monitor("fence"), 0);
    EXPECT_THAT(UpToFence(0), IsEmpty());
}

}  // namespace

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

void Write(const fs::path& file, const std::string& content) {
    std::ofstream(file, std::ios::trunc) << content;
}

/// A registration for "gate" whose callback holds up all events until the gate is opened.
struct Gate {
    Reports<int> entered;
    Reports<int> opened;
    std::atomic<bool> left{false};

    static void Callback(const char* /*appId*/, was_notify_event_e /*event*/, int /*value1*/, int /*value2*/,
                         void* userData) {
        auto* self = static_cast<Gate*>(userData);
        self->entered.Add(1);
        self->opened.WaitFor(1);
        self->left = true;
    }
    was_install_status_request Request() {
        was_install_status_request request{};
        std::strcpy(request.app_id, "gate");
        request.callback = Callback;
        request.user_data = this;
        return request;
    }
    void Open() { opened.Add(1); }
};

class WebApps : public testing::Test {
protected:
    WebApps() {
        setenv("XDG_DATA_HOME", (folder.Path() + "/home").c_str(), 1);
        setenv("XDG_DATA_DIRS", (folder.Path() + "/system:" + folder.Path() + "/more").c_str(), 1);
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
    void MakeFolders() const {
        fs::create_directories(User());
        fs::create_directories(System());
    }
    /// All reports up to an install of "fence", whose monitoring began before.
    std::vector<std::string> UpToFence(std::size_t before) {
        Write(User() / "fence.tmp", "fence");
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
        Write(System() / "a", "");
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
    MakeFolders();
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
    MakeFolders();
    Write(System() / "app.desktop", "old");
    MonitorAppAndFence();

    // As package managers do it: written beside, the old one linked away, then renamed over it.
    Write(System() / "app.desktop.dpkg-new", "new");
    fs::create_hard_link(System() / "app.desktop", System() / "app.desktop.dpkg-tmp");
    fs::rename(System() / "app.desktop.dpkg-new", System() / "app.desktop");
    fs::remove(System() / "app.desktop.dpkg-tmp");
    EXPECT_THAT(reports.WaitFor(1), ElementsAre("app 100"));

    EXPECT_THAT(UpToFence(1), ElementsAre("app 100"));
}

TEST_F(WebApps, ASymbolicLinkIsOneInstallAlsoWhenItIsReplaced) {
    MakeFolders();
    Write(folder.Path() + "/target", "content");
    MonitorAppAndFence();

    fs::create_symlink(folder.Path() + "/target", User() / "app.desktop");
    reports.WaitFor(1);
    fs::create_symlink(folder.Path() + "/target", User() / "app.tmp");
    fs::rename(User() / "app.tmp", User() / "app.desktop");

    EXPECT_THAT(UpToFence(2), ElementsAre("app 100", "app 100"));
}

TEST_F(WebApps, AHardLinkIsOneInstall) {
    MakeFolders();
    Write(User() / "app.source", "content");
    MonitorAppAndFence();

    fs::create_hard_link(User() / "app.source", User() / "app.desktop");

    EXPECT_THAT(UpToFence(1), ElementsAre("app 100"));
}

TEST_F(WebApps, OpeningForWritingWithoutWritingIsNoInstall) {
    MakeFolders();
    Write(User() / "app.desktop", "content");
    MonitorAppAndFence();

    std::ofstream(User() / "app.desktop", std::ios::app).close();

    EXPECT_THAT(UpToFence(0), IsEmpty());
}

TEST_F(WebApps, WritingTheSameContentAgainIsAnInstall) {
    MakeFolders();
    Write(User() / "app.desktop", "content");
    MonitorAppAndFence();
    // File times advance in ticks; the second write must not share one with the first.
    fs::last_write_time(User() / "app.desktop", fs::file_time_type::clock::now() - std::chrono::hours(1));

    Write(User() / "app.desktop", "content");

    EXPECT_THAT(UpToFence(1), ElementsAre("app 100"));
}

TEST_F(WebApps, ARemovalReportsAnotherCode) {
    MakeFolders();
    Write(User() / "app.desktop", "content");
    MonitorAppAndFence();

    fs::remove(User() / "app.desktop");
    EXPECT_THAT(reports.WaitFor(1), ElementsAre("app 200"));
    Write(User() / "app.desktop", "content");
    EXPECT_THAT(reports.WaitFor(2), ElementsAre("app 200", "app 100"));
    fs::rename(User() / "app.desktop", User() / "app.away");

    EXPECT_THAT(UpToFence(3), ElementsAre("app 200", "app 100", "app 200"));
}

TEST_F(WebApps, AnAppThatIsStillInAnotherFolderIsNotGone) {
    MakeFolders();
    Write(User() / "app.desktop", "content");
    Write(System() / "app.desktop", "content");
    MonitorAppAndFence();

    fs::remove(User() / "app.desktop");
    EXPECT_THAT(UpToFence(0), IsEmpty());
    fs::remove(System() / "app.desktop");

    EXPECT_THAT(reports.WaitFor(2), ElementsAre("fence 100", "app 200"));
}

TEST_F(WebApps, FoldersThatAppearLaterAreWatchedToo) {
    MonitorAppAndFence();

    fs::create_directories(System());
    Write(System() / "app.desktop", "content");
    EXPECT_THAT(reports.WaitFor(1), ElementsAre("app 100"));
    fs::create_directories(User());
    EXPECT_THAT(UpToFence(1), ElementsAre("app 100"));
}

TEST_F(WebApps, AFolderThatComesWithTheAppInItIsOneInstall) {
    MonitorAppAndFence();
    fs::create_directories(folder.Path() + "/prepared/applications");
    Write(folder.Path() + "/prepared/applications/app.desktop", "content");

    fs::rename(folder.Path() + "/prepared", folder.Path() + "/more");
    EXPECT_THAT(reports.WaitFor(1), ElementsAre("app 100"));
    fs::create_directories(User());

    EXPECT_THAT(UpToFence(1), ElementsAre("app 100"));
}

TEST_F(WebApps, AFolderThatGoesAwayTakesItsAppsAndIsWatchedAgainWhenItIsBack) {
    MakeFolders();
    Write(System() / "app.desktop", "content");
    MonitorAppAndFence();

    fs::remove_all(folder.Path() + "/system");
    EXPECT_THAT(reports.WaitFor(1), ElementsAre("app 200"));
    fs::create_directories(System());
    Write(System() / "app.desktop", "content");
    EXPECT_THAT(reports.WaitFor(2), ElementsAre("app 200", "app 100"));
    fs::rename(System(), folder.Path() + "/elsewhere");
    EXPECT_THAT(reports.WaitFor(3), ElementsAre("app 200", "app 100", "app 200"));
    fs::rename(folder.Path() + "/elsewhere", System());

    EXPECT_THAT(reports.WaitFor(4), ElementsAre("app 200", "app 100", "app 200", "app 100"));
}

TEST_F(WebApps, OneFolderUnderTwoNamesIsOneFolder) {
    MakeFolders();
    fs::create_directory_symlink(folder.Path() + "/system", folder.Path() + "/more");
    MonitorAppAndFence();

    Write(System() / "app.desktop", "content");

    EXPECT_THAT(UpToFence(1), ElementsAre("app 100"));
}

TEST_F(WebApps, AnAppInAFolderWithTwoNamesIsGoneWhenItIsRemoved) {
    MakeFolders();
    fs::create_directory_symlink(folder.Path() + "/system", folder.Path() + "/more");
    Write(System() / "app.desktop", "content");
    MonitorAppAndFence();

    fs::remove(System() / "app.desktop");
    EXPECT_THAT(reports.WaitFor(1), ElementsAre("app 200"));
    Write(System() / "app.desktop", "content");

    EXPECT_THAT(UpToFence(2), ElementsAre("app 200", "app 100"));
}

TEST_F(WebApps, WhatHappenedWhenEventsWereLostIsToldOnce) {
    MakeFolders();
    fs::create_directory_symlink(folder.Path() + "/system", folder.Path() + "/more");
    MonitorAppAndFence();
    Gate gate;
    ASSERT_EQ(was_monitor_webapp_install_status(gate.Request()), 0);
    Write(System() / "gate.desktop", "content");
    gate.entered.WaitFor(1);

    // Told before the events are lost; then one that can only be found by looking, and a folder that went.
    Write(System() / "app.desktop", "content");
    LoseEvents();
    fs::rename(User(), folder.Path() + "/away");
    fs::create_directories(User());
    gate.Open();

    EXPECT_THAT(reports.WaitFor(1), ElementsAre("app 100"));
    EXPECT_TRUE(log.WaitFor("events of watched folders were lost"));
    EXPECT_THAT(UpToFence(1), ElementsAre("app 100"));
    EXPECT_EQ(was_unmonitor_webapp_install_status(Gate::Callback, &gate), 0);
}

TEST_F(WebApps, OtherFilesAndOtherIdsAreNotTold) {
    MakeFolders();
    MonitorAppAndFence();

    Write(User() / "app", "content");
    Write(User() / "app.desktop.bak", "content");
    Write(User() / "apps.desktop", "content");
    Write(User() / ".desktop", "content");
    fs::create_directory(User() / "app.desktop");

    EXPECT_THAT(UpToFence(0), IsEmpty());
}

TEST_F(WebApps, AnIdThatCouldLeaveTheFoldersIsRefused) {
    MakeFolders();
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
    MakeFolders();
    const std::string id(127, 'i');
    ASSERT_EQ(Monitor(id), 0);

    Write(User() / (id + ".desktop"), "content");

    EXPECT_THAT(reports.WaitFor(1), ElementsAre(id + " 100"));
}

TEST_F(WebApps, WithdrawingEndsTheReportsOfThatRegistrationOnly) {
    MakeFolders();
    Reports<std::string> others;
    MonitorAppAndFence();
    ASSERT_EQ(was_monitor_webapp_install_status(Request("app", others)), 0);

    EXPECT_EQ(was_unmonitor_webapp_install_status(WriteDown, &reports), 0);
    EXPECT_EQ(was_unmonitor_webapp_install_status(WriteDown, &reports), -1);
    Write(User() / "app.desktop", "content");

    EXPECT_THAT(others.WaitFor(1), ElementsAre("app 100"));
    EXPECT_THAT(reports.Now(), IsEmpty());
    EXPECT_EQ(was_unmonitor_webapp_install_status(WriteDown, &others), 0);
}

TEST_F(WebApps, WithdrawingWaitsForACallbackThatRuns) {
    MakeFolders();
    Gate gate;
    ASSERT_EQ(was_monitor_webapp_install_status(gate.Request()), 0);
    Write(User() / "gate.desktop", "content");
    gate.entered.WaitFor(1);

    Reports<int> leaving;
    bool leftBeforeTheEnd = true;
    std::thread withdrawing([&] {
        leaving.Add(1);
        EXPECT_EQ(was_unmonitor_webapp_install_status(Gate::Callback, &gate), 0);
        leftBeforeTheEnd = !gate.left;
    });
    leaving.WaitFor(1);
    gate.Open();
    withdrawing.join();
    EXPECT_FALSE(leftBeforeTheEnd);
}

TEST_F(WebApps, WithdrawingDuringAStormEndsIt) {
    MakeFolders();
    MonitorAppAndFence();
    Reports<std::string> storm;
    ASSERT_EQ(was_monitor_webapp_install_status(Request("storm", storm)), 0);
    std::atomic<bool> enough{false};
    std::thread writer([&] {
        while (!enough) {
            Write(User() / "storm.tmp", "content");
            fs::rename(User() / "storm.tmp", User() / "storm.desktop");
        }
    });
    storm.WaitFor(1);

    EXPECT_EQ(was_unmonitor_webapp_install_status(WriteDown, &storm), 0);
    const std::size_t told = storm.Now().size();
    Write(User() / "app.desktop", "content");
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

}  // namespace

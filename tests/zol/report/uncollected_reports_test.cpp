#include "UncollectedReports.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>

#include "base/unique_fd.h"
#include "dlog.h"
#include "fake_dlog.h"
#include "notify_fixture.h"

namespace {

namespace fs = std::filesystem;
using zol::UncollectedReports;

class Uncollected : public NotifyFixture {
protected:
    static constexpr int kLimit = static_cast<int>(UncollectedReports::MAX_FOLDERS);

    static fs::path Host(const std::string& path) { return fakes::Root() + path; }
    static std::string Old(int number) { return "/tmp/zol/old_" + std::to_string(number); }

    static void Age(const std::string& folder, int secondsAfter1970) {
        const timespec times[] = {{secondsAfter1970, 0}, {secondsAfter1970, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, Host(folder).c_str(), times, 0), 0);
    }
    /// A folder with a header of that size that was last changed so long after 1970.
    static void Leave(const std::string& folder, int secondsAfter1970, off_t bytes = 1) {
        fakes::WriteDeviceFile(folder + "/header.json", "");
        const base::UniqueFd file(open(Host(folder + "/header.json").c_str(), O_WRONLY | O_CLOEXEC));
        ASSERT_EQ(posix_fallocate(file.Get(), 0, bytes), 0);
        Age(folder, secondsAfter1970);
    }
    /// Old(first) is the oldest. They are empty.
    static void LeaveMany(int folders, int first = 1) {
        fakes::MakeDeviceFolder("/tmp/zol");
        for (int i = first; i < first + folders; ++i) {
            ASSERT_EQ(mkdir(Host(Old(i)).c_str(), 0755), 0);
            Age(Old(i), i);
        }
    }
    /// A folder left so, on the disk.
    static std::int64_t KibibytesOf(const std::string& folder) {
        std::int64_t blocks = 0;
        for (const char* const file : {"", "/header.json"}) {
            struct stat status {};
            EXPECT_EQ(stat(Host(folder + file).c_str(), &status), 0);
            blocks += status.st_blocks;
        }
        return blocks / 2;  // of 512 bytes
    }
    static int Left() {
        const auto all = fs::directory_iterator(Host("/tmp/zol"));
        return static_cast<int>(std::count_if(begin(all), end(all), [](const fs::directory_entry& entry) {
            return entry.path().filename().string().rfind("old_", 0) == 0;
        }));
    }
};

TEST_F(Uncollected, TheOldestFoldersBeyondTheLimitAreRemovedAndCounted) {
    LeaveMany(kLimit + 3);

    Handle(NOTIFY_ZOL_VCONF);

    EXPECT_EQ(Left(), kLimit);
    EXPECT_FALSE(fs::exists(Host(Old(3))));
    EXPECT_TRUE(fs::exists(Host(Old(4))));
    EXPECT_EQ(fakes::dlog::Find("3 report folders that nobody collected are removed, ").priority,
              DLOG_PRIORITY_ERROR);
    EXPECT_EQ(PublishedPath(), kFolder);
}

TEST_F(Uncollected, TheOldestFoldersBeyondTheBytesAreRemoved) {
    const auto third = static_cast<off_t>(UncollectedReports::MAX_BYTES / 3);
    for (int i = 1; i <= 4; ++i) {
        Leave(Old(i), i, third);
    }
    const std::int64_t kibibytes = 2 * KibibytesOf(Old(1));

    Handle(NOTIFY_ZOL_VCONF);

    EXPECT_EQ(Left(), 2) << "the folders themselves take something, too";
    EXPECT_TRUE(fakes::dlog::Has("2 report folders that nobody collected are removed, " +
                                 std::to_string(kibibytes) + " KiB"));
    EXPECT_TRUE(fs::exists(Host(Old(3))));
    EXPECT_TRUE(fs::exists(Host(Old(4))));
}

TEST_F(Uncollected, FoldersThatAreNotTooManyStay) {
    LeaveMany(kLimit);

    Handle(NOTIFY_ZOL_VCONF);

    EXPECT_EQ(Left(), kLimit);
    EXPECT_FALSE(fakes::dlog::Has("report folders"));
}

TEST_F(Uncollected, WhatIsPublishedOrWaitsInAnyQueueStays) {
    Leave(Old(1), 1);
    fakes::vconf::SetString(kKey, Old(1));
    zol::HandOverQueue queue;
    Leave(Old(2), 2);
    EXPECT_EQ(queue.Offer(Old(2)), zol::HandOverQueue::Offered::WAITING);
    LeaveMany(kLimit + 1, 3);

    Handle(NOTIFY_ZOL_VCONF);

    EXPECT_EQ(Left(), kLimit + 2);
    EXPECT_TRUE(fs::exists(Host(Old(1))));
    EXPECT_TRUE(fs::exists(Host(Old(2))));
    EXPECT_FALSE(fs::exists(Host(Old(3))));
    EXPECT_TRUE(fs::exists(Host(kFolder))) << "its own waits";
}

TEST_F(Uncollected, NothingIsRemovedWhileItIsUnknownWhatIsPublished) {
    LeaveMany(kLimit + 1);
    fakes::vconf::Fail(kKey, fakes::vconf::FAIL_GET);

    Handle(NOTIFY_ZOL_VCONF);

    EXPECT_EQ(Left(), kLimit + 1);
}

TEST_F(Uncollected, OnlyReportFoldersAreRemovedAndNoLinkIsFollowed) {
    fakes::WriteDeviceFile("/etc/precious/file", "kept");
    Leave("/tmp/zol/CV_dump", 1);
    Leave("/tmp/zol/folder", 1);
    fakes::WriteDeviceFile("/tmp/zol/file_1", "kept");
    fs::create_directory_symlink(Host("/etc/precious"), Host("/tmp/zol/link_1"));
    Leave("/tmp/zol/device_NULL", 1);
    fs::create_directory_symlink(Host("/etc/precious"), Host("/tmp/zol/device_NULL/link"));
    LeaveMany(kLimit + 1);
    Age("/tmp/zol/device_NULL", 0);

    Handle(NOTIFY_ZOL_VCONF);

    EXPECT_TRUE(fakes::dlog::Has("2 report folders that nobody collected are removed"));
    EXPECT_FALSE(fs::exists(Host("/tmp/zol/device_NULL")));
    for (const char* path : {"/tmp/zol/CV_dump/header.json", "/tmp/zol/folder/header.json", "/tmp/zol/file_1",
                             "/tmp/zol/link_1", "/etc/precious/file"}) {
        EXPECT_TRUE(fakes::DeviceFileExists(path)) << path;
    }
}

TEST_F(Uncollected, TheFoldersAreLookedAtAgainAfter64Reports) {
    Handle(NOTIFY_ZOL_VCONF);
    LeaveMany(kLimit + 1);
    for (unsigned report = 1; report < UncollectedReports::REPORTS_PER_LOOK; ++report) {
        Handle(NOTIFY_ZOL_VCONF);
    }
    EXPECT_EQ(Left(), kLimit + 1);

    Handle(NOTIFY_ZOL_VCONF);

    EXPECT_EQ(Left(), kLimit);
}

TEST_F(Uncollected, AFolderThatCannotBeRemovedIsToldOf) {
    LeaveMany(kLimit + 2);
    std::string deep = Old(1);
    for (int i = 0; i < 70; ++i) {
        deep += "/d";
    }
    fakes::MakeDeviceFolder(deep);
    Age(Old(1), 1);

    Handle(NOTIFY_ZOL_VCONF);

    EXPECT_TRUE(fakes::dlog::Has("1 report folders that nobody collected are removed, "));
    EXPECT_TRUE(fakes::dlog::Has(", and others cannot be: Too many levels of symbolic links"));
    EXPECT_EQ(Left(), kLimit + 1);
}

}  // namespace

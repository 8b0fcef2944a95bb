#include "TSFileSystem.h"

#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <iterator>
#include <string>

#include "fake_dlog.h"
#include "fakes.h"

namespace {

bool g_isOutOfMemory = false;  // for listings of folders

}  // namespace

extern "C" DIR* fdopendir(int fd) {
    static const auto real = reinterpret_cast<DIR* (*)(int)>(dlsym(RTLD_NEXT, "fdopendir"));
    if (g_isOutOfMemory) {
        errno = ENOMEM;
        return nullptr;
    }
    return real(fd);
}

namespace {

namespace fs = std::filesystem;
constexpr uid_t kStranger = 65534;

class FileSystem : public testing::Test {
protected:
    FileSystem() {
        fakes::Reset();
        chmod(Host("/tmp").c_str(), 01777);
    }

    static std::string Host(const std::string& devicePath) { return fakes::Root() + devicePath; }
    static bool IsRoot() { return geteuid() == 0; }
    static mode_t ModeOf(const std::string& devicePath) {
        struct stat status {};
        return stat(Host(devicePath).c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
    }
};

TEST_F(FileSystem, APathExistsWhateverItIs) {
    fakes::WriteDeviceFile("/tmp/file", "x");
    fs::create_symlink(Host("/tmp/file"), Host("/tmp/link"));

    EXPECT_TRUE(TSFileSystem::Exists("/tmp/file"));
    EXPECT_TRUE(TSFileSystem::Exists("/tmp/link"));
    EXPECT_TRUE(TSFileSystem::Exists("/tmp"));
    EXPECT_FALSE(TSFileSystem::Exists("/tmp/missing"));
    EXPECT_FALSE(TSFileSystem::Exists("/tmp/file/below"));
}

TEST_F(FileSystem, AFolderExistsOnlyWhenItIsAFolder) {
    fakes::WriteDeviceFile("/tmp/file", "x");
    fs::create_directory_symlink(Host("/etc"), Host("/tmp/link"));

    EXPECT_TRUE(TSFileSystem::FolderExists("/tmp/"));
    EXPECT_TRUE(TSFileSystem::FolderExists("/tmp/link"));
    EXPECT_FALSE(TSFileSystem::FolderExists("/tmp/file"));
    EXPECT_FALSE(TSFileSystem::FolderExists("/tmp/missing"));
}

TEST_F(FileSystem, RemovingAFileRemovesALinkAndNotItsTarget) {
    fakes::WriteDeviceFile("/tmp/file", "x");
    fs::create_symlink(Host("/tmp/file"), Host("/tmp/link"));

    EXPECT_TRUE(TSFileSystem::RemoveFile("/tmp/link"));

    EXPECT_TRUE(TSFileSystem::Exists("/tmp/file"));
    EXPECT_FALSE(fs::exists(fs::symlink_status(Host("/tmp/link"))));
}

TEST_F(FileSystem, AFileThatCannotBeRemovedIsLoggedByItsDevicePath) {
    EXPECT_FALSE(TSFileSystem::RemoveFile("/tmp/missing"));
    EXPECT_FALSE(TSFileSystem::RemoveFile("/tmp"));

    EXPECT_EQ(fakes::dlog::Count("cannot remove file /tmp"), 2);
    EXPECT_FALSE(fakes::dlog::Has(fakes::Root()));
}

TEST_F(FileSystem, RemovingAFolderRemovesAllItHoldsAndFollowsNoLink) {
    fakes::WriteDeviceFile("/tmp/zol/a/b/file", "x");
    fakes::WriteDeviceFile("/etc/precious", "keep");
    fs::create_directory_symlink(Host("/etc"), Host("/tmp/zol/a/link"));

    EXPECT_TRUE(TSFileSystem::RemoveFolder("/tmp/zol/"));

    EXPECT_FALSE(TSFileSystem::FolderExists("/tmp/zol"));
    EXPECT_EQ(fakes::ReadDeviceFile("/etc/precious"), "keep");
}

TEST_F(FileSystem, AFolderThatIsALinkIsNotRemovedEvenWithASlashAtItsEnd) {
    fakes::WriteDeviceFile("/etc/precious", "keep");
    fs::create_directory_symlink(Host("/etc"), Host("/tmp/link"));

    EXPECT_FALSE(TSFileSystem::RemoveFolder("/tmp/link/"));
    EXPECT_FALSE(TSFileSystem::RemoveFolder("/tmp/link"));
    EXPECT_FALSE(TSFileSystem::RemoveFolder("/tmp/missing"));

    EXPECT_EQ(fakes::ReadDeviceFile("/etc/precious"), "keep");
    EXPECT_EQ(fakes::dlog::Count("cannot remove folder"), 3);
}

TEST_F(FileSystem, ATreeThatIsTooDeepIsRefusedRatherThanExhaustingTheProcess) {
    std::string path = "/tmp/deep";
    for (int i = 0; i < 70; ++i) {
        path += "/d";
    }
    fakes::MakeDeviceFolder(path);

    EXPECT_FALSE(TSFileSystem::RemoveFolder("/tmp/deep"));

    EXPECT_TRUE(fakes::dlog::Has("cannot remove folder /tmp/deep"));
}

TEST_F(FileSystem, AFolderIsMadeWithItsParentsOnlyWhenAskedTo) {
    EXPECT_FALSE(TSFileSystem::MakeDir("/tmp/zol/one", false));
    EXPECT_FALSE(TSFileSystem::FolderExists("/tmp/zol"));

    EXPECT_TRUE(TSFileSystem::MakeDir("/tmp/zol/one/", true));
    EXPECT_TRUE(TSFileSystem::MakeDir("/tmp/zol/two", false));

    EXPECT_TRUE(TSFileSystem::FolderExists("/tmp/zol/one"));
    EXPECT_TRUE(TSFileSystem::FolderExists("/tmp/zol/two"));
}

TEST_F(FileSystem, AnExistingFolderIsFineAndKeepsItsMode) {
    fakes::MakeDeviceFolder("/tmp/zol");
    fs::permissions(Host("/tmp/zol"), fs::perms(0700));

    EXPECT_TRUE(TSFileSystem::MakeDir("/tmp/zol", true));
    EXPECT_TRUE(TSFileSystem::MakeDir("/", false));

    EXPECT_EQ(ModeOf("/tmp/zol"), 0700U);
}

TEST_F(FileSystem, AFolderThatCannotBeListedStaysAndLeavesNoDescriptorOpen) {
    fakes::WriteDeviceFile("/tmp/folder/file", "x");
    const auto descriptors = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto before = descriptors();

    g_isOutOfMemory = true;
    EXPECT_FALSE(TSFileSystem::RemoveFolder("/tmp/folder"));
    g_isOutOfMemory = false;

    EXPECT_EQ(descriptors(), before);
    EXPECT_TRUE(TSFileSystem::Exists("/tmp/folder/file"));
}

TEST_F(FileSystem, AFolderIsMadeThroughALinkThatOnlyRootCanHaveMade) {
    fakes::MakeDeviceFolder("/opt/data");
    fs::create_directory_symlink("opt/data", Host("/data"));

    EXPECT_TRUE(TSFileSystem::MakeDir("/data/lib/zol", true));

    EXPECT_TRUE(fs::is_directory(Host("/opt/data/lib/zol")));
}

TEST_F(FileSystem, ALinkThatAnybodyCanHaveMadeIsRefusedAndLogged) {
    fs::create_directory_symlink(Host("/etc"), Host("/tmp/zol"));

    EXPECT_FALSE(TSFileSystem::MakeDir("/tmp/zol/report", true));
    EXPECT_FALSE(TSFileSystem::MakeDir("/tmp/zol/", true));

    EXPECT_FALSE(fs::exists(Host("/etc/report")));
    EXPECT_TRUE(fakes::dlog::Has("refusing folder /tmp/zol/report: \"zol\" is a link or not a folder"));
}

TEST_F(FileSystem, AWayOutOfThePathIsRefused) {
    EXPECT_FALSE(TSFileSystem::MakeDir("/tmp/../etc/new", true));
    EXPECT_FALSE(TSFileSystem::MakeDir("tmp/new", true));
    EXPECT_FALSE(TSFileSystem::MakeDir("", true));
    EXPECT_FALSE(TSFileSystem::MakeDir("/tmp/" + std::string(5000, 'x'), true));

    EXPECT_FALSE(fs::exists(Host("/etc/new")));
    EXPECT_EQ(fakes::dlog::Count("refusing folder"), 4);
}

TEST_F(FileSystem, AFolderOfAnotherUserWhereEveryoneMayWriteIsRefused) {
    ASSERT_TRUE(TSFileSystem::MakeDir("/tmp/zol", true));
    if (!IsRoot()) {
        // Only root can give a folder away; what an ordinary user can show is that their own is taken.
        EXPECT_TRUE(TSFileSystem::MakeDir("/tmp/zol/report", true));
        return;
    }
    ASSERT_EQ(chown(Host("/tmp/zol").c_str(), kStranger, kStranger), 0);

    EXPECT_FALSE(TSFileSystem::MakeDir("/tmp/zol/report", true));
    EXPECT_FALSE(TSFileSystem::MakeDir("/tmp/zol", true));

    EXPECT_FALSE(fs::exists(Host("/tmp/zol/report")));
    EXPECT_TRUE(fakes::dlog::Has("refusing folder /tmp/zol/report: \"zol\" belongs to another user"));
}

TEST_F(FileSystem, APathBelowTheDeviceRootIsNotPutBelowItAgain) {
    const std::string folder = fakes::Root() + "/media/stick/ScreenCapture/";

    EXPECT_TRUE(TSFileSystem::MakeDir(folder, true));

    EXPECT_TRUE(TSFileSystem::FolderExists("/media/stick/ScreenCapture"));
    EXPECT_TRUE(TSFileSystem::FolderExists(folder));
}

}  // namespace

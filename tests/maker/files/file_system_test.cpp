#include "TSFileSystem.h"

#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

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

class FileSystem : public testing::Test {
protected:
    FileSystem() {
        fakes::Reset();
        chmod(Host("/tmp").c_str(), 01777);
    }

    static std::string Host(const std::string& devicePath) { return fakes::Root() + devicePath; }
    static bool Exists(const std::string& path) { return TSFileSystem::Exists(path); }
    static bool FolderExists(const std::string& path) { return TSFileSystem::FolderExists(path); }
    static void LinkFolder(const std::string& target, const std::string& link) {
        fs::create_directory_symlink(Host(target), Host(link));
    }
};

TEST_F(FileSystem, APathExistsWhateverItIsAndAFolderOnlyAsAFolder) {
    fakes::WriteDeviceFile("/tmp/file", "x");
    LinkFolder("/tmp/file", "/tmp/to-file");
    LinkFolder("/etc", "/tmp/to-folder");

    for (const char* path : {"/tmp/file", "/tmp/to-file", "/tmp/missing", "/tmp/file/below"}) {
        EXPECT_FALSE(FolderExists(path)) << path;
        EXPECT_EQ(Exists(path), fs::exists(Host(path))) << path;
    }
    for (const char* path : {"/tmp/", "/tmp/to-folder"}) {
        EXPECT_TRUE(FolderExists(path)) << path;
        EXPECT_TRUE(Exists(path)) << path;
    }
}

TEST_F(FileSystem, RemovingAFileRemovesALinkAndNotItsTarget) {
    fakes::WriteDeviceFile("/tmp/file", "x");
    fs::create_symlink(Host("/tmp/file"), Host("/tmp/link"));

    EXPECT_TRUE(TSFileSystem::RemoveFile("/tmp/link"));

    EXPECT_TRUE(Exists("/tmp/file"));
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
    LinkFolder("/etc", "/tmp/zol/a/link");

    EXPECT_TRUE(TSFileSystem::RemoveFolder("/tmp/zol/"));

    EXPECT_FALSE(FolderExists("/tmp/zol"));
    EXPECT_EQ(fakes::ReadDeviceFile("/etc/precious"), "keep");
}

TEST_F(FileSystem, AFolderThatIsALinkIsNotRemovedEvenWithASlashAtItsEnd) {
    fakes::WriteDeviceFile("/etc/precious", "keep");
    LinkFolder("/etc", "/tmp/link");

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
    EXPECT_FALSE(FolderExists("/tmp/zol"));

    EXPECT_TRUE(TSFileSystem::MakeDir("/tmp/zol/one/", true));
    EXPECT_TRUE(TSFileSystem::MakeDir("/tmp/zol/two", false));

    EXPECT_TRUE(FolderExists("/tmp/zol/one"));
    EXPECT_TRUE(FolderExists("/tmp/zol/two"));
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
    EXPECT_TRUE(Exists("/tmp/folder/file"));
}

TEST_F(FileSystem, ALinkThatAnybodyCanHaveMadeIsRefusedAndLogged) {
    LinkFolder("/etc", "/tmp/zol");

    EXPECT_FALSE(TSFileSystem::MakeDir("/tmp/zol/report", true));
    EXPECT_FALSE(TSFileSystem::MakeDir("/tmp/zol/", true));

    EXPECT_FALSE(fs::exists(Host("/etc/report")));
    EXPECT_TRUE(fakes::dlog::Has("refusing folder /tmp/zol/report: \"zol\" is a link or not a folder"));
}

TEST_F(FileSystem, AWayOutOfThePathIsRefused) {
    for (const std::string& path : {std::string("/tmp/../etc/new"), std::string("tmp/new"), std::string(),
                                    "/tmp/" + std::string(5000, 'x')}) {
        EXPECT_FALSE(TSFileSystem::MakeDir(path, true));
    }

    EXPECT_FALSE(fs::exists(Host("/etc/new")));
    EXPECT_EQ(fakes::dlog::Count("refusing folder"), 4);
}

TEST_F(FileSystem, APathBelowTheDeviceRootIsNotPutBelowItAgain) {
    const std::string folder = fakes::Root() + "/media/stick/ScreenCapture/";

    EXPECT_TRUE(TSFileSystem::MakeDir(folder, true));

    EXPECT_TRUE(FolderExists("/media/stick/ScreenCapture"));
    EXPECT_TRUE(FolderExists(folder));
}

}  // namespace

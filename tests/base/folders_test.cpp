#include "base/folders.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "files.h"
#include "temporary_folder.h"

namespace {

namespace fs = std::filesystem;
using base::Make;
using base::OpenedFolder;

constexpr uid_t kStranger = 65534;

/// A device's root: /var and /opt are protected, everyone may write to /tmp.
class Folders : public testing::Test {
protected:
    Folders() {
        for (const char* folder : {"/var", "/opt", "/tmp"}) {
            fs::create_directory(Host(folder));
            chmod(Host(folder).c_str(), 0755);
        }
        chmod(Host("/tmp").c_str(), 01777);
    }

    std::string Host(const std::string& path) const { return m_root.Path() + path; }
    OpenedFolder Open(const std::string& path, Make make = Make::All) const {
        return base::OpenFolder(Host("/"), Host(path), make);
    }
    void Link(const std::string& target, const std::string& path) const {
        fs::remove(Host(path));
        fs::create_symlink(target, Host(path));
    }
    static bool IsRoot() { return geteuid() == 0; }

    const TemporaryFolder m_root;
};

TEST_F(Folders, AreMadeAsFarAsAsked) {
    EXPECT_EQ(Open("/var/lib/zol", Make::Last).error, std::errc::no_such_file_or_directory);
    EXPECT_EQ(Open("/var/lib", Make::Nothing).error, std::errc::no_such_file_or_directory);
    EXPECT_FALSE(fs::exists(Host("/var/lib")));

    const OpenedFolder made = Open("/var/lib//./zol/");
    EXPECT_FALSE(made.error) << made.error.message();
    EXPECT_EQ(made.path, Host("/var/lib/zol"));
    EXPECT_EQ(mkdirat(made.fd.Get(), "below", 0755), 0);
    EXPECT_TRUE(fs::is_directory(Host("/var/lib/zol/below")));
    EXPECT_FALSE(Open("/var/lib/zol/last", Make::Last).error);
    EXPECT_FALSE(Open("/var/lib/zol/last", Make::Nothing).error);
    EXPECT_EQ(Open("/").path, Host("/"));
}

TEST_F(Folders, MayBeReadByEveryoneWhateverTheUmaskAndKeepTheirModeLater) {
    const mode_t before = umask(077);
    const OpenedFolder made = Open("/var/lib/zol");
    umask(before);
    EXPECT_EQ(ModeOf(Host("/var/lib")), 0755U);
    EXPECT_EQ(ModeOf(Host("/var/lib/zol")), 0755U);

    chmod(Host("/var/lib/zol").c_str(), 0700);
    EXPECT_FALSE(Open("/var/lib/zol").error);
    EXPECT_EQ(ModeOf(Host("/var/lib/zol")), 0700U);
}

TEST_F(Folders, AreReachedThroughALinkOfTheImage) {
    for (const char* target : {"opt/var", "/opt/var", "./opt/../opt//var/", "../../opt/var"}) {
        fs::remove_all(Host("/opt/var"));
        Link(target, "/var");
        const OpenedFolder folder = Open("/var/lib/zol");
        EXPECT_FALSE(folder.error) << target << ": " << folder.refused;
        EXPECT_EQ(folder.path, Host("/opt/var/lib/zol")) << target;
        EXPECT_TRUE(fs::is_directory(Host("/opt/var/lib/zol"))) << target;
    }
}

TEST_F(Folders, AreReachedThroughLinksOneAfterAnother) {
    Link("opt/var", "/var");
    fs::create_directories(Host("/opt/var"));
    fs::create_symlink("volatile/log", Host("/opt/var/log"));
    fs::create_symlink("../../opt/run", Host("/opt/var/volatile"));
    EXPECT_EQ(Open("/var/log/zol").path, Host("/opt/run/log/zol"));
}

TEST_F(Folders, AreReachedThroughALinkThatNamesTheRootItself) {
    Link(Host("/opt/var"), "/var");
    EXPECT_EQ(Open("/var/lib").path, Host("/opt/var/lib"));
}

TEST_F(Folders, NeverLieOutsideTheRoot) {
    const TemporaryFolder outside;
    Link("../../../../../../.." + outside.Path(), "/var");
    EXPECT_EQ(Open("/var/lib").path, Host(outside.Path() + "/lib"));
    EXPECT_FALSE(fs::exists(outside.Path() + "/lib"));
}

TEST_F(Folders, AreNotReachedThroughACircleOfLinks) {
    Link("opt/var", "/var");
    fs::create_symlink("../var", Host("/opt/var"));
    const OpenedFolder folder = Open("/var/lib");
    EXPECT_FALSE(folder.fd);
    EXPECT_EQ(folder.error, std::errc::too_many_symbolic_link_levels);
    EXPECT_EQ(folder.refused.find("\"v"), 0U) << folder.refused;
}

TEST_F(Folders, AreNotReachedThroughALinkWhereOthersMayWrite) {
    for (const mode_t mode : {01777, 0777, 0775}) {
        chmod(Host("/tmp").c_str(), mode);
        Link("../opt", "/tmp/zol");
        const OpenedFolder folder = Open("/tmp/zol/report");
        EXPECT_FALSE(folder.fd);
        EXPECT_EQ(folder.error, std::errc::not_a_directory);
        EXPECT_EQ(folder.refused, "\"zol\" is a link or not a folder");
        EXPECT_EQ(Open("/tmp/zol").error, std::errc::not_a_directory);
    }
    Link("../opt/absent", "/tmp/zol");
    EXPECT_EQ(Open("/tmp/zol").error, std::errc::not_a_directory);
    EXPECT_TRUE(fs::is_empty(Host("/opt")));
}

TEST_F(Folders, AreNotReachedThroughALinkOfAStranger) {
    if (!IsRoot()) {
        GTEST_SKIP() << "only root can give a link away";
    }
    Link("opt", "/var");
    ASSERT_EQ(lchown(Host("/var").c_str(), kStranger, kStranger), 0);
    EXPECT_EQ(Open("/var/lib").error, std::errc::not_a_directory);

    Link("opt", "/var");
    ASSERT_EQ(chown(m_root.Path().c_str(), kStranger, kStranger), 0);
    EXPECT_EQ(Open("/var/lib").error, std::errc::not_a_directory);
    EXPECT_TRUE(fs::is_empty(Host("/opt")));
}

TEST_F(Folders, OfAStrangerAreRefusedOnlyWhereEveryoneMayWrite) {
    if (!IsRoot()) {
        GTEST_SKIP() << "only root can give a folder away";
    }
    for (const char* folder : {"/tmp/zol", "/var/zol"}) {
        fs::create_directory(Host(folder));
        ASSERT_EQ(chown(Host(folder).c_str(), kStranger, kStranger), 0);
    }
    const OpenedFolder planted = Open("/tmp/zol/report");
    EXPECT_EQ(planted.error, std::errc::operation_not_permitted);
    EXPECT_EQ(planted.refused, "\"zol\" belongs to another user");
    EXPECT_FALSE(fs::exists(Host("/tmp/zol/report")));
    EXPECT_FALSE(Open("/var/zol/sub").error);
}

TEST_F(Folders, OfAnOrdinaryUserMayBeLinkedByThatUser) {
    const uid_t self = geteuid();
    const uid_t user = IsRoot() ? kStranger : self;
    constexpr auto kSameGroup = static_cast<gid_t>(-1);
    for (const char* path : {"", "/opt"}) {
        ASSERT_EQ(chown(Host(path).c_str(), user, kSameGroup), 0);
    }
    Link("opt", "/var");
    ASSERT_EQ(lchown(Host("/var").c_str(), user, kSameGroup), 0);
    ASSERT_EQ(seteuid(user), 0);
    const OpenedFolder mine = Open("/var/lib");
    ASSERT_EQ(seteuid(self), 0);
    EXPECT_EQ(mine.path, Host("/opt/lib")) << mine.refused;
}

TEST_F(Folders, AreNotMadeInPlaceOfAFile) {
    WriteFile(Host("/var/file"), "x");
    EXPECT_EQ(Open("/var/file").refused, "\"file\" is a link or not a folder");
    EXPECT_EQ(Open("/var/file/below").error, std::errc::not_a_directory);
}

TEST_F(Folders, HaveAnAbsolutePathBelowTheRootWithoutAWayBack) {
    for (const std::string& path :
         {Host("/var/../opt"), std::string("var"), std::string(), "/x" + Host("/var")}) {
        const OpenedFolder folder = base::OpenFolder(Host("/"), path, Make::All);
        EXPECT_EQ(folder.error, std::errc::invalid_argument) << path;
        EXPECT_NE(folder.refused, "") << path;
    }
}

TEST_F(Folders, AreSyncedByTheirOwnPathOrByThatOfAnEntry) {
    EXPECT_FALSE(base::SyncFolder(Host("/var")));
    EXPECT_FALSE(base::SyncFolderOf(Host("/var/missing")));
    EXPECT_FALSE(base::SyncFolderOf(Host("/var/missing/")));
    EXPECT_FALSE(base::SyncFolderOf("here"));
    EXPECT_EQ(base::SyncFolder(Host("/var/missing")), std::errc::no_such_file_or_directory);
    EXPECT_EQ(base::SyncFolderOf(Host("/missing/file")), std::errc::no_such_file_or_directory);
}

}  // namespace

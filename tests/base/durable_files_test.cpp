#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "base/atomic_file.h"
#include "base/set_aside.h"
#include "full_disk.h"
#include "temporary_folder.h"

namespace {

namespace fs = std::filesystem;

class DurableFiles : public testing::Test {
protected:
    std::string Path(const std::string& name = "file") const { return m_folder.Path() + "/" + name; }
    void Write(const std::string& name, const std::string& text) const { std::ofstream(Path(name)) << text; }
    std::string Read(const std::string& name = "file") const {
        std::ifstream file(Path(name));
        std::ostringstream text;
        text << file.rdbuf();
        return file.is_open() ? text.str() : "(absent)";
    }

    const TemporaryFolder m_folder;
};

using ReplaceFile = DurableFiles;

TEST_F(ReplaceFile, PutsTheNewContentInPlaceOfTheOld) {
    Write("file", "old and longer");
    EXPECT_FALSE(base::ReplaceFile(Path(), "new", 0640));
    EXPECT_EQ(Read(), "new");
    struct stat status {};
    ASSERT_EQ(stat(Path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U);
    EXPECT_FALSE(fs::exists(Path("file.new")));
}

TEST_F(ReplaceFile, ReplacesALinkAndLeavesItsTargetAlone) {
    Write("target", "precious");
    fs::create_symlink("target", Path());
    EXPECT_FALSE(base::ReplaceFile(Path(), "new", 0640));
    EXPECT_EQ(Read("target"), "precious");
    EXPECT_FALSE(fs::is_symlink(Path()));
    EXPECT_EQ(Read(), "new");
}

TEST_F(ReplaceFile, WritesThroughNothingThatLiesUnderTheTemporaryName) {
    Write("target", "precious");
    fs::create_symlink("target", Path("file.new"));
    EXPECT_FALSE(base::ReplaceFile(Path(), "new", 0640));
    EXPECT_EQ(Read("target"), "precious");
    EXPECT_EQ(Read(), "new");
}

TEST_F(ReplaceFile, KeepsTheOldContentWhenTheDiskIsFull) {
    Write("file", "old");
    std::error_code error;
    {
        const FullDisk full(1000);
        error = base::ReplaceFile(Path(), std::string(5000, 'x'), 0640);
    }
    EXPECT_EQ(error, std::errc::file_too_large);
    EXPECT_EQ(Read(), "old");
    EXPECT_FALSE(fs::exists(Path("file.new")));
}

TEST_F(ReplaceFile, SaysWhyItCannot) {
    EXPECT_EQ(base::ReplaceFile(Path("missing/file"), "x", 0640), std::errc::no_such_file_or_directory);
    fs::create_directories(Path("file/full"));
    EXPECT_EQ(base::ReplaceFile(Path(), "x", 0640), std::errc::is_a_directory);
    EXPECT_FALSE(fs::exists(Path("file.new")));
}

TEST_F(ReplaceFile, LeavesTheOldContentWhenItIsNotCarriedThrough) {
    Write("file", "old");
    {
        base::ReplacementFile file(Path());
        ASSERT_FALSE(file.Open(0600));
        EXPECT_EQ(file.Write("new"), 3U);
        EXPECT_FALSE(file.SetOwner(geteuid(), getegid()));
        EXPECT_FALSE(file.Sync());
        EXPECT_EQ(Read("file.new"), "new");
    }
    EXPECT_EQ(Read(), "old");
    EXPECT_FALSE(fs::exists(Path("file.new")));
}

using SetAside = DurableFiles;

TEST_F(SetAside, MovesTheDatabaseWithItsCompanions) {
    for (const char* name : {"file", "file-wal", "file-shm", "file-journal"}) {
        Write(name, name);
    }
    const base::SetAsideResult result = base::SetAside(Path());
    EXPECT_FALSE(result.error);
    EXPECT_EQ(result.name, Path("file.damaged"));
    for (const std::string part : {"", "-wal", "-shm", "-journal"}) {
        EXPECT_EQ(Read("file.damaged" + part), "file" + part);
        EXPECT_FALSE(fs::exists(Path("file" + part))) << part;
    }
}

TEST_F(SetAside, KeepsTheNewestOnlyAndNoCompanionOfAnother) {
    Write("file.damaged", "older");
    Write("file.damaged-wal", "older");
    Write("file", "newer");
    EXPECT_EQ(base::SetAside(Path()).name, Path("file.damaged"));
    EXPECT_EQ(Read("file.damaged"), "newer");
    EXPECT_EQ(Read("file.damaged-wal"), "(absent)");
}

TEST_F(SetAside, GoesOnWhereAPowerCutEndedIt) {
    Write("file.damaged-wal", "moved already");
    Write("file", "damaged");
    EXPECT_EQ(base::SetAside(Path()).name, Path("file.damaged"));
    EXPECT_EQ(Read("file.damaged"), "damaged");
    EXPECT_EQ(Read("file.damaged-wal"), "moved already");
}

TEST_F(SetAside, ClearsALogWhoseDatabaseIsGone) {
    Write("file-wal", "left over");
    EXPECT_FALSE(base::SetAside(Path()).error);
    EXPECT_EQ(Read("file.damaged-wal"), "left over");
    EXPECT_FALSE(fs::exists(Path("file-wal")));
}

TEST_F(SetAside, KeepsNoDatabaseWithTheLogOfOneThatWasGone) {
    Write("file-wal", "left over");
    EXPECT_FALSE(base::SetAside(Path()).error);
    Write("file", "later");
    EXPECT_FALSE(base::SetAside(Path()).error);
    EXPECT_EQ(Read("file.damaged"), "later");
    EXPECT_EQ(Read("file.damaged-wal"), "(absent)");
}

TEST_F(SetAside, IsDoneAlsoWhenItsFolderCannotBeSynced) {
    Write("file", "damaged");
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const base::SetAsideResult result = base::SetAside(Path());
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_FALSE(result.error);
    EXPECT_EQ(result.name, Path("file.damaged"));
    EXPECT_EQ(Read("file.damaged"), "damaged");
}

TEST_F(SetAside, RemovesWhatItCannotKeep) {
    Write("file", "damaged");
    fs::create_directories(Path("file.damaged/full"));
    const base::SetAsideResult result = base::SetAside(Path());
    EXPECT_FALSE(result.error);
    EXPECT_EQ(result.name, "");
    EXPECT_FALSE(fs::exists(Path()));
}

TEST_F(SetAside, SaysWhyItCannotClearThePlace) {
    fs::create_directories(Path("file-wal/full"));
    Write("file.damaged-wal", "in the way of a folder");
    EXPECT_EQ(base::SetAside(Path()).error, std::errc::is_a_directory);
}

}  // namespace

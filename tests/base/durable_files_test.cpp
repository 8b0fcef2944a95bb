#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "base/atomic_file.h"
#include "base/set_aside.h"
#include "files.h"
#include "full_disk.h"
#include "temporary_folder.h"

namespace {

namespace fs = std::filesystem;

class DurableFiles : public testing::Test {
protected:
    std::string Path(const std::string& name = "file") const { return m_folder.Path() + "/" + name; }
    void Write(const std::string& name, const std::string& text) const { WriteFile(Path(name), text); }
    Files Content() const { return ReadFolder(m_folder.Path()); }

    const TemporaryFolder m_folder;
};

using ReplaceFile = DurableFiles;

TEST_F(ReplaceFile, PutsTheNewContentInPlaceOfTheOld) {
    Write("file", "old and longer");
    EXPECT_FALSE(base::ReplaceFile(Path(), "new", 0640));
    EXPECT_EQ(Content(), (Files{{"file", "new"}}));
    EXPECT_EQ(ModeOf(Path()), 0640U);
}

TEST_F(ReplaceFile, FollowsNoLinkUnderItsNameOrTheTemporaryOne) {
    for (const char* name : {"file", "file.new"}) {
        Write("target", "precious");
        fs::create_symlink("target", Path(name));
        EXPECT_FALSE(base::ReplaceFile(Path(), "new", 0640));
        EXPECT_EQ(Content(), (Files{{"file", "new"}, {"target", "precious"}}));
        EXPECT_FALSE(fs::is_symlink(Path()));
        fs::remove(Path());
    }
}

TEST_F(ReplaceFile, KeepsTheOldContentWhenTheDiskIsFull) {
    Write("file", "old");
    std::error_code error;
    {
        const FullDisk full(1000);
        error = base::ReplaceFile(Path(), std::string(5000, 'x'), 0640);
    }
    EXPECT_EQ(error, std::errc::file_too_large);
    EXPECT_EQ(Content(), (Files{{"file", "old"}}));
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
        EXPECT_EQ(Content(), (Files{{"file", "old"}, {"file.new", "new"}}));
    }
    EXPECT_EQ(Content(), (Files{{"file", "old"}}));
}

TEST_F(ReplaceFile, LeavesWhatLiesBesideItWhenItIsToTakeANameThatNothingHas) {
    Write("file", "old");
    Write("file.new", "mine");
    Write("file.new.1", "also mine");
    fs::create_symlink("file.new", Path("file.new.2"));

    EXPECT_FALSE(base::ReplaceFile(Path(), "new", 0640, base::Beside::Unused));

    EXPECT_EQ(
        Content(),
        (Files{{"file", "new"}, {"file.new", "mine"}, {"file.new.1", "also mine"}, {"file.new.2", "mine"}}));
    EXPECT_EQ(base::ReplaceFile(Path("missing/file"), "x", 0640, base::Beside::Unused),
              std::errc::no_such_file_or_directory);
}

class SetAside : public DurableFiles {
protected:
    /// Sets "file" aside, which succeeds.
    void KeepIt() const {
        const base::SetAsideResult result = base::SetAside(Path());
        EXPECT_FALSE(result.error);
        EXPECT_EQ(result.name, Path("file.damaged"));
    }
};

TEST_F(SetAside, MovesTheDatabaseWithItsCompanions) {
    Files expected;
    for (const std::string part : {"", "-wal", "-shm", "-journal"}) {
        Write("file" + part, part);
        expected["file.damaged" + part] = part;
    }
    KeepIt();
    EXPECT_EQ(Content(), expected);
}

TEST_F(SetAside, KeepsTheNewestOnlyAndNoCompanionOfAnother) {
    Write("file.damaged", "older");
    Write("file.damaged-wal", "older");
    Write("file", "newer");
    KeepIt();
    EXPECT_EQ(Content(), (Files{{"file.damaged", "newer"}}));
}

TEST_F(SetAside, GoesOnWhereAPowerCutEndedIt) {
    Write("file.damaged-wal", "moved already");
    Write("file", "damaged");
    KeepIt();
    EXPECT_EQ(Content(), (Files{{"file.damaged", "damaged"}, {"file.damaged-wal", "moved already"}}));
}

TEST_F(SetAside, KeepsALogWhoseDatabaseIsGoneUntilThereIsAnotherDatabase) {
    Write("file-wal", "left over");
    EXPECT_FALSE(base::SetAside(Path()).error);
    EXPECT_EQ(ReadFile(Path("file.damaged-wal")), "left over");
    EXPECT_FALSE(fs::exists(Path("file-wal")));
    Write("file", "later");
    KeepIt();
    EXPECT_EQ(Content(), (Files{{"file.damaged", "later"}}));
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
    EXPECT_EQ(Content(), (Files{{"file.damaged", "damaged"}}));
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

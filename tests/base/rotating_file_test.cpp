#include "base/rotating_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "files.h"
#include "full_disk.h"
#include "temporary_folder.h"

namespace {

namespace fs = std::filesystem;

std::uint64_t g_now = 0;
constexpr std::uint64_t kSecond = 1000000000;

class RotatingFile : public testing::Test {
protected:
    RotatingFile() { g_now = 0; }

    std::string Path(const std::string& name = "main.log") const { return m_root.Path() + "/log/" + name; }
    std::string Read(const std::string& name = "main.log") const { return ReadFile(Path(name)); }
    base::RotatingFile Make(std::int64_t maxBytes = 1000) {
        return {{m_root.Path() + "/", Path()},
                {maxBytes, 2},
                [] { return g_now; },
                [this](const char* what, const std::error_code& error) {
                    m_reports.push_back(std::string(what) + ": " + error.message());
                }};
    }

    /// With the next line the file is looked at again.
    static void NextLook() { g_now += base::RotatingFile::kLookNs; }

    const TemporaryFolder m_root;
    std::vector<std::string> m_reports;
};

TEST_F(RotatingFile, IsMadeWithItsFolderAndAppendedTo) {
    Make().Write("one\n");
    Make().Write("two\n");
    EXPECT_EQ(Read(), "one\ntwo\n");
    EXPECT_EQ(ModeOf(Path()), 0640U);
    EXPECT_TRUE(m_reports.empty());
}

TEST_F(RotatingFile, KeepsTwoOldFilesAndStaysWithinItsLimit) {
    base::RotatingFile file = Make(10);
    for (const char* line : {"longer than the limit\n", "123456789\n", "1\n", "2345678\n", "9\n"}) {
        file.Write(line);
    }
    EXPECT_EQ(ReadFolder(Path("")),
              (Files{{"main.log", "9\n"}, {"main.1.log", "1\n2345678\n"}, {"main.2.log", "123456789\n"}}));
}

TEST_F(RotatingFile, IsRotatedOnceForAllWhoWrite) {
    base::RotatingFile one = Make(10);
    base::RotatingFile other = Make(10);
    one.Write("a\n");
    other.Write("b23456789\n");
    one.Write("c23456789\n");
    other.Write("d23456789\n");
    EXPECT_EQ(
        ReadFolder(Path("")),
        (Files{{"main.log", "d23456789\n"}, {"main.1.log", "c23456789\n"}, {"main.2.log", "b23456789\n"}}));
}

TEST_F(RotatingFile, ComesBackAfterItWasDeletedWithItsFolder) {
    base::RotatingFile file = Make();
    file.Write("lost\n");
    fs::remove(Path());
    NextLook();
    file.Write("one\n");
    EXPECT_EQ(Read(), "one\n");
    fs::remove_all(m_root.Path() + "/log");
    NextLook();
    file.Write("two\n");
    EXPECT_EQ(Read(), "two\n");
    EXPECT_TRUE(m_reports.empty());
}

TEST_F(RotatingFile, IsLookedAtOnceInAMillisecond) {
    base::RotatingFile file = Make();
    file.Write("one\n");
    fs::rename(Path(), Path("renamed"));
    g_now = base::RotatingFile::kLookNs - 1;
    file.Write("two\n");
    EXPECT_EQ(Read("renamed"), "one\ntwo\n");
    EXPECT_FALSE(fs::exists(Path()));
    g_now = base::RotatingFile::kLookNs;
    file.Write("three\n");
    EXPECT_EQ(Read(), "three\n");
}

TEST_F(RotatingFile, CountsWhatOthersWroteWithTheNextLook) {
    base::RotatingFile one = Make(10);
    base::RotatingFile other = Make(10);
    one.Write("a\n");
    other.Write("bcdefg\n");
    one.Write("hi\n");
    EXPECT_EQ(Read(), "a\nbcdefg\nhi\n");
    NextLook();
    one.Write("j\n");
    EXPECT_EQ(Read("main.1.log"), "a\nbcdefg\nhi\n");
    EXPECT_EQ(Read(), "j\n");
}

TEST_F(RotatingFile, IsNotRotatedWhenSomebodyHasEmptiedIt) {
    base::RotatingFile file = Make(10);
    file.Write("12345678\n");
    fs::resize_file(Path(), 0);
    file.Write("abc\n");
    EXPECT_EQ(ReadFolder(Path("")), (Files{{"main.log", "abc\n"}}));
}

TEST_F(RotatingFile, IsTriedAgainASecondLaterAndReportedOnce) {
    WriteFile(m_root.Path() + "/log", "a file where a folder should be");
    base::RotatingFile file = Make();
    file.Write("lost\n");
    fs::remove(m_root.Path() + "/log");
    g_now = kSecond - 1;
    file.Write("too early\n");
    EXPECT_FALSE(fs::exists(Path()));
    g_now = kSecond;
    file.Write("written\n");
    EXPECT_EQ(Read(), "written\n");
    EXPECT_EQ(m_reports, std::vector<std::string>{"cannot be opened: Not a directory"});

    fs::remove_all(m_root.Path() + "/log");
    WriteFile(m_root.Path() + "/log", "again");
    NextLook();
    file.Write("lost\n");
    EXPECT_EQ(m_reports.size(), 2U);
}

TEST_F(RotatingFile, IsNeitherALinkNorAPipe) {
    const TemporaryFolder elsewhere;
    fs::create_directory(m_root.Path() + "/log");
    fs::create_symlink(elsewhere.Path() + "/target", Path());
    base::RotatingFile file = Make();
    file.Write("lost\n");
    EXPECT_TRUE(fs::is_empty(elsewhere.Path()));

    fs::remove(Path());
    ASSERT_EQ(mkfifo(Path().c_str(), 0644), 0);
    g_now = kSecond;
    file.Write("lost\n");
    EXPECT_EQ(m_reports.size(), 1U);

    fs::remove(Path());
    g_now = 2 * kSecond;
    file.Write("written\n");
    EXPECT_EQ(Read(), "written\n");
}

TEST_F(RotatingFile, DoesNotWriteOnIntoAPipeThatTookItsPlace) {
    base::RotatingFile file = Make();
    file.Write("one\n");
    fs::remove(Path());
    ASSERT_EQ(mkfifo(Path().c_str(), 0644), 0);
    NextLook();
    const base::UniqueFd reader(open(Path().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    file.Write("lost\n");
    char byte = 0;
    EXPECT_LE(read(reader.Get(), &byte, 1), 0);
    EXPECT_EQ(m_reports.size(), 1U);
}

TEST_F(RotatingFile, DoesNotGrowWhenItCannotBeRotated) {
    base::RotatingFile file = Make(10);
    file.Write("123456789\n");
    WriteFile(Path("main.1.log"), "older");
    fs::create_directory(Path("main.2.log"));
    file.Write("lost\n");
    EXPECT_EQ(Read(), "123456789\n");
    EXPECT_EQ(m_reports, std::vector<std::string>{"cannot be rotated: Is a directory"});

    fs::remove(Path("main.2.log"));
    g_now = kSecond;
    file.Write("written\n");
    EXPECT_EQ(Read(), "written\n");
}

TEST_F(RotatingFile, SaysThatTheDiskIsFullAndStillRotates) {
    base::RotatingFile file = Make(25);
    file.Write("0123456789\n");
    {
        const FullDisk full(15);
        errno = 0;
        file.Write("0123456789\n");
    }
    EXPECT_EQ(m_reports, std::vector<std::string>{"cannot be written: No space left on device"});

    file.Write("abcdefghij\n");
    EXPECT_EQ(Read("main.1.log"), "0123456789\n0123");
    EXPECT_EQ(Read(), "abcdefghij\n");
    EXPECT_EQ(m_reports.size(), 1U);
}

TEST_F(RotatingFile, IsFoundThroughALinkOfTheImage) {
    fs::create_symlink("/volatile", m_root.Path() + "/log");
    base::RotatingFile file = Make();
    file.Write("one\n");
    file.Write("two\n");
    EXPECT_EQ(ReadFile(m_root.Path() + "/volatile/main.log"), "one\ntwo\n");
}

}  // namespace

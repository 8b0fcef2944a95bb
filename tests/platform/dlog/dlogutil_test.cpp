#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "base/rotating_file.h"
#include "base/unique_fd.h"
#include "child_process.h"
#include "dlog.h"
#include "files.h"
#include "platform_clock.h"
#include "temporary_folder.h"
#include "waiting.h"

namespace fs = std::filesystem;

namespace {

using child::Process;
using testing::EndsWith;
using testing::MatchesRegex;

/// Arguments: buffer, priority, tag, message; any number of these.
int LogLines(const child::Arguments& arguments) {
    for (std::size_t at = 0; at + 3 < arguments.size(); at += 4) {
        dlog_emit(std::atoi(arguments[at].c_str()), std::atoi(arguments[at + 1].c_str()),
                  arguments[at + 2].c_str(), "%s", arguments[at + 3].c_str());
    }
    return 0;
}
const child::Program kLogLines("log-lines", LogLines);

class DlogUtil : public testing::Test {
protected:
    void Log(const child::Arguments& lines) {
        EXPECT_EQ(Process("log-lines", lines, m_folder.Path()).Wait(), 0);
    }

    Process Start(const child::Arguments& arguments) {
        return Process::Of("dlogutil", arguments, m_folder.Path());
    }

    std::string Output(const child::Arguments& arguments) {
        Process process = Start(arguments);
        std::string text = process.ReadAll();
        EXPECT_EQ(process.Wait(), 0);
        return text;
    }

    std::string Folder() const { return m_folder.Path() + "/var/log/zol"; }

    static std::string Line(const std::string& message) {
        return "2026-01-31 12:00:00.000 I/A(1:2): " + message + "\n";
    }
    base::RotatingFile MainLog(std::int64_t maxBytes) const {
        return {{m_folder.Path() + "/", Folder() + "/main.log"},
                {maxBytes, 2},
                platform_clock_steady_ns,
                [](const char* what, const std::error_code& error) { FAIL() << what << error.message(); }};
    }

    TemporaryFolder m_folder;
};

TEST_F(DlogUtil, ShowsTheLinesOfAllBuffersByTime) {
    Log({"0", "4", "A", "one"});
    Log({"2", "6", "B", "two"});
    Log({"0", "7", "C", "three"});
    EXPECT_THAT(Output({"-d"}), MatchesRegex("[^\n]+ I/A\\([0-9]+:[0-9]+\\): one\n"
                                             "[^\n]+ E/B\\([0-9]+:[0-9]+\\): two\n"
                                             "[^\n]+ F/C\\([0-9]+:[0-9]+\\): three\n"));
}

TEST_F(DlogUtil, ShowsOneBufferWhenAsked) {
    Log({"0", "4", "A", "one", "2", "4", "A", "two"});
    EXPECT_THAT(Output({"-d", "-b", "main", "-v", "brief"}), MatchesRegex("I/A\\([0-9]+\\): one\n"));
    EXPECT_THAT(Output({"-d", "-b", "system", "-v", "brief"}), MatchesRegex("I/A\\([0-9]+\\): two\n"));
}

TEST_F(DlogUtil, ShowsNothingWhereThereIsNoLog) {
    EXPECT_EQ(Output({"-d"}), "");
}

TEST_F(DlogUtil, FiltersByWholeTagAndLowestPriority) {
    Log({"0", "4", "CSFS",  "1", "0", "4", "CSFS2", "2", "0", "4", "CSF",   "3",
         "0", "5", "OTHER", "4", "0", "6", "OTHER", "5", "0", "7", "THIRD", "6"});
    const std::string text = Output({"-d", "-v", "brief", "CSFS", "OTHER:E"});
    EXPECT_THAT(text, MatchesRegex("I/CSFS\\([0-9]+\\): 1\nE/OTHER\\([0-9]+\\): 5\n"));
    EXPECT_THAT(Output({"-d", "-v", "brief", "*:F"}), MatchesRegex("F/THIRD\\([0-9]+\\): 6\n"));
}

TEST_F(DlogUtil, FollowsWhatIsLoggedLater) {
    Log({"0", "4", "CSFS", "before"});
    Process follower = Start({"CSFS"});
    EXPECT_THAT(follower.ReadLine(), EndsWith("): before"));
    Log({"0", "4", "OTHER", "x", "2", "4", "CSFS", "after"});
    EXPECT_THAT(follower.ReadLine(), EndsWith("): after"));
    Log({"0", "4", "CSFS", "at last"});
    EXPECT_THAT(follower.ReadLine(), EndsWith("): at last"));
}

TEST_F(DlogUtil, WaitsForTheFirstLogFile) {
    Process follower = Start({});
    Log({"0", "4", "A", "first"});
    EXPECT_THAT(follower.ReadLine(), EndsWith("): first"));
}

TEST_F(DlogUtil, ShowsWhatWasLoggedBetweenALookAtANewFolderAndItsWatch) {
    Log({"0", "4", "A", "before"});
    const std::string prepared = m_folder.Path() + "/prepared";
    fs::create_directory(prepared);
    // Who opens a pipe that nobody writes waits: these hold the follower behind main.log and behind
    // system.log.
    for (const char* pipe : {"/main.1.log", "/system.log"}) {
        ASSERT_EQ(mkfifo((prepared + pipe).c_str(), 0600), 0);
    }
    Process follower = Start({});
    EXPECT_THAT(follower.ReadLine(), EndsWith("): before"));
    fs::rename(Folder(), m_folder.Path() + "/old");
    fs::rename(prepared, Folder());

    EXPECT_TRUE(Eventually([&] {
        const base::UniqueFd writer(
            open((Folder() + "/main.1.log").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        return static_cast<bool>(writer);
    }));
    // It has missed main.log by now, and cannot watch the folder yet.
    fs::remove(Folder() + "/main.1.log");
    WriteFile(Folder() + "/main.log", Line("between"));
    const std::string moved = m_folder.Path() + "/moved";
    fs::rename(Folder() + "/system.log", moved);
    base::UniqueFd writer(open(moved.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    writer.Reset();

    EXPECT_THAT(follower.ReadLine(), EndsWith("): between"));
}

TEST_F(DlogUtil, FollowsWhenTheFilesAreTurnedOver) {
    base::RotatingFile file = MainLog(100);
    file.Write(Line("line 0"));
    Process follower = Start({});
    EXPECT_THAT(follower.ReadLine(), EndsWith("line 0"));
    for (int number = 1; number < 20; ++number) {
        const std::string text = "line " + std::to_string(number);
        file.Write(Line(text));
        EXPECT_THAT(follower.ReadLine(), EndsWith(text));
    }
    EXPECT_TRUE(fs::exists(Folder() + "/main.2.log"));
}

TEST_F(DlogUtil, ReadsTheOldFilesFirst) {
    base::RotatingFile file = MainLog(1);
    for (const char* number : {"1", "2", "3"}) {
        file.Write(Line(number));
    }
    EXPECT_EQ(Output({"-d", "-v", "brief"}), "I/A(1): 1\nI/A(1): 2\nI/A(1): 3\n");
}

TEST_F(DlogUtil, LeavesOutWhatIsNoLogLine) {
    base::RotatingFile file = MainLog(10000);
    file.Write(
        "\nrubbish\n2026-01-31 12:00:00.000 X/A(1:2): x\n2026-01-31 12:00:00.000 I/A(1:2)\n"
        "2026-01-31 12:00:00.000 I/A(1:2): (good): one\n2026-01-31 12:00:00.000 I/A(1:2): unfinished");
    EXPECT_EQ(Output({"-d", "-v", "brief"}), "I/A(1): (good): one\n");
}

TEST_F(DlogUtil, PutsTheMonotonicClockInFrontAsKernelTime) {
    Log({"0", "4", "A", "x"});
    const std::string text = Output({"-d", "-v", "kerneltime"});
    ASSERT_THAT(text, MatchesRegex("[0-9]+\\.[0-9]{6} I/A\\([0-9]+:[0-9]+\\): x\n"));
    const double now = static_cast<double>(platform_clock_steady_ns()) / 1e9;
    EXPECT_NEAR(std::strtod(text.c_str(), nullptr), now, 60);
}

TEST_F(DlogUtil, EndsWhenNobodyReadsItsOutputAnyMore) {
    Log({"0", "4", "A", "x"});
    Process follower = Start({});
    EXPECT_THAT(follower.ReadLine(), EndsWith("): x"));
    follower.CloseOutput();
    EXPECT_NE(follower.Wait(), 0);
}

TEST_F(DlogUtil, RefusesBadUsage) {
    for (const child::Arguments& arguments :
         {child::Arguments{"-d", "A:Q"}, {"-d", "A:"}, {"-d", "-b", "radio"}, {"-d", "-v", "long"}}) {
        EXPECT_EQ(Start(arguments).Wait(), 2) << arguments.back();
    }
    EXPECT_EQ(Start({"--help"}).Wait(), 0);
}

}  // namespace

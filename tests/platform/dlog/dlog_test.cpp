#include "dlog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "allocations.h"
#include "child_process.h"
#include "files.h"
#include "temporary_folder.h"
#include "waiting.h"

namespace {

using child::Process;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

/// Arguments: count, text. Logs the numbered text as often.
int LogMany(const child::Arguments& arguments) {
    for (int index = 0; index < std::atoi(arguments[0].c_str()); ++index) {
        dlog_emit(DLOG_BUFFER_MAIN, DLOG_PRIORITY_INFO, "MANY", "%d %s", index, arguments[1].c_str());
    }
    child::Tell("done");
    return 0;
}
const child::Program kLogMany("log-many", LogMany);

/// The same, and stays.
int LogManyAndStay(const child::Arguments& arguments) {
    LogMany(arguments);
    child::WaitForRelease();
    return 0;
}
const child::Program kLogManyAndStay("log-many-and-stay", LogManyAndStay);

/// The lines of the file and of those that it was rotated into.
std::vector<std::string> ReadAllLines(const TemporaryFolder& root) {
    std::vector<std::string> lines;
    for (const char* name : {"main.2.log", "main.1.log", "main.log"}) {
        const std::vector<std::string> more = ReadLines(root.Path() + "/var/log/zol/" + name);
        lines.insert(lines.end(), more.begin(), more.end());
    }
    return lines;
}

/// The log of this process.
class LogLine : public testing::Test {
protected:
    static std::string Path(const char* name) {
        const char* root = std::getenv("ZOL_ROOT");
        return std::string(root != nullptr ? root : "") + "/var/log/zol/" + name;
    }
    static std::size_t Count() { return ReadLines(Path("main.log")).size(); }
    static std::string Last(const char* name = "main.log") {
        const std::vector<std::string> lines = ReadLines(Path(name));
        return lines.empty() ? "" : lines.back();
    }
    /// What a message of this tag becomes.
    static std::string Logged(const std::string& message, const char* tag = "T",
                              int priority = DLOG_PRIORITY_INFO) {
        dlog_emit(DLOG_BUFFER_MAIN, priority, tag, "%s", message.c_str());
        return Last();
    }
};

TEST_F(LogLine, ShowsTimePriorityTagProcessThreadAndMessage) {
    dlog_emit(DLOG_BUFFER_MAIN, DLOG_PRIORITY_INFO, "TAG", "%s %d", "message", 5);
    const std::string line = Last();
    EXPECT_THAT(line, MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} "
                                   "I/TAG\\([0-9]+:[0-9]+\\): message 5"));
    EXPECT_THAT(line, HasSubstr("(" + std::to_string(getpid()) + ":"));
}

TEST_F(LogLine, HasOneLetterForEachPriority) {
    const std::pair<int, const char*> letters[] = {{DLOG_PRIORITY_VERBOSE, " V/T("},
                                                   {DLOG_PRIORITY_DEBUG, " D/T("},
                                                   {DLOG_PRIORITY_INFO, " I/T("},
                                                   {DLOG_PRIORITY_WARN, " W/T("},
                                                   {DLOG_PRIORITY_ERROR, " E/T("},
                                                   {DLOG_PRIORITY_FATAL, " F/T("},
                                                   {-3, " V/T("},
                                                   {99, " F/T("}};
    for (const auto& [priority, letter] : letters) {
        EXPECT_THAT(Logged("x", "T", priority), HasSubstr(letter));
    }
}

TEST_F(LogLine, GoesToTheFileOfItsBuffer) {
    dlog_emit(DLOG_BUFFER_MAIN, DLOG_PRIORITY_INFO, "T", "one");
    dlog_emit(DLOG_BUFFER_RADIO, DLOG_PRIORITY_INFO, "T", "two");
    dlog_emit(DLOG_BUFFER_SYSTEM, DLOG_PRIORITY_INFO, "T", "three");
    EXPECT_THAT(Last("main.log"), EndsWith("): two"));
    EXPECT_THAT(Last("system.log"), EndsWith("): three"));
}

TEST_F(LogLine, CannotBeForgedByItsMessageOrTagAndLosesItsLineEnd) {
    const std::size_t before = Count();
    const std::string line = Logged("a\nb\x1b[1mc\td\x7f\r.\r\n\n", "T\nG");
    EXPECT_EQ(Count(), before + 1);
    EXPECT_THAT(line, HasSubstr(" I/T\\nG("));
    EXPECT_THAT(line, EndsWith("): a\\nb\\x1b[1mc\td\\x7f\\x0d."));
}

TEST_F(LogLine, IsCutAt4095BytesAndMayHaveNoTag) {
    EXPECT_THAT(Logged(std::string(5000, 'x')), EndsWith("): " + std::string(4095, 'x')));
    EXPECT_THAT(Logged("x", nullptr), HasSubstr(" I/("));
}

TEST_F(LogLine, LeavesErrnoAlone) {
    errno = ENOTTY;
    dlog_emit(DLOG_BUFFER_MAIN, DLOG_PRIORITY_INFO, "T", "x");
    EXPECT_EQ(errno, ENOTTY);
}

TEST_F(LogLine, AllocatesNothingHoweverLongItIs) {
    const std::string message(4095, 'x');
    dlog_emit(DLOG_BUFFER_MAIN, DLOG_PRIORITY_INFO, "TAG", "%s", message.c_str());
    const std::size_t before = ThreadAllocations();
    for (int count = 0; count < 10; ++count) {
        dlog_emit(DLOG_BUFFER_MAIN, DLOG_PRIORITY_INFO, "TAG", "%s", message.c_str());
    }
    EXPECT_EQ(ThreadAllocations(), before);
}

TEST_F(LogLine, OfManyThreadsStaysWhole) {
    const std::size_t before = Count();
    OnThreads(3, [](int) {
        for (int line = 0; line < 100; ++line) {
            dlog_emit(DLOG_BUFFER_MAIN, DLOG_PRIORITY_INFO, "THREAD", "%s", std::string(300, 'z').c_str());
        }
    });
    const std::vector<std::string> lines = ReadLines(Path("main.log"));
    ASSERT_EQ(lines.size(), before + 300);
    for (std::size_t at = before; at < lines.size(); ++at) {
        ASSERT_THAT(lines[at], MatchesRegex("[0-9. :-]+ I/THREAD\\([0-9]+:[0-9]+\\): z{300}"));
    }
}

/// Has so many processes at once write as many lines each, and waits for their end.
void LetManyWrite(const TemporaryFolder& root, int writers, int lines, const std::string& text) {
    std::vector<Process> running;
    for (int index = 0; index < writers; ++index) {
        running.emplace_back("log-many", child::Arguments{std::to_string(lines), text}, root.Path());
    }
    for (Process& writer : running) {
        EXPECT_EQ(writer.ReadLine(), "done");
        EXPECT_EQ(writer.Wait(), 0);
    }
}

TEST_F(LogLine, OfManyProcessesStaysWhole) {
    constexpr int kWriters = 4;
    constexpr int kLines = 200;
    const std::string text(600, 'y');
    const TemporaryFolder root;
    LetManyWrite(root, kWriters, kLines, text);
    const std::vector<std::string> lines = ReadLines(root.Path() + "/var/log/zol/main.log");
    EXPECT_EQ(lines.size(), static_cast<std::size_t>(kWriters * kLines));
    for (const std::string& line : lines) {
        ASSERT_THAT(line, MatchesRegex("[0-9. :-]+ I/MANY\\([0-9]+:[0-9]+\\): [0-9]+ y{600}"));
    }
}

TEST_F(LogLine, OfManyProcessesIsKeptWhileTheyRotate) {
    constexpr int kWriters = 4;
    constexpr int kLines = 350;
    const std::string text(4000, 'y');
    const TemporaryFolder root;
    LetManyWrite(root, kWriters, kLines, text);
    const std::vector<std::string> lines = ReadAllLines(root);
    EXPECT_FALSE(ReadLines(root.Path() + "/var/log/zol/main.2.log").empty());
    EXPECT_EQ(lines.size(), static_cast<std::size_t>(kWriters * kLines));
    for (const std::string& line : lines) {
        ASSERT_THAT(line, HasSubstr(" I/MANY("));
        ASSERT_THAT(line, EndsWith(" " + text));
        ASSERT_EQ(line.find('y'), line.size() - text.size());
    }
}

TEST_F(LogLine, IsThereAlthoughItsProcessWasKilled) {
    const TemporaryFolder root;
    Process writer("log-many-and-stay", {"100", "text"}, root.Path());
    EXPECT_EQ(writer.ReadLine(), "done");
    writer.Kill();
    EXPECT_EQ(writer.Wait(), -SIGKILL);
    const std::vector<std::string> lines = ReadAllLines(root);
    ASSERT_EQ(lines.size(), 100U);
    EXPECT_THAT(lines.back(), EndsWith("): 99 text"));
}

TEST_F(LogLine, OfAForkedProcessHasItsOwnIds) {
    Logged("of the parent");
    const pid_t child = fork();
    if (child == 0) {
        Logged("of the child");
        _exit(0);
    }
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    const std::string id = std::to_string(child);
    EXPECT_THAT(Last(), HasSubstr("(" + id + ":" + id + "): of the child"));
    EXPECT_THAT(Logged("of the parent"), HasSubstr("(" + std::to_string(getpid()) + ":"));
}

TEST_F(LogLine, IsDroppedWhenTheFolderCannotBeMade) {
    const TemporaryFolder root;
    WriteFile(root.Path() + "/var", "a file where a folder should be");
    Process writer("log-many", {"100", "text"}, root.Path());
    EXPECT_EQ(writer.ReadLine(), "done");
    EXPECT_EQ(writer.Wait(), 0);
}

}  // namespace

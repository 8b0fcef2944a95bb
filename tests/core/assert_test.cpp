#include <execinfo.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "Logging.h"
#include "death.h"
#include "log_fixture.h"

namespace {

namespace fs = std::filesystem;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

/// How many frames the last call stack had whose symbols were asked for.
int g_frames = 0;

class Assertion : public RuntimeLog {
protected:
    static void MakeConsole() { fakes::WriteDeviceFile("/dev/console", ""); }
    /// What a failed assertion writes to the console.
    static std::string Report() {
        MakeConsole();
        __ASSERT_ATSC3("a == b", "core/src/X", 7);
        return fakes::ReadDeviceFile("/dev/console");
    }
    /// A report from below so many calls.
    __attribute__((noinline)) static std::string DeepReport(volatile int calls) {
        std::string report = calls > 0 ? DeepReport(calls - 1) : Report();
        return report;
    }
};

TEST_F(Assertion, CrashesWhereTheReleaseMarkerCannotBeOpenedForUpdate) {
    EXPECT_EXIT(__ASSERT_ATSC3("a == b", "core/src/X", 7), Crashed, "");
    fakes::MakeDeviceFolder("/etc/release");
    EXPECT_EXIT(__ASSERT_ATSC3("a == b", "core/src/X", 7), Crashed, "");
}

TEST_F(Assertion, CarriesOnWhereTheReleaseMarkerCanBeOpenedAndLeavesNoConsoleBehind) {
    SurviveAssertions();
    __ASSERT_ATSC3("a == b", "core/src/X", 7);

    EXPECT_FALSE(fakes::DeviceFileExists("/dev/console"));
    ExpectErrors({"ASSERT: a == b [core/src/X:7]"});
}

TEST_F(Assertion, ReportsOnTheConsole) {
    SurviveAssertions();
    prctl(PR_SET_NAME, "reporter");

    char threads[128];
    std::snprintf(threads, sizeof(threads),
                  "Posix Thread ID: 0x%08lx\nLinux Thread ID:   %8ld (reporter)\nCallstack:\n", ThreadId(),
                  static_cast<long>(syscall(SYS_gettid)));
    EXPECT_THAT(Report(), StartsWith("This sentence is redirected to a serial output. \n"
                                     "Assertion failed: core/src/X (7) - a == b\n"
                                     "Debug information:\n" +
                                     std::string(threads)));
}

TEST_F(Assertion, ReportsTheCallStackFromTheSecondFrameToTheLastOfAHundred) {
    SurviveAssertions();

    const std::string report = Report();

    ASSERT_GT(g_frames, 1);
    std::string frames;
    for (int index = 1; index < g_frames; ++index) {
        frames += "frame " + std::to_string(index) + "\n";
    }
    EXPECT_THAT(report, EndsWith(")\nCallstack:\n" + frames));
    EXPECT_THAT(DeepReport(200), EndsWith("\nframe 99\n"));
}

TEST_F(Assertion, ReturnsAtOnceWhenTheConsoleIsALink) {
    fakes::WriteDeviceFile("/tmp/elsewhere", "kept");
    fs::create_symlink(fakes::Root() + "/tmp/elsewhere", fakes::Root() + "/dev/console");
    CaptureStdout();
    __ASSERT_ATSC3("a == b", "core/src/X", 7);

    EXPECT_THAT(GetCapturedStdout(), HasSubstr("(cmp failed) err : 47, path_name : "));
    EXPECT_EQ(fakes::ReadDeviceFile("/tmp/elsewhere"), "kept");
    EXPECT_TRUE(fakes::dlog::Has("ASSERT: a == b [core/src/X:7]"));
}

TEST_F(Assertion, TheEndingKindEndsWithStatusZeroOnAForgivingImage) {
    SurviveAssertions();
    EXPECT_EXIT(Reporting([] { __ASSERT("!m", "core/src/Semaphore", 15); }), testing::ExitedWithCode(0),
                "\\[core/src/Semaphore:15\\] ASSERT: !m");
}

TEST_F(Assertion, TheEndingKindCrashesElsewhere) {
    EXPECT_EXIT(__ASSERT("!m", "core/src/Semaphore", 15), Crashed, "");
}

TEST_F(Assertion, AConditionThatHoldsReportsNothing) {
    EXPECT_TRUE(AssertAtsc3(true, "m", "core/src/X", 7));
    AssertExit(true, "m", "core/src/X", 7);
    EXPECT_TRUE(fakes::dlog::Lines().empty());
}

class CanonicalPath : public RuntimeLog {
protected:
    CanonicalPath() {
        fakes::WriteDeviceFile("/tmp/file", "content");
        fs::create_symlink(At("/tmp/file"), At("/tmp/link"));
        fs::create_directory_symlink(At("/tmp"), At("/linked"));
    }
    static std::string At(const std::string& path) { return fakes::Root() + path; }
    static bool Opens(const std::string& path, const char* mode = "rb") {
        std::FILE* file = fopen_with_realpath(At(path).c_str(), mode);
        if (file != nullptr) {
            std::fclose(file);
        }
        return file != nullptr;
    }
    /// What check_realpath prints for a path it refuses; empty when it accepts it.
    static std::string Refusal(const std::string& path) {
        CaptureStdout();
        const bool accepted = check_realpath(At(path).c_str());
        std::string printed = GetCapturedStdout();
        EXPECT_EQ(accepted, printed.empty());
        return printed;
    }
};

TEST_F(CanonicalPath, AnExistingFileIsOpenedOnlyWithoutLinksAndDots) {
    EXPECT_TRUE(Opens("/tmp/file"));
    for (const char* path : {"/tmp/link", "/linked/file", "/tmp/./file", "/tmp/../tmp/file"}) {
        EXPECT_FALSE(Opens(path)) << path;
    }
}

TEST_F(CanonicalPath, AFileThatDoesNotExistYetIsCreated) {
    EXPECT_FALSE(Opens("/tmp/new", "rb"));
    EXPECT_TRUE(Opens("/tmp/new", "wb"));
    EXPECT_TRUE(fakes::DeviceFileExists("/tmp/new"));
}

TEST_F(CanonicalPath, TheCheckRefusesLinksDotsAndMissingFoldersAndSaysSo) {
    EXPECT_EQ(Refusal("/tmp/file"), "");
    EXPECT_EQ(Refusal("/tmp"), "");
    EXPECT_EQ(Refusal("/tmp/link"), "(cmp failed) err : 47, path_name : " + At("/tmp/link") +
                                        ", resolved_path : " + At("/tmp/file") + "\n");
    EXPECT_THAT(Refusal("/tmp/../tmp/file"), HasSubstr("(cmp failed) err : 47"));
    EXPECT_THAT(Refusal("/nowhere/file"), HasSubstr("(cmp failed) path_name : " + At("/nowhere/file")));
}

TEST_F(CanonicalPath, TheCheckComparesAsFarAsThePathGoes) {
    fs::create_symlink(At("/tmp/file"), At("/tmp/fi"));
    EXPECT_EQ(Refusal("/tmp/fi"), "") << "a link whose target begins with its own path";
    EXPECT_FALSE(Opens("/tmp/fi")) << "opening compares the whole path";
}

}  // namespace

/// In place of the system's, whose texts depend on the machine: every frame shows its place in the stack.
extern "C" char** backtrace_symbols(void* const* /*frames*/, int count) noexcept {
    constexpr std::size_t kLength = 20;
    const auto number = static_cast<std::size_t>(count);
    g_frames = count;
    // One block of memory, as the caller frees it: the pointers and behind them the texts.
    auto** const symbols = static_cast<char**>(std::malloc(number * (sizeof(char*) + kLength)));
    char* text = reinterpret_cast<char*>(symbols + number);
    for (int index = 0; index < count; ++index, text += kLength) {
        std::snprintf(text, kLength, "frame %d", index);
        symbols[index] = text;
    }
    return symbols;
}

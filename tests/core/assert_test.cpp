#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "Logging.h"
#include "death.h"
#include "log_fixture.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

class Assertion : public RuntimeLog {
protected:
    static void MakeConsole() { fakes::WriteDeviceFile("/dev/console", ""); }
};

TEST_F(Assertion, CrashesOnAnImageWithoutTheReleaseMarker) {
    EXPECT_EXIT(__ASSERT_ATSC3("a == b", "core/src/X", 7), Crashed, "");
}

TEST_F(Assertion, CarriesOnWhereTheReleaseMarkerCanBeOpened) {
    SurviveAssertions();
    __ASSERT_ATSC3("a == b", "core/src/X", 7);

    EXPECT_EQ(fakes::dlog::Find("ASSERT").priority, 6);
    EXPECT_TRUE(fakes::dlog::Has("ASSERT: a == b [core/src/X:7]"));
}

TEST_F(Assertion, CrashesWhereTheReleaseMarkerCannotBeOpenedForUpdate) {
    fakes::MakeDeviceFolder("/etc/release");
    EXPECT_EXIT(__ASSERT_ATSC3("a == b", "core/src/X", 7), Crashed, "");
}

TEST_F(Assertion, ReportsOnTheConsole) {
    SurviveAssertions();
    MakeConsole();
    __ASSERT_ATSC3("a == b", "core/src/X", 7);

    const std::string report = fakes::ReadDeviceFile("/dev/console");
    char thread[64];
    std::snprintf(thread, sizeof(thread), "Posix Thread ID: 0x%08lx\n", ThreadId());
    EXPECT_THAT(report, HasSubstr("This sentence is redirected to a serial output. \n"
                                  "Assertion failed: core/src/X (7) - a == b\n"
                                  "Debug information:\n" +
                                  std::string(thread) + "Linux Thread ID:   "));
    EXPECT_THAT(report, HasSubstr("Callstack:\n"));
}

TEST_F(Assertion, LeavesNoConsoleBehindWhereThereIsNone) {
    SurviveAssertions();
    __ASSERT_ATSC3("a == b", "core/src/X", 7);
    EXPECT_FALSE(fakes::DeviceFileExists("/dev/console"));
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
    EXPECT_EXIT(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            __ASSERT("!m", "core/src/Semaphore", 15);
        },
        testing::ExitedWithCode(0), "\\[core/src/Semaphore:15\\] ASSERT: !m");
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

TEST_F(CanonicalPath, AnExistingFileIsOpened) {
    EXPECT_TRUE(Opens("/tmp/file"));
}

TEST_F(CanonicalPath, ASymbolicLinkThatExistsIsNotOpened) {
    EXPECT_FALSE(Opens("/tmp/link"));
    EXPECT_FALSE(Opens("/linked/file"));
}

TEST_F(CanonicalPath, APathWithDotsIsNotOpened) {
    EXPECT_FALSE(Opens("/tmp/./file"));
    EXPECT_FALSE(Opens("/tmp/../tmp/file"));
}

TEST_F(CanonicalPath, AFileThatDoesNotExistYetIsCreated) {
    EXPECT_FALSE(Opens("/tmp/new", "rb"));
    EXPECT_TRUE(Opens("/tmp/new", "wb"));
    EXPECT_TRUE(fakes::DeviceFileExists("/tmp/new"));
}

TEST_F(CanonicalPath, TheCheckAcceptsACanonicalPath) {
    EXPECT_EQ(Refusal("/tmp/file"), "");
    EXPECT_EQ(Refusal("/tmp"), "");
}

TEST_F(CanonicalPath, TheCheckRefusesLinksAndDotsAndSaysSo) {
    EXPECT_EQ(Refusal("/tmp/link"), "(cmp failed) err : 47, path_name : " + At("/tmp/link") +
                                        ", resolved_path : " + At("/tmp/file") + "\n");
    EXPECT_THAT(Refusal("/tmp/../tmp/file"), HasSubstr("(cmp failed) err : 47"));
}

TEST_F(CanonicalPath, TheCheckRefusesAPathThroughAFolderThatIsMissing) {
    EXPECT_THAT(Refusal("/nowhere/file"), HasSubstr("(cmp failed) path_name : " + At("/nowhere/file")));
}

}  // namespace

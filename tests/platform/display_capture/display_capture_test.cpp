#include "display_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "device_path.h"
#include "display_capture/capture_tools.h"
#include "files.h"
#include "log_lines.h"
#include "temporary_folder.h"
#include "variable.h"

namespace {

namespace fs = std::filesystem;

/// A machine whose programs are the ones that a test installs. Each writes its command line down, then the
/// file that its last argument names.
class Capture : public testing::Test {
protected:
    Capture() { fs::create_directories(DevicePath(kFolder)); }
    ~Capture() override { fs::remove_all(DevicePath("/media")); }

    void Install(const std::string& program, const std::string& body = "exit 0") {
        const std::string script = tools.Path() + "/" + program;
        WriteFile(script, "#!/bin/sh\nprintf '%s\\n' \"" + program + " $*\" >> " + tools.Path() +
                              "/log\nfor last; do :; done\nprintf " + program + " > \"${last#*:}\"\n" + body +
                              "\n");
        fs::permissions(script, fs::perms(0755));
    }
    /// An X server, a tool that takes its picture and one that converts it.
    void InstallX11(const std::string& import = "exit 0", const std::string& convert = "exit 0") {
        Install("import", import);
        Install("convert", convert);
        x11.Set(":7");
    }
    /// The programs that ran, in order, without their arguments.
    std::string Ran() const {
        std::string programs;
        for (const std::string& line : ReadLines(tools.Path() + "/log")) {
            programs += (programs.empty() ? "" : " ") + line.substr(0, line.find(' '));
        }
        return programs;
    }
    std::string CommandLines() const { return ReadFile(tools.Path() + "/log"); }
    static int Request(const std::string& file, int format = DC_FORMAT_JPEG) {
        const dc_capture_request request = Make(file, format);
        return dc_request_capture_to_file_sync(&request);
    }
    static dc_capture_request Make(const std::string& file, int format = DC_FORMAT_JPEG) {
        return {file.c_str(), 960, 540, DC_PLANE_ALL, DC_ROTATION_NONE, format, 100};
    }
    /// Blanks, quotes and what shells and picture tools would take for more than a name.
    static constexpr const char* kFolder = "/media/it's \"my\" $(touch pwned) stick %d[0]";
    const std::string file = std::string(kFolder) + "/Capturefile_1";
    PlatformLog log;
    TemporaryFolder tools;
    Variable path{"PATH", tools.Path().c_str()};
    Variable wayland{"WAYLAND_DISPLAY", nullptr};
    Variable x11{"DISPLAY", nullptr};
};

TEST_F(Capture, WithoutADisplayItFailsAndSaysWhy) {
    Install("import");
    Install("convert");

    EXPECT_LT(Request(file), 0);

    EXPECT_EQ(log.Count("no display to capture"), 1);
    EXPECT_EQ(Ran(), "");
    EXPECT_TRUE(fs::is_empty(DevicePath(kFolder)));
}

TEST_F(Capture, ThePictureAppearsUnderItsNameAndNothingElseStays) {
    InstallX11();

    EXPECT_EQ(Request(file), 0);

    EXPECT_EQ(ReadFolder(DevicePath(kFolder)), (Files{{"Capturefile_1", "convert"}}));
    EXPECT_THAT(CommandLines(),
                testing::ContainsRegex("import -silent -window root ppm:\\.capture-......\\.png\n"
                                       "convert ppm:\\.capture-......\\.png -resize 960x540! "
                                       "-depth 8 -quality 100 jpeg:\\.capture-......\n"));
}

TEST_F(Capture, RawPicturesAreRowsOfColours) {
    InstallX11();

    EXPECT_EQ(Request(file, DC_FORMAT_RAW), 0);

    EXPECT_THAT(CommandLines(), testing::HasSubstr(" -resize 960x540! -depth 8 rgb:.capture-"));
}

TEST_F(Capture, TheToolOfTheDisplayIsTaken) {
    for (const char* tool : {"grim", "import", "xwd", "scrot", "convert"}) {
        Install(tool);
    }
    x11.Set(":7");
    EXPECT_EQ(Request(file), 0);
    EXPECT_EQ(Ran(), "import convert");

    wayland.Set("wayland-1");
    EXPECT_EQ(Request(file), 0);
    EXPECT_EQ(Ran(), "import convert grim convert");
}

TEST_F(Capture, WhatIsInstalledIsTaken) {
    Install("scrot");
    Install("magick");
    x11.Set(":7");
    EXPECT_EQ(Request(file), 0);

    Install("xwd");
    EXPECT_EQ(Request(file), 0);

    EXPECT_EQ(Ran(), "scrot magick xwd magick");
}

TEST_F(Capture, AToolThatFailsIsFollowedByTheNext) {
    Install("grim", "exit 1");
    Install("import", "kill -9 $$");
    Install("xwd");
    Install("convert");
    wayland.Set("wayland-1");
    x11.Set(":7");

    EXPECT_EQ(Request(file), 0);

    EXPECT_EQ(Ran(), "grim import xwd convert");
    EXPECT_EQ(log.Count("capture with grim failed: grim: status 1"), 1);
    EXPECT_EQ(log.Count("capture with import failed: import: signal 9"), 1);
}

TEST_F(Capture, AToolThatDoesNotEndIsKilledAndFollowedByTheNext) {
    InstallX11("exec /bin/sleep 1000");
    Install("xwd");

    // Long enough, in the end, for those that do end.
    unsigned timeoutMs = 100;
    while (timeoutMs < 60000 && !platform::Capture(Make(file), timeoutMs)) {
        timeoutMs *= 2;
    }

    EXPECT_THAT(Ran(), testing::EndsWith("xwd convert"));
    EXPECT_EQ(ReadFile(DevicePath(file)), "convert");
    EXPECT_GE(log.Count("capture with import failed: import: did not end"), 1);
}

TEST_F(Capture, NothingStaysWhenEveryToolFails) {
    InstallX11("exit 1");

    EXPECT_LT(Request(file), 0);

    EXPECT_TRUE(fs::is_empty(DevicePath(kFolder)));
    EXPECT_EQ(log.Count("cannot capture the display: every tool failed"), 1);
}

TEST_F(Capture, AnOldPictureStaysWhenTheCaptureFails) {
    WriteFile(DevicePath(file), "old");
    InstallX11("exit 0", "exit 1");

    EXPECT_LT(Request(file), 0);

    EXPECT_EQ(ReadFile(DevicePath(file)), "old");
}

TEST_F(Capture, ALinkInThePicturesPlaceIsNotFollowed) {
    const std::string precious = DevicePath("/media/precious");
    WriteFile(precious, "for root alone");
    fs::permissions(precious, fs::perms(0600));
    InstallX11("exit 0", "/bin/ln -sf '" + precious + "' \"${last#*:}\"");

    EXPECT_LT(Request(file), 0);

    EXPECT_EQ(ModeOf(precious), 0600U);
    EXPECT_TRUE(fs::is_empty(DevicePath(kFolder)));
    EXPECT_EQ(log.Count("cannot write the capture"), 1);
}

TEST_F(Capture, WithoutAToolItFailsAndSaysWhy) {
    x11.Set(":7");

    EXPECT_LT(Request(file), 0);

    EXPECT_EQ(log.Count("cannot capture the display: no capture tool is installed"), 1);
}

TEST_F(Capture, AFolderThatIsNotThereIsAFailure) {
    InstallX11();

    EXPECT_LT(Request("/media/missing/file"), 0);

    EXPECT_EQ(log.Count("cannot write the capture /media/missing/file"), 1);
    EXPECT_EQ(Ran(), "");
}

TEST_F(Capture, RequestsThatMakeNoSenseAreRefused) {
    const dc_capture_request good = Make(file);
    std::vector<dc_capture_request> requests(9, good);
    requests[0].file = nullptr;
    requests[1].file = "";
    requests[2].width = 0;
    requests[3].height = 16385;
    requests[4].plane = 0;
    requests[5].rotation = 1;
    requests[6].format = 2;
    requests[7].quality = 0;
    requests[8].quality = 101;
    InstallX11();

    for (const dc_capture_request& request : requests) {
        EXPECT_LT(dc_request_capture_to_file_sync(&request), 0);
    }
    EXPECT_LT(dc_request_capture_to_file_sync(nullptr), 0);
    EXPECT_EQ(Ran(), "");
}

}  // namespace

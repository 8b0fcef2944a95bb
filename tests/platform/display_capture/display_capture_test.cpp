#include "display_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "device_path.h"
#include "display_capture/capture_tools.h"
#include "log_lines.h"
#include "temporary_folder.h"

namespace {

namespace fs = std::filesystem;

std::string ReadFile(const fs::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// An environment variable that has its old value again afterwards.
class Variable {
public:
    Variable(const char* name, const char* value) : m_name(name) {
        const char* old = std::getenv(name);
        m_wasSet = old != nullptr;
        m_old = m_wasSet ? old : "";
        Set(value);
    }
    ~Variable() { Set(m_wasSet ? m_old.c_str() : nullptr); }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;
    void Set(const char* value) {
        if (value != nullptr) {
            setenv(m_name, value, 1);
        } else {
            unsetenv(m_name);
        }
    }

private:
    const char* m_name;
    bool m_wasSet;
    std::string m_old;
};

/// A machine whose programs are the ones that a test installs. Each writes its command line down, then the
/// file that its last argument names.
class Capture : public testing::Test {
protected:
    Capture() { fs::create_directories(DevicePath(kFolder)); }
    ~Capture() override { fs::remove_all(DevicePath("/media")); }

    void Install(const std::string& program, const std::string& body = "exit 0") {
        const std::string script = tools.Path() + "/" + program;
        std::ofstream(script) << "#!/bin/sh\n"
                              << "printf '%s\\n' \"" << program << " $*\" >> " << tools.Path() << "/log\n"
                              << "for last; do :; done\n"
                              << "printf " << program << " > \"${last#*:}\"\n"
                              << body << "\n";
        chmod(script.c_str(), 0755);
    }
    /// The programs that ran, in order, without their arguments.
    std::string Ran() const {
        std::ifstream lines(tools.Path() + "/log");
        std::string programs;
        for (std::string line; std::getline(lines, line);) {
            programs += (programs.empty() ? "" : " ") + line.substr(0, line.find(' '));
        }
        return programs;
    }
    std::string CommandLines() const { return ReadFile(tools.Path() + "/log"); }
    static int Request(const std::string& file, int format = DC_FORMAT_JPEG) {
        const dc_capture_request request{file.c_str(), 960, 540, DC_PLANE_ALL, DC_ROTATION_NONE, format, 100};
        return dc_request_capture_to_file_sync(&request);
    }
    static std::vector<std::string> FilesIn(const std::string& devicePath) {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(DevicePath(devicePath))) {
            names.push_back(entry.path().filename().string());
        }
        return names;
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
    EXPECT_TRUE(FilesIn(kFolder).empty());
}

TEST_F(Capture, ThePictureAppearsUnderItsNameAndNothingElseStays) {
    Install("import");
    Install("convert");
    x11.Set(":7");

    EXPECT_EQ(Request(file), 0);

    EXPECT_EQ(FilesIn(kFolder), std::vector<std::string>{"Capturefile_1"});
    EXPECT_EQ(ReadFile(DevicePath(file)), "convert");
    EXPECT_THAT(CommandLines(),
                testing::ContainsRegex("import -silent -window root ppm:\\.capture-......\\.png\n"
                                       "convert ppm:\\.capture-......\\.png -resize 960x540! "
                                       "-depth 8 -quality 100 jpeg:\\.capture-......\n"));
}

TEST_F(Capture, RawPicturesAreRowsOfColours) {
    Install("import");
    Install("convert");
    x11.Set(":7");

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
    Install("import", "exec /bin/sleep 20");
    Install("xwd");
    Install("convert");
    x11.Set(":7");
    constexpr unsigned kTimeoutMs = 3000;  // enough for those that do end
    const dc_capture_request request{file.c_str(),   960, 540, DC_PLANE_ALL, DC_ROTATION_NONE,
                                     DC_FORMAT_JPEG, 100};

    EXPECT_TRUE(platform::Capture(request, kTimeoutMs));

    EXPECT_EQ(Ran(), "import xwd convert");
    EXPECT_EQ(log.Count("capture with import failed: import: did not end"), 1);
}

TEST_F(Capture, NothingStaysWhenEveryToolFails) {
    Install("import", "exit 1");
    Install("convert");
    x11.Set(":7");

    EXPECT_LT(Request(file), 0);

    EXPECT_TRUE(FilesIn(kFolder).empty());
    EXPECT_EQ(log.Count("cannot capture the display: every tool failed"), 1);
}

TEST_F(Capture, AnOldPictureStaysWhenTheCaptureFails) {
    std::ofstream(DevicePath(file)) << "old";
    Install("import");
    Install("convert", "exit 1");
    x11.Set(":7");

    EXPECT_LT(Request(file), 0);

    EXPECT_EQ(ReadFile(DevicePath(file)), "old");
}

TEST_F(Capture, WithoutAToolItFailsAndSaysWhy) {
    x11.Set(":7");

    EXPECT_LT(Request(file), 0);

    EXPECT_EQ(log.Count("cannot capture the display: no capture tool is installed"), 1);
}

TEST_F(Capture, AFolderThatIsNotThereIsAFailure) {
    Install("import");
    Install("convert");
    x11.Set(":7");

    EXPECT_LT(Request("/media/missing/file"), 0);

    EXPECT_EQ(log.Count("cannot write the capture /media/missing/file"), 1);
    EXPECT_EQ(Ran(), "");
}

TEST_F(Capture, RequestsThatMakeNoSenseAreRefused) {
    const dc_capture_request good{file.c_str(),   960, 540, DC_PLANE_ALL, DC_ROTATION_NONE,
                                  DC_FORMAT_JPEG, 100};
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
    Install("import");
    Install("convert");
    x11.Set(":7");

    for (const dc_capture_request& request : requests) {
        EXPECT_LT(dc_request_capture_to_file_sync(&request), 0);
    }
    EXPECT_LT(dc_request_capture_to_file_sync(nullptr), 0);
    EXPECT_EQ(Ran(), "");
}

}  // namespace

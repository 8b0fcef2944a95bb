/// What the threads that are never joined may still call while the process ends.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "child_process.h"
#include "device_path.h"
#include "display_capture/capture_tools.h"
#include "key_service.h"
#include "temporary_folder.h"
#include "vconf.h"

namespace {

constexpr int kWorks = 7;
constexpr const char* kKey = "db/test/end";

bool PlatformWorks() {
    const std::string log = std::string(std::getenv("ZOL_ROOT")) + "/var/log";
    dc_capture_request request{};
    request.format = DC_FORMAT_JPEG;
    int value = 0;
    return DevicePath("/var/log") == log && DevicePath(log.c_str()) == log &&
           platform::CaptureWays(request, "raw", "picture").size() == 1 && vconf_set_int(kKey, 3) == 0 &&
           vconf_get_int(kKey, &value) == 0 && value == 3;
}

/// Made before main, so that it goes after everything that is made on first use.
class LastToGo {
public:
    ~LastToGo() {
        if (m_isArmed) {
            _exit(PlatformWorks() ? kWorks : 1);
        }
    }
    void Arm() { m_isArmed = true; }

private:
    bool m_isArmed = false;
};

LastToGo g_lastToGo;

const child::Program g_useUntilTheEnd("use-until-the-end", [](const child::Arguments& tools) {
    setenv("PATH", tools.front().c_str(), 1);
    unsetenv("WAYLAND_DISPLAY");
    setenv("DISPLAY", ":0", 1);
    if (PlatformWorks()) {
        g_lastToGo.Arm();
    }
    return 1;
});

TEST(ProcessEnd, PathsKeysAndCaptureToolsCanBeUsedUntilTheProcessIsGone) {
    const TemporaryFolder root;
    const KeyService keys(root.Path());
    const TemporaryFolder tools;
    for (const char* name : {"import", "convert"}) {
        ASSERT_EQ(symlink("/bin/true", (tools.Path() + "/" + name).c_str()), 0);
    }

    EXPECT_EQ(child::Process("use-until-the-end", {tools.Path()}, root.Path()).Wait(), kWorks);
}

}  // namespace

#pragma once
/// A test recorder with a stick, keys to press and tools that stand in for those that it calls.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "ShellQuote.h"
#include "ZOLTestRecording.h"
#include "device_test.h"
#include "fake_diagnostics.h"
#include "fake_vconf.h"

constexpr int kStart = 95;
constexpr int kStop = 96;
constexpr const char* kStateKey = "db/window_system/system_state";

constexpr const char* kStartToast =
    "app_launcher -s org.kaldo.alert-syspopup type toast text Recording started... timeout 5";
constexpr const char* kStopToast =
    "app_launcher -s org.kaldo.alert-syspopup type toast text Recording finishing... timeout 10";

/// A tool that runs for as long as its file exists: at the latest the test's end ends it.
inline const std::string kLingering = "while [ -e \"$0\" ]; do sleep 0.1; done; ";

/// All processes that are started while this lives, whoever started them: they inherit the end of a pipe.
class Offspring {
public:
    Offspring() { Open(); }
    ~Offspring() { Close(); }
    Offspring(const Offspring&) = delete;
    Offspring& operator=(const Offspring&) = delete;

    /// Waits until those that were started so far are gone. Not while the recorder runs a command.
    static void AwaitEnd() {
        close(std::exchange(s_inherited, -1));
        char nothing = 0;
        EXPECT_EQ(read(s_reading, &nothing, 1), 0);
        Close();
        Open();
    }

private:
    static void Open() {
        int ends[2] = {-1, -1};
        ASSERT_EQ(pipe(ends), 0);
        s_reading = ends[0];
        s_inherited = ends[1];
        fcntl(s_reading, F_SETFD, FD_CLOEXEC);
    }
    static void Close() {
        close(std::exchange(s_reading, -1));
        close(std::exchange(s_inherited, -1));
    }

    static inline int s_reading = -1;
    static inline int s_inherited = -1;
};

/// The tools note how they were called.
class RecordingFixture : public DeviceTest {
protected:
    RecordingFixture() : m_path(SearchPath()) {
        m_tools = std::filesystem::path(fakes::Root()) / "tools";
        std::filesystem::create_directories(m_tools);
        for (const char* name : {"app_launcher", "dlogutil", "killall"}) {
            Tool(name, "echo \"" + std::string(name) + "${*:+ $*}\" >> '" + Calls().string() + "'");
        }
        setenv("PATH", (m_tools.string() + ":" + m_path).c_str(), 1);
        Plug("/media/stick");
        m_recording.setKeyCombinationHandler();
    }

    ~RecordingFixture() override {
        // The recording is one of the process: leave it idle for the next test.
        std::filesystem::remove(m_tools / "dlogutil");
        Offspring::AwaitEnd();
        if (Recording()) {
            Plug(m_device);
            fakes::keys::Press(kStop);
        }
        m_recording.removeKeyCombinationHandler();
        setenv("PATH", m_path.c_str(), 1);
    }

    void Tool(const std::string& name, const std::string& body) const {
        std::ofstream(m_tools / name) << "#!/bin/sh\n" << body << '\n';
        std::filesystem::permissions(m_tools / name, std::filesystem::perms::all);
    }

    static std::filesystem::path Calls() { return std::filesystem::path(fakes::Root()) / "calls"; }

    /// The calls of the tools so far, one each.
    static std::vector<std::string> ToolCalls() {
        std::istringstream text(Read(Calls()));
        std::vector<std::string> calls;
        for (std::string line; std::getline(text, line);) {
            calls.push_back(line);
        }
        return calls;
    }

    /// Plugs a stick in that is mounted at this path of the device.
    void Plug(const std::string& mountPath) {
        m_device = mountPath;
        m_stick = fakes::Root() + mountPath;
        std::filesystem::create_directories(m_stick);
        fakes::usb::SetStick(mountPath);
    }

    /// Starts a recording whose follower of the log ends by itself, and waits for that.
    static void Start() {
        fakes::keys::Press(kStart);
        Offspring::AwaitEnd();
    }
    static void Stop() { fakes::keys::Press(kStop); }

    static bool Recording() { return fakes::vconf::GetInt(kStateKey, 0) == 1; }

    static std::string Read(const std::filesystem::path& path) {
        std::ostringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }

    /// Names in the stick's archive, as tar lists them.
    std::string ListArchive() const {
        return Shell("tar -tzf " + zol::ShellQuote(m_stick + "/testrecording.tar.gz") + " | sort");
    }
    /// What a file of the stick's archive holds.
    std::string Unpack(const std::string& name) const {
        return Shell("tar -xzOf " + zol::ShellQuote(m_stick + "/testrecording.tar.gz") + " " + name);
    }

    std::string m_path;
    std::filesystem::path m_tools;
    std::string m_device;  ///< where the stick is mounted, on the device
    std::string m_stick;   ///< the same on this machine
    Offspring m_offspring;
    TCTestRecording m_recording;

private:
    static std::string SearchPath() {
        const char* path = std::getenv("PATH");
        return path != nullptr ? path : "";
    }
    /// What a command prints.
    static std::string Shell(const std::string& command) {
        const std::string output = fakes::Root() + "/output";
        EXPECT_EQ(std::system((command + " > " + zol::ShellQuote(output)).c_str()), 0);
        return Read(output);
    }
};

#include "zol_daemon.h"

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "fake_dlog.h"
#include "fakes.h"

namespace {

using testing::ElementsAre;

/// What the parts did, and which of them shall fail.
struct Trace {
    std::vector<std::string> steps;
    std::string failing;
    /// Option that mallopt refuses.
    int refusedOption = 0;
    bool interrupt = false;
    bool haveLoop = true;
};

Trace g_trace;

/// A part that tells when it comes and goes, and throws while it is built when it is the failing one.
class Part {
public:
    explicit Part(const char* name) : m_name(name) {
        if (g_trace.failing == name) {
            if (g_trace.interrupt) {
                throw boost::thread_interrupted();
            }
            throw std::runtime_error("part failed");
        }
        g_trace.steps.push_back(std::string("+") + name);
    }
    ~Part() { g_trace.steps.push_back(std::string("-") + m_name); }
    Part(const Part&) = delete;
    Part& operator=(const Part&) = delete;

private:
    const char* m_name;
};

struct FakeServer : Part {
    explicit FakeServer(bool testMode) : Part("server") { EXPECT_FALSE(testMode); }
};
struct FakeSignals : Part {
    explicit FakeSignals(GMainLoop* /*loop*/) : Part("signals") {}
    static void SetServer(const FakeServer* server) {
        g_trace.steps.emplace_back(server != nullptr ? "signal server" : "spare server");
    }
};
/// Clock, logger and control adapter need no clean-up: only their coming is traced.
struct FakeClock {
    FakeClock() { g_trace.steps.emplace_back("+clock"); }
    void LoadTimeShift() { g_trace.steps.emplace_back("load shift"); }
};
struct FakeLogger {
    FakeLogger() { g_trace.steps.emplace_back("+logger"); }
};
struct FakeManager : Part {
    FakeManager(FakeClock&, FakeServer*, FakeLogger*) : Part("manager") {}
};
struct FakePower : Part {
    explicit FakePower(FakeManager*) : Part("power") {}
};
struct FakeControl {
    FakeControl(FakeServer&, FakeManager&) { g_trace.steps.emplace_back("+control"); }
};
struct FakeRecording {
    FakeRecording() { g_trace.steps.emplace_back("+recording"); }
    ~FakeRecording() { g_trace.steps.emplace_back("-recording"); }
    void setKeyCombinationHandler() { g_trace.steps.emplace_back("key combinations"); }
};

struct TracedParts {
    using Server = FakeServer;
    using QuitSignals = FakeSignals;
    using Clock = FakeClock;
    using UsageLogger = FakeLogger;
    using PolicyManager = FakeManager;
    using PowerHooks = FakePower;
    using Control = FakeControl;
    using TestRecording = FakeRecording;

    static int SetMallocOption(int option, int value) {
        const char* const name = option == M_ARENA_MAX        ? "arenas"
                                 : option == M_MMAP_THRESHOLD ? "mmap threshold"
                                                              : "unknown option";
        g_trace.steps.push_back(name + (" " + std::to_string(value)));
        return option == g_trace.refusedOption ? 0 : 1;
    }
    static GMainLoop* NewMainLoop() {
        g_trace.steps.emplace_back("new loop");
        // Never run nor looked into: any address serves.
        static int place = 0;
        return g_trace.haveLoop ? reinterpret_cast<GMainLoop*>(&place) : nullptr;
    }
    static void EnableFileLog(bool on) { g_trace.steps.emplace_back(on ? "file log on" : "file log off"); }
    static void InitializeStorage(FakeManager*, FakeServer*) { g_trace.steps.emplace_back("storage"); }
    static void RunMainLoop(GMainLoop*) { g_trace.steps.emplace_back("run"); }
};

class Daemon : public testing::Test {
protected:
    Daemon() {
        fakes::Reset();
        g_trace = Trace();
    }

    static int Run() { return zol_daemon::main<TracedParts>(); }

    /// Texts of the application log, in order.
    static std::vector<std::string> Messages() {
        std::vector<std::string> messages;
        for (const fakes::LogLine& line : fakes::dlog::Lines()) {
            if (line.tag == "ZOL") {
                messages.push_back(line.text.substr(line.text.find(" > ") + 3));
            }
        }
        return messages;
    }
};

TEST_F(Daemon, StartUpAndTeardownHappenInOneFixedOrder) {
    EXPECT_EQ(Run(), 0);

    EXPECT_THAT(g_trace.steps, ElementsAre("arenas 1", "mmap threshold 32768", "new loop", "+signals",
                                           "file log on", "+server", "signal server", "+clock", "load shift",
                                           "+logger", "+manager", "storage", "+power", "+control", "run",
                                           "-power", "-manager", "spare server", "-server"));
    EXPECT_THAT(Messages(), ElementsAre("Malloc options set correctly!", "Create g_main_loop",
                                        "test mode is on", "Dbus server created. Testmode: 0"));
}

TEST_F(Daemon, EveryLineCarriesTheNamesOfTheEntryPoint) {
    Run();

    for (const fakes::LogLine& line : fakes::dlog::Lines()) {
        EXPECT_EQ(line.text.rfind("zol_daemon: main(", 0), 0U) << line.text;
    }
    EXPECT_EQ(fakes::dlog::Find("test mode is on").priority, DLOG_PRIORITY_INFO);
    EXPECT_EQ(fakes::dlog::Find("Create g_main_loop").priority, DLOG_PRIORITY_DEBUG);
}

TEST_F(Daemon, TheMmapThresholdIsSetOnlyAfterTheArenaLimitWasAccepted) {
    g_trace.refusedOption = M_ARENA_MAX;

    EXPECT_EQ(Run(), 0);

    EXPECT_THAT(g_trace.steps, testing::Contains("arenas 1"));
    EXPECT_THAT(g_trace.steps, testing::Not(testing::Contains("mmap threshold 32768")));
    EXPECT_THAT(g_trace.steps, testing::Contains("run")) << "the start goes on";
    EXPECT_EQ(Messages().front(), "Create g_main_loop");
}

TEST_F(Daemon, ARefusedMmapThresholdIsSilentAndTheStartGoesOn) {
    g_trace.refusedOption = M_MMAP_THRESHOLD;

    EXPECT_EQ(Run(), 0);

    EXPECT_THAT(g_trace.steps, testing::Contains("run"));
    EXPECT_EQ(Messages().front(), "Create g_main_loop");
}

TEST_F(Daemon, WithoutTheDebugMarkerThereIsNoTestRecorder) {
    Run();

    EXPECT_THAT(g_trace.steps, testing::Not(testing::Contains("+recording")));
    EXPECT_FALSE(fakes::dlog::Has("Debug Image!"));
}

TEST_F(Daemon, AnEmptyFileMakesADebugImage) {
    fakes::WriteDeviceFile("/etc/debug", "");

    Run();

    EXPECT_THAT(g_trace.steps,
                ElementsAre("arenas 1", "mmap threshold 32768", "new loop", "+signals", "file log on",
                            "+server", "signal server", "+clock", "load shift", "+logger", "+manager",
                            "storage", "+power", "+control", "+recording", "key combinations", "run",
                            "-power", "-manager", "spare server", "-server"));
    EXPECT_EQ(fakes::dlog::Find("Debug Image!").priority, DLOG_PRIORITY_DEBUG);
}

TEST_F(Daemon, AFolderMakesADebugImageToo) {
    fakes::MakeDeviceFolder("/etc/debug");

    Run();

    EXPECT_TRUE(fakes::dlog::Has("Debug Image!"));
}

TEST_F(Daemon, WithoutAMainLoopEverythingIsBuiltReportedAndTakenDown) {
    g_trace.haveLoop = false;

    EXPECT_EQ(Run(), 0);

    EXPECT_THAT(g_trace.steps, ElementsAre("arenas 1", "mmap threshold 32768", "new loop", "+signals",
                                           "file log on", "+server", "signal server", "+clock", "load shift",
                                           "+logger", "+manager", "storage", "+power", "+control", "-power",
                                           "-manager", "spare server", "-server"));
    EXPECT_THAT(Messages(),
                ElementsAre("Malloc options set correctly!", "Create g_main_loop", "test mode is on",
                            "Dbus server created. Testmode: 0", "failed to create g_main_loop"));
    EXPECT_EQ(fakes::dlog::Find("failed to create g_main_loop").priority, DLOG_PRIORITY_ERROR);
}

TEST_F(Daemon, AnExceptionOutOfThePolicyManagerDestroysOnlyTheServer) {
    g_trace.failing = "manager";

    EXPECT_EQ(Run(), 0);

    EXPECT_THAT(g_trace.steps, ElementsAre("arenas 1", "mmap threshold 32768", "new loop", "+signals",
                                           "file log on", "+server", "signal server", "+clock", "load shift",
                                           "+logger", "spare server", "-server"));
    EXPECT_EQ(Messages().back(), "ZOL error");
    EXPECT_EQ(fakes::dlog::Find("ZOL error").priority, DLOG_PRIORITY_ERROR);
}

TEST_F(Daemon, AnExceptionOutOfThePowerHooksDestroysManagerThenServer) {
    g_trace.failing = "power";

    EXPECT_EQ(Run(), 0);

    EXPECT_THAT(g_trace.steps,
                ElementsAre("arenas 1", "mmap threshold 32768", "new loop", "+signals", "file log on",
                            "+server", "signal server", "+clock", "load shift", "+logger", "+manager",
                            "storage", "-manager", "spare server", "-server"));
}

TEST_F(Daemon, AnInterruptedThreadIsReportedAsSuch) {
    g_trace.failing = "server";
    g_trace.interrupt = true;

    EXPECT_EQ(Run(), 0);

    EXPECT_THAT(g_trace.steps,
                ElementsAre("arenas 1", "mmap threshold 32768", "new loop", "+signals", "file log on"));
    EXPECT_EQ(Messages().back(), "boost::thread_interrupted");
}

TEST_F(Daemon, TheTestRecorderIsNeverDestroyed) {
    fakes::MakeDeviceFolder("/etc/debug");

    Run();

    EXPECT_THAT(g_trace.steps, testing::Not(testing::Contains("-recording")));
}

}  // namespace

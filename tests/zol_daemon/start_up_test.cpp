#include "zol_daemon.h"

#include <gmock/gmock.h>
#include <malloc.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "device_test.h"
#include "dlog.h"
#include "fake_parts.h"
#include "fake_service_watchdog.h"
#include "waiting.h"

namespace {

using fake_parts::Plan;
using fake_parts::Steps;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::Not;

class Daemon : public DeviceTest {
protected:
    static int Run(const Plan& plan = {}) {
        fake_parts::Reset(plan);
        return zol_daemon::main();
    }
    static int RunFailing(const std::string& part, bool interrupt = false) {
        Plan plan;
        plan.failing = part;
        plan.interrupt = interrupt;
        return Run(plan);
    }

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

/// The steps of every start, up to and with `last`, then those of `rest`.
std::vector<std::string> UpTo(const std::string& last, const std::vector<std::string>& rest) {
    const std::vector<std::string> start{
        "arenas 1", "mmap threshold 32768", "new loop", "catch TERM", "catch INT", "catch HUP", "file log on",
        "+server",  "load shift",           "+logger",  "+manager",   "storage",   "+power",    "+control",
        "+service"};
    std::vector<std::string> steps(start.begin(), std::find(start.begin(), start.end(), last) + 1);
    steps.insert(steps.end(), rest.begin(), rest.end());
    return steps;
}

TEST_F(Daemon, StartUpAndTeardownHappenInOneFixedOrder) {
    EXPECT_EQ(Run(), 0);

    EXPECT_THAT(Steps(), ElementsAreArray(UpTo(
                             "+service", {"run", "-service", "-control", "-power", "-manager", "-server"})));
    EXPECT_THAT(Messages(), ElementsAre("Malloc options set correctly!", "Create g_main_loop",
                                        "test mode is on", "Dbus server created. Testmode: 0"));
}

TEST_F(Daemon, ASignalWhileItRunsEndsTheLoopAndTheServersWaits) {
    Plan plan;
    plan.signalAt = "run";

    EXPECT_EQ(Run(plan), 0);

    EXPECT_THAT(Steps(), ElementsAreArray(UpTo("+service", {"run", "quit", "cancel waits", "-service",
                                                            "-control", "-power", "-manager", "-server"})));
}

TEST_F(Daemon, ASignalWhileTheServerGoesLeavesItAlone) {
    Plan plan;
    plan.signalAt = "-server";

    EXPECT_EQ(Run(plan), 0);

    EXPECT_EQ(Steps().back(), "quit");
    EXPECT_THAT(Steps(), Not(Contains("cancel waits")));
}

TEST_F(Daemon, WhileItRunsItsSupervisorHearsOfLife) {
    fakes::service_watchdog::SetInterval(20000);
    Plan plan;
    plan.whileItRuns = [] {
        EXPECT_TRUE(ServeUntil([] { return fakes::service_watchdog::SignsOfLife() >= 3; }));
    };

    EXPECT_EQ(Run(plan), 0);

    EXPECT_EQ(g_main_context_find_source_by_funcs_user_data(nullptr, &g_timeout_funcs, nullptr), nullptr)
        << "it ends with the run";
}

TEST_F(Daemon, IsReadyOnceItServesAndNotBefore) {
    Plan plan;
    plan.whileItRuns = [] { EXPECT_TRUE(fakes::service_watchdog::IsReady()); };
    EXPECT_EQ(Run(plan), 0);

    fakes::Reset();
    plan.haveLoop = false;
    EXPECT_EQ(Run(plan), 0);
    EXPECT_FALSE(fakes::service_watchdog::IsReady());
}

TEST_F(Daemon, WithoutASupervisorThereIsNoTimer) {
    Plan plan;
    plan.whileItRuns = [] {
        EXPECT_EQ(g_main_context_find_source_by_funcs_user_data(nullptr, &g_timeout_funcs, nullptr), nullptr);
    };

    EXPECT_EQ(Run(plan), 0);

    EXPECT_THAT(Steps(), Contains("run"));
}

TEST_F(Daemon, EveryLineCarriesTheNamesOfTheEntryPointAndALineNumberOfItsOwn) {
    fakes::MakeDeviceFolder("/etc/debug");
    Run();

    std::set<std::string> places;
    for (const fakes::LogLine& line : fakes::dlog::Lines()) {
        EXPECT_EQ(line.text.rfind("zol_daemon: main(", 0), 0U) << line.text;
        places.insert(line.text.substr(0, line.text.find(" > ")));
    }
    EXPECT_EQ(places.size(), 5U);
    ExpectLogged(DLOG_PRIORITY_INFO, {"test mode is on"});
    ExpectLogged(DLOG_PRIORITY_DEBUG, {"Create g_main_loop", "Debug Image!"});
}

TEST_F(Daemon, TheMmapThresholdIsSetOnlyAfterTheArenaLimitWasAcceptedAndTheStartGoesOn) {
    for (const int refused : {M_ARENA_MAX, M_MMAP_THRESHOLD}) {
        fakes::dlog::Clear();
        Plan plan;
        plan.refusedOption = refused;

        EXPECT_EQ(Run(plan), 0);

        const auto hasThreshold = Contains("mmap threshold 32768");
        EXPECT_EQ(testing::Matches(hasThreshold)(Steps()), refused == M_MMAP_THRESHOLD);
        EXPECT_THAT(Steps(), testing::IsSupersetOf({"arenas 1", "run"}));
        EXPECT_EQ(Messages().front(), "Create g_main_loop");
    }
}

TEST_F(Daemon, AnEmptyFileOrFolderMakesADebugImageWhoseRecorderComesLast) {
    Run();
    EXPECT_THAT(Steps(), Not(Contains("key combinations")));
    EXPECT_EQ(Logged("Debug Image!"), 0);

    fakes::WriteDeviceFile("/etc/debug", "");
    Run();
    const auto steps = UpTo(
        "+service", {"key combinations", "run", "-service", "-control", "-power", "-manager", "-server"});
    EXPECT_THAT(Steps(), ElementsAreArray(steps));

    fakes::Reset();
    fakes::MakeDeviceFolder("/etc/debug");
    Run();
    EXPECT_THAT(Steps(), ElementsAreArray(steps));
    ExpectLogged(DLOG_PRIORITY_DEBUG, {"Debug Image!"});
}

TEST_F(Daemon, WithoutAMainLoopEverythingIsBuiltReportedAndTakenDown) {
    Plan plan;
    plan.haveLoop = false;

    EXPECT_EQ(Run(plan), 0);

    EXPECT_THAT(Steps(), ElementsAreArray(
                             UpTo("+service", {"-service", "-control", "-power", "-manager", "-server"})));
    EXPECT_THAT(Messages(),
                ElementsAre("Malloc options set correctly!", "Create g_main_loop", "test mode is on",
                            "Dbus server created. Testmode: 0", "failed to create g_main_loop"));
    ExpectErrors({"failed to create g_main_loop"});
}

TEST_F(Daemon, AnExceptionOutOfAPartDestroysInReverseWhatWasBuiltBefore) {
    struct {
        const char* part;
        const char* last;
        std::vector<std::string> teardown;
    } const cases[] = {{"manager", "+logger", {"-server"}},
                       {"power", "storage", {"-manager", "-server"}},
                       {"control", "+power", {"-power", "-manager", "-server"}}};
    for (const auto& [part, last, teardown] : cases) {
        EXPECT_EQ(RunFailing(part), 0);

        EXPECT_THAT(Steps(), ElementsAreArray(UpTo(last, teardown)));
        EXPECT_EQ(Messages().back(), "ZOL error");
    }
    ExpectErrors({"ZOL error"});
}

TEST_F(Daemon, AnInterruptedThreadIsReportedAsSuch) {
    EXPECT_EQ(RunFailing("server", true), 0);

    EXPECT_THAT(Steps(), ElementsAreArray(UpTo("file log on", {})));
    EXPECT_EQ(Messages().back(), "boost::thread_interrupted");
    ExpectErrors({"boost::thread_interrupted"});
}

}  // namespace
